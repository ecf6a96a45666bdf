#include "agent/InspectionCollections.h"

#include <fmt/format.h>

#include <limits>
#include <memory>
#include <utility>

#include "Brio/InspectPlace.h"
#include "agent/InspectionError.h"
#include "agent/InspectionJson.h"
#include "agent/InspectionParams.h"
#include "common/JsonRpc.h"

namespace Agent {

using Brio::InspectPlace;
using Brio::InspectValue;
using From = InspectionSession::From;

namespace {

constexpr std::uint64_t kAny = std::numeric_limits<std::uint64_t>::max();
constexpr std::uint64_t kLimit = 1000;
constexpr std::uint64_t kMostLimit = 10000;
constexpr std::size_t kPageBytes = 1 << 18;  // after which a page ends
// After one of which a part of a page ends.
constexpr unsigned kMembersAtATime = 32;
constexpr std::size_t kBytesAtATime = 1 << 13;

InspectValue keyOf(const InspectionParams& params, std::string_view name) {
  return toInspectValue(params.value(name), name);
}

From fromOf(const InspectPlace& place) { return place.leadsBack() ? From::path : From::elsewhere; }

bool isSet(const InspectPlace& place) {
  return place.field() && place.field()->attribute.has(Lumen::kInspectSet);
}

// One page of a walk, made bit by bit.
class Page {
 public:
  Page(InspectionSession& session, std::uint64_t cursor, std::uint64_t limit)
      : session_(session), cursor_(cursor), left_(limit) {}

  // As InspectionCall::More.
  bool more(std::string& out) {
    InspectionSession::Cursor& cursor = session_.cursor(cursor_);
    if (std::exchange(first_, false)) {
      begin_ = out.size();
      out += R"({"members":[)";
    }
    // The one that the walk had come to may have gone in the meantime.
    cursor.at.settle();
    const std::size_t before = out.size();
    for (unsigned i = 0;
         i < kMembersAtATime && out.size() - before < kBytesAtATime && !isWhole(cursor, out); ++i) {
      appendMember(out, cursor);
      --left_;
      cursor.at.advance();
    }
    if (!isWhole(cursor, out)) {
      return false;
    }
    if (cursor.at.atEnd()) {
      out += R"(],"cursor":null})";
      session_.cursorDel(cursor_);
    } else {
      out += fmt::format(R"(],"cursor":{}}})", cursor_);
    }
    return true;
  }

 private:
  [[nodiscard]] bool isWhole(const InspectionSession::Cursor& cursor,
                             const std::string& out) const {
    return left_ == 0 || out.size() - begin_ > kPageBytes || cursor.at.atEnd();
  }
  void appendMember(std::string& out, const InspectionSession::Cursor& cursor) {
    out += out.back() == '[' ? "[" : ",[";
    const InspectValue key = cursor.at.key();
    session_.appendValue(out, key, cursor.place.path(), From::elsewhere);
    if (!cursor.isSet) {
      out += ',';
      const InspectValue value = cursor.at.value();
      const bool object = value.as<InspectValue::NodePtr>() != nullptr;
      session_.appendValue(out, value, object ? cursor.place.memberPath(key) : std::string(),
                           cursor.leadsBack ? From::path : From::elsewhere);
    }
    out += ']';
  }

  InspectionSession& session_;
  std::uint64_t cursor_;
  std::uint64_t left_;
  std::size_t begin_ = 0;
  bool first_ = true;
};

}  // namespace

void inspectCount(InspectionCall& call) {
  const InspectionParams params(call.params, {"path"});
  call.out += fmt::format("{}", call.session.find(params.text("path")).count());
}

void inspectHas(InspectionCall& call) {
  const InspectionParams params(call.params, {"path", "key"});
  const InspectPlace place = call.session.find(params.text("path"));
  call.out += place.has(keyOf(params, "key")) ? "true" : "false";
}

void inspectLookup(InspectionCall& call) {
  const InspectionParams params(call.params, {"path", "key"});
  const InspectPlace place = call.session.find(params.text("path"));
  const InspectValue key = keyOf(params, "key");
  if (isSet(place) || place.has(key)) {
    call.session.appendValue(call.out, place.lookup(key), place.memberPath(key), fromOf(place));
  } else {
    call.out += "null";
  }
}

void inspectDelete(InspectionCall& call) {
  const InspectionParams params(call.params, {"path", "key"});
  const InspectPlace place = call.session.find(params.text("path"));
  const InspectValue key = keyOf(params, "key");
  call.session.checkMayChange(place.path());
  if (givesObject(place)) {
    call.session.checkMayHold();
  }
  const bool there = place.has(key);
  const InspectValue old = place.del(key);
  if (isSet(place) || there) {
    call.session.appendValue(call.out, old, place.path(), From::operation);
  } else {
    call.out += "null";
  }
}

void inspectIterate(InspectionCall& call) {
  const bool goesOn = call.params.is_object() && call.params.contains("cursor");
  const InspectionParams params = goesOn ? InspectionParams(call.params, {"cursor", "limit"})
                                         : InspectionParams(call.params, {"path", "from", "limit"});
  const std::uint64_t limit = params.number("limit", 1, kMostLimit, kLimit);
  std::uint64_t number = 0;
  if (goesOn) {
    number = params.number("cursor", 0, kAny);
    (void)call.session.cursor(number);
  } else {
    InspectPlace place = call.session.find(params.text("path"));
    if (!place.leadsBack() && place.object() && place.field() && givesObject(place)) {
      // One object is held, and not each of its members.
      place = InspectPlace(place.object(), call.session.hold(place.object(), place.path(), true))
                  .step(place.field()->attribute.name());
    }
    number = call.session.cursorAdd(
        {place,
         params.has("from") ? place.cursor(keyOf(params, "from")) : place.cursor(),
         isSet(place),
         place.leadsBack(),
         {}});
  }
  const auto page = std::make_shared<Page>(call.session, number, limit);
  call.more = [page](std::string& out) { return page->more(out); };
}

void inspectClose(InspectionCall& call) {
  const InspectionParams params(call.params, {"cursor"});
  call.session.cursorDel(params.number("cursor", 0, kAny));
  call.out += "null";
}

}  // namespace Agent
