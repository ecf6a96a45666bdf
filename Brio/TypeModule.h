#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

#include "Brio/FixedString.h"
#include "Brio/GenericIfImpl.h"
#include "Brio/InspectOperation.h"
#include "Brio/InspectType.h"
#include "Lumen/HideMe.h"
#include "Lumen/ModuleInspectData.h"
#include "Lumen/String.h"
#include "Lumen/TypeName.h"

// The type module of a source unit, made at compile time from the attribute lists of its classes.

namespace Brio {

using TypeModule = Lumen::ModuleInspectData;

namespace Impl {

// The code of a type that needs no row in a dependency table; 0 for the others.
template <class V>
constexpr std::int16_t builtinCode() {
  if constexpr (std::is_void_v<V>) {
    return Lumen::kInspectNothing;
  } else if constexpr (std::is_same_v<V, bool>) {
    return Lumen::kInspectBool;
  } else if constexpr (std::is_same_v<V, Lumen::String>) {
    return Lumen::kInspectString;
  } else if constexpr (std::is_integral_v<V> || std::is_enum_v<V>) {
    constexpr std::int16_t kCodes[] = {Lumen::kInspect8, Lumen::kInspect16, Lumen::kInspect32,
                                       Lumen::kInspect64};
    return kCodes[sizeof(V) == 1 ? 0 : sizeof(V) == 2 ? 1 : sizeof(V) == 4 ? 2 : 3];
  } else {
    return 0;
  }
}

// A type of which no module tells.
template <class V>
inline constexpr Lumen::TypeData kPlainType{"", 0, Lumen::typeName<V>()};

template <class V>
constexpr const Lumen::TypeData* typeDataOf() {
  if constexpr (requires { V::classData(); }) {
    return &V::classData();
  } else {
    return &kPlainType<V>;
  }
}

template <class X>
bool isNodeOf(const Lumen::Node& node) {
  return dynamic_cast<const X*>(&node) != nullptr;
}

template <class V>
constexpr TypeModule::Dependency dependencyOn() {
  using To = ReferredTo<V>;
  using X = typename To::Type;
  if constexpr (To::kIsNode) {
    return {typeDataOf<X>(), nullptr, &isNodeOf<X>};
  } else {
    return {typeDataOf<X>(), &kInspectType<X>, nullptr};
  }
}

template <std::size_t most>
struct DependencyList {
  std::array<std::string_view, most> names{};  // which tell types apart
  std::array<TypeModule::Dependency, most> rows{};
  std::size_t size = 0;

  // The code of a type; enters it where it needs a row.
  template <class V>
  constexpr std::int16_t codeOf() {
    if constexpr (builtinCode<V>() != 0) {
      return builtinCode<V>();
    } else {
      const std::string_view name = Lumen::typeName<typename ReferredTo<V>::Type>();
      std::size_t at = 0;
      while (at < size && names[at] != name) {
        ++at;
      }
      if (at == size) {
        names[size] = name;
        rows[size++] = dependencyOn<V>();
      }
      return static_cast<std::int16_t>(at);
    }
  }
};

template <class Args>
struct ArgumentCount;
template <class... A>
struct ArgumentCount<std::tuple<A...>> : std::integral_constant<std::size_t, sizeof...(A)> {};

// The list of arguments that belongs to an attribute: those of the operation, or of the writer.
template <class Class, std::size_t i>
using ArgumentsOf =
    std::conditional_t<AttributeKind::operation == kAttribute<Class, i>.kind,
                       typename MemberTypes<typename AttributeType<Class, i>::Member>::Args,
                       typename MemberTypes<typename AttributeType<Class, i>::Writer>::Args>;

template <class Class>
constexpr auto factoryOf() {
  if constexpr (requires { Class::factory(); }) {
    return Class::factory();
  } else {
    return nullptr;
  }
}
template <class Class>
using FactoryArguments = typename MemberTypes<decltype(factoryOf<Class>())>::Args;

}  // namespace Impl

template <FixedString nameSpace, class... Classes>
class TypeModuleOf {
  static constexpr std::size_t kClasses = sizeof...(Classes);
  static constexpr std::size_t kAttributes = (kAttributeCount<Classes> + ...);

  // Every class knows its place here.
  static_assert([] {
    unsigned index = 0;
    return (... && (Classes::classData().classIndex == index++));
  }());

  // ---- the names

  struct NamePool {
    std::array<std::string_view, kAttributes + 1> names{};
    std::size_t count = 0;
    std::size_t bytes = 0;

    [[nodiscard]] constexpr std::uint32_t offsetOf(std::string_view name) const {
      std::size_t offset = 0;
      for (std::size_t i = 0; i < count && names[i] != name; ++i) {
        offset += names[i].size() + 1;
      }
      return static_cast<std::uint32_t>(offset);
    }
  };
  template <class Class>
  static constexpr void collectNames(NamePool& pool) {
    std::apply([&](const auto&... each) { ((pool.names[pool.count++] = each.name), ...); },
               kAttributesOf<Class>.attributes);
  }
  static constexpr NamePool kNamePool = [] {
    NamePool pool;
    pool.names[pool.count++] = "";
    (collectNames<Classes>(pool), ...);
    std::sort(pool.names.begin(), pool.names.end());
    const auto end = std::unique(pool.names.begin(), pool.names.end());
    pool.count = static_cast<std::size_t>(end - pool.names.begin());
    for (std::size_t i = 0; i < pool.count; ++i) {
      pool.bytes += pool.names[i].size() + 1;
    }
    return pool;
  }();
  static constexpr auto kAttributeNames = [] {
    std::array<char, kNamePool.bytes> text{};
    std::size_t at = 0;
    for (std::size_t i = 0; i < kNamePool.count; ++i) {
      at = std::copy(kNamePool.names[i].begin(), kNamePool.names[i].end(), text.begin() + at) -
           text.begin() + 1;
    }
    return text;
  }();

  static constexpr std::array<std::string_view, kClasses> kClassNames{Classes::className()...};
  static constexpr std::string_view kPrefix = nameSpace.view();
  static constexpr std::size_t kTypeNameBytes = [] {
    std::size_t bytes = 0;
    for (const std::string_view name : kClassNames) {
      bytes += kPrefix.size() + name.size() + 1;
    }
    return bytes;
  }();
  static constexpr auto kTypeNames = [] {
    std::array<char, kTypeNameBytes> text{};
    auto at = text.begin();
    for (const std::string_view name : kClassNames) {
      at = std::copy(kPrefix.begin(), kPrefix.end(), at);
      at = std::copy(name.begin(), name.end(), at) + 1;
    }
    return text;
  }();

  // ---- the rows

  template <class Class>
  static constexpr std::size_t argumentsOf() {
    return []<std::size_t... i>(std::index_sequence<i...>) {
      return ((Impl::ArgumentCount<Impl::ArgumentsOf<Class, i>>::value + 1) + ... +
              (Impl::ArgumentCount<Impl::FactoryArguments<Class>>::value + 1));
    }
    (std::make_index_sequence<kAttributeCount<Class>>());
  }
  static constexpr std::size_t kMostArguments = (argumentsOf<Classes>() + ... + 1);
  static constexpr std::size_t kMostTypes = 2 * kAttributes + kMostArguments;

  struct Rows {
    std::array<TypeModule::ClassRow, kClasses> classes{};
    std::array<TypeModule::AttributeRow, kAttributes> attributes{};
    std::array<TypeModule::ArgumentRow, kMostArguments> arguments{};
    Impl::DependencyList<kMostTypes> types;
    std::size_t classCount = 0;
    std::size_t attributeCount = 0;
    std::size_t argumentCount = 0;
    std::size_t typeName = 0;

    template <class... A>
    constexpr std::uint16_t addArguments(std::tuple<A...>*) {
      const auto at = static_cast<std::uint16_t>(argumentCount);
      ((arguments[argumentCount++] = {types.template codeOf<std::remove_cvref_t<A>>(),
                                      ReferredTo<std::remove_cvref_t<A>>::kIsPtr
                                          ? std::uint16_t{Lumen::kInspectPtr}
                                          : std::uint16_t{0}}),
       ...);
      arguments[argumentCount++] = {Lumen::kInspectNoKey, 0};
      return at;
    }
    template <class V>
    constexpr void setType(TypeModule::AttributeRow& row) {
      row.type = types.template codeOf<V>();
      if (ReferredTo<V>::kIsPtr) {
        row.flags |= Lumen::kInspectPtr;
      }
    }

    template <class Class, std::size_t i>
    constexpr void addAttribute(std::int16_t& members) {
      constexpr const auto& kThis = kAttribute<Class, i>;
      using Attribute = AttributeType<Class, i>;
      using Types = MemberTypes<typename Attribute::Member>;
      constexpr bool kWrites = !std::is_same_v<typename Attribute::Writer, std::nullptr_t>;
      TypeModule::AttributeRow& row = attributes[attributeCount++];
      row = {static_cast<std::uint16_t>(kAttributesOf<Class>.firstId + i),
             0,
             kNamePool.offsetOf(kThis.name),
             Lumen::kInspectNothing,
             Lumen::kInspectNoKey,
             0,
             -1};
      if constexpr (kThis.kind != AttributeKind::retired) {
        if constexpr (kThis.kind == AttributeKind::operation) {
          setType<typename Types::Result>(row);
          row.flags |= Lumen::kInspectOperation;
          row.flags |= Types::kIsConst ? 0 : Lumen::kInspectMutating;
        } else if constexpr (kIsCollection<Class, i>) {
          using Access = InspectCollection<typename Types::Result>;
          if constexpr (std::is_void_v<typename Access::Value>) {
            row.type = Lumen::kInspectBool;
            row.flags |= Lumen::kInspectSet;
          } else {
            setType<typename Access::Value>(row);
          }
          row.keyType = types.template codeOf<typename Access::Key>();
          row.flags |= Lumen::kInspectCollection | Lumen::kInspectStored;
        } else {
          setType<typename Types::Result>(row);
          row.flags |= kThis.kind == AttributeKind::stored ? Lumen::kInspectStored : 0;
        }
        row.flags |= kThis.served ? Lumen::kInspectServed : 0;
        row.flags |= kThis.takesNullNodes ? Lumen::kInspectNullArgs : 0;
        row.flags |= kWrites ? Lumen::kInspectWritable : 0;
        row.flags |= std::is_same_v<typename Attribute::Deleter, std::nullptr_t>
                         ? 0
                         : Lumen::kInspectDeletes;
        row.member = Types::kIsData ? members++ : std::int16_t{-1};
        if constexpr (kWrites || kThis.kind == AttributeKind::operation) {
          row.arguments = addArguments(static_cast<Impl::ArgumentsOf<Class, i>*>(nullptr));
        }
      }
    }
    template <class Class>
    constexpr void addClass() {
      classes[classCount++] = {static_cast<std::uint32_t>(typeName),
                               static_cast<std::uint16_t>(kAttributeCount<Class>),
                               static_cast<std::uint16_t>(attributeCount)};
      typeName += kPrefix.size() + std::string_view(Class::className()).size() + 1;
      std::int16_t members = 0;
      [&]<std::size_t... i>(std::index_sequence<i...>) { (addAttribute<Class, i>(members), ...); }
      (std::make_index_sequence<kAttributeCount<Class>>());
    }
    template <class Class>
    constexpr void addFactory() {
      addArguments(static_cast<Impl::FactoryArguments<Class>*>(nullptr));
    }
  };
  // Indexes have 16 bits, those of types a sign.
  static_assert(kAttributes <= 0xffff && kMostArguments <= 0xffff && kMostTypes <= 0x7fff);
  static constexpr Rows kRows = [] {
    Rows rows;
    rows.arguments[rows.argumentCount++] = {Lumen::kInspectNoKey, 0};
    (rows.template addFactory<Classes>(), ...);
    (rows.template addClass<Classes>(), ...);
    return rows;
  }();

  template <class Class>
  static constexpr TypeModule::GlueRow glueOf() {
    using Functions = Lumen::HideMe<Class>;
    TypeModule::GlueRow row{{nullptr, nullptr},
                            &GenericIfImpl::GenericIfPtrInterfaceMethods<Lumen::Node>::vtable_,
                            nullptr,
                            &Functions::inspectOperation,
                            &Functions::genericIfIterator};
    if constexpr (requires { Class::factory(); }) {
      row.construct = &Functions::genericIfConstructFromCtorArgs;
    }
    return row;
  }
  static constexpr std::array<TypeModule::GlueRow, kClasses> kGlue{glueOf<Classes>()...};

 public:
  static constexpr TypeModule module() {
    return {kRows.classes.data(),   kRows.attributes.data(),
            kRows.arguments.data(), kTypeNames.data(),
            kAttributeNames.data(), kRows.types.rows.data(),
            kGlue.data(),           static_cast<std::uint32_t>(kClasses)};
  }
};

}  // namespace Brio
