#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <tuple>
#include <utility>

#include "Lumen/Publisher.h"

// The attributes of a class, declared once, in order. Whatever speaks of an attribute by number
// (the notification that a setter sends, a tool that reads it from outside) takes the number from
// here: the first number of the class's family plus the position in the list.

namespace Brio {

enum class AttributeKind : std::uint8_t {
  stored,      // a plain attribute that the object holds
  view,        // a plain attribute that is computed or part of another
  collection,  // a keyed collection
  queue,
  operation,
  retired,  // a number that was used once and is not given out again
};

// One attribute. What writes it from outside, and what deletes a member of it, are named beside it,
// as writtenBy() and deletedBy(); an attribute without them is only read.
template <class MemberT, class WriterT = std::nullptr_t, class DeleterT = std::nullptr_t,
          class CheckT = std::nullptr_t>
struct Attribute {
  using Member = MemberT;
  using Writer = WriterT;
  using Deleter = DeleterT;
  using Check = CheckT;

  std::string_view name;
  AttributeKind kind;
  Member member;  // pointer to the data member or member function; nullptr where there is none
  Writer writer{};
  Deleter deleter{};
  Check check{};
  bool served = true;           // whether inspection serves it
  bool takesNullNodes = false;  // an operation, as arguments

  template <class W>
  [[nodiscard]] constexpr Attribute<Member, W, Deleter, Check> writtenBy(W by) const {
    return {name, kind, member, by, deleter, check, served, takesNullNodes};
  }
  template <class D>
  [[nodiscard]] constexpr Attribute<Member, Writer, D, Check> deletedBy(D by) const {
    return {name, kind, member, writer, by, check, served, takesNullNodes};
  }
  // Called from outside, an operation gets no argument that `by`, a member function of one
  // parameter, throws for: each argument of that parameter's type is given to it first. For what
  // callers inside know better than to ask.
  template <class C>
  [[nodiscard]] constexpr Attribute<Member, Writer, Deleter, C> checkedBy(C by) const {
    return {name, kind, member, writer, deleter, by, served, takesNullNodes};
  }
  // Null stands for a node among the arguments of an operation; without this, outside callers are
  // refused.
  [[nodiscard]] constexpr Attribute takesNull() const {
    return {name, kind, member, writer, deleter, check, served, true};
  }
  // Known by its number alone: for steps of an object's own life, and what is internal.
  [[nodiscard]] constexpr Attribute notServed() const {
    return {name, kind, member, writer, deleter, check, false, takesNullNodes};
  }
};

template <class Member>
constexpr Attribute<Member> stored(std::string_view name, Member member) {
  return {name, AttributeKind::stored, member};
}
template <class Member>
constexpr Attribute<Member> view(std::string_view name, Member member) {
  return {name, AttributeKind::view, member};
}
template <class Member>
constexpr Attribute<Member> collection(std::string_view name, Member member) {
  return {name, AttributeKind::collection, member};
}
template <class Member>
constexpr Attribute<Member> queue(std::string_view name, Member member) {
  return {name, AttributeKind::queue, member};
}
template <class Member>
constexpr Attribute<Member> operation(std::string_view name, Member member) {
  return {name, AttributeKind::operation, member};
}
constexpr Attribute<std::nullptr_t> retired() {
  return {"", AttributeKind::retired, nullptr, nullptr, nullptr, nullptr, false, false};
}

template <class... Attributes>
struct AttributeList {
  std::uint16_t firstId;
  std::tuple<Attributes...> attributes;

  [[nodiscard]] static constexpr std::size_t size() noexcept { return sizeof...(Attributes); }
  // The number of an attribute. A name that is not in the list does not compile.
  [[nodiscard]] constexpr std::uint16_t idOf(std::string_view name) const {
    std::uint16_t position = 0;
    const bool found = std::apply(
        [&](const auto&... each) {
          return (... ||
                  (each.name == name && each.kind != AttributeKind::retired ? true
                                                                            : (++position, false)));
        },
        attributes);
    if (!found) {
      throw "the class declares no attribute of this name";
    }
    return static_cast<std::uint16_t>(firstId + position);
  }
};

template <class... Attributes>
constexpr AttributeList<Attributes...> attributeList(std::uint16_t firstId,
                                                     const Attributes&... attributes) {
  return {firstId, std::tuple<Attributes...>{attributes...}};
}

// The same for groups of attributes that stand one behind the other, each a tuple of Attribute.
template <class... Groups>
constexpr auto attributeGroups(std::uint16_t firstId, const Groups&... groups) {
  return std::apply(
      [&](const auto&... attributes) { return attributeList(firstId, attributes...); },
      std::tuple_cat(groups...));
}

// The number of an attribute of Class, which has a static constexpr function attributes().
template <class Class>
[[nodiscard]] consteval Lumen::FieldId fieldId(std::string_view name) {
  return Lumen::FieldId{Class::attributes().idOf(name)};
}

// What a plain setter does: an equal value does nothing; any other is stored, and the change is
// published with the old value.
template <class Value>
void attributeIs(Lumen::Publisher& changes, Lumen::FieldId field, Value& member,
                 const Value& value) {
  if (member == value) {
    return;
  }
  const Value old = std::exchange(member, value);
  changes.publishChangeRecursive(field, nullptr, &old);
}

}  // namespace Brio
