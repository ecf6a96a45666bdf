#include "agent/InspectionCollections.h"

#include <fmt/format.h>

#include <limits>
#include <memory>
#include <utility>

#include "Brio/InspectPlace.h"
#include "agent/InspectionError.h"
#include "agent/InspectionParams.h"
#include "common/JsonRpc.h"

namespace Agent {

using Brio::InspectAttribute;
using Brio::InspectPlace;
using Brio::InspectValue;

namespace {

constexpr std::uint64_t kAny = std::numeric_limits<std::uint64_t>::max();
constexpr std::uint64_t kLimit = 1000;
constexpr std::uint64_t kMostLimit = 10000;
constexpr std::size_t kPageBytes = 1 << 18;  // after which a page ends
constexpr unsigned kMembersAtATime = 32;

InspectValue keyOf(const InspectionCall& call, const InspectionParams& params,
                   std::string_view name) {
  return call.session.valueOf(params.value(name), std::string(name));
}

// Whether a walk of the place gives objects.
bool hasObjects(const InspectPlace& place) {
  if (!place.field() || place.field()->attribute.row().type < 0) {
    return false;
  }
  const InspectAttribute& attribute = place.field()->attribute;
  return attribute.field().module->dependencyTable[attribute.row().type].value == nullptr;
}

bool isSet(const InspectPlace& place) {
  return place.field() && place.field()->attribute.has(Lumen::kInspectSet);
}

// One page of a walk, made bit by bit.
class Page {
 public:
  // `isNew`: nobody knows of the cursor yet.
  Page(InspectionSession& session, std::uint64_t cursor, std::uint64_t limit, bool isNew)
      : session_(session), cursor_(cursor), left_(limit), isNew_(isNew) {}

  // As InspectionCall::More.
  bool more(std::string& out) {
    try {
      return append(out);
    } catch (...) {
      if (isNew_) {
        session_.cursorDel(cursor_);
      }
      throw;
    }
  }

 private:
  bool append(std::string& out) {
    InspectionSession::Cursor& cursor = session_.cursor(cursor_);
    if (std::exchange(first_, false)) {
      begin_ = out.size();
      out += R"({"members":[)";
    }
    // The one that the walk had come to may have gone in the meantime.
    while (!cursor.at.atEnd() && !cursor.place.has(cursor.at.key())) {
      cursor.at.advance();
    }
    for (unsigned i = 0; i < kMembersAtATime && !isWhole(cursor, out); ++i) {
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
  [[nodiscard]] bool isWhole(const InspectionSession::Cursor& cursor,
                             const std::string& out) const {
    return left_ == 0 || out.size() - begin_ > kPageBytes || cursor.at.atEnd();
  }
  void appendMember(std::string& out, const InspectionSession::Cursor& cursor) {
    out += out.back() == '[' ? "[" : ",[";
    const InspectValue key = cursor.at.key();
    session_.appendValue(out, key, cursor.place.path(), false);
    if (!cursor.isSet) {
      out += ',';
      const InspectValue value = cursor.at.value();
      const bool object = value.as<InspectValue::NodePtr>() != nullptr;
      session_.appendValue(out, value, object ? cursor.place.memberPath(key) : std::string(),
                           cursor.leadsBack);
    }
    out += ']';
  }

  InspectionSession& session_;
  std::uint64_t cursor_;
  std::uint64_t left_;
  bool isNew_;
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
  call.out += place.has(keyOf(call, params, "key")) ? "true" : "false";
}

void inspectLookup(InspectionCall& call) {
  const InspectionParams params(call.params, {"path", "key"});
  const InspectPlace place = call.session.find(params.text("path"));
  const InspectValue key = keyOf(call, params, "key");
  if (isSet(place) || place.has(key)) {
    call.session.appendValue(call.out, place.lookup(key), place.memberPath(key), place.leadsBack());
  } else {
    call.out += "null";
  }
}

void inspectDelete(InspectionCall& call) {
  const InspectionParams params(call.params, {"path", "key"});
  const InspectPlace place = call.session.find(params.text("path"));
  const InspectValue key = keyOf(call, params, "key");
  call.session.checkMayChange(place.path());
  const bool there = place.has(key);
  const InspectValue old = place.del(key);
  if (isSet(place) || there) {
    call.session.appendValue(call.out, old, place.path(), false);
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
    if (!place.leadsBack() && hasObjects(place)) {
      // One object is held, and not each of its members.
      place = InspectPlace(place.object(), call.session.hold(place.object(), place.path()))
                  .step(place.field()->attribute.name());
    }
    number = call.session.cursorAdd(
        {place, params.has("from") ? place.cursor(keyOf(call, params, "from")) : place.cursor(),
         isSet(place), place.leadsBack()});
  }
  const auto page = std::make_shared<Page>(call.session, number, limit, !goesOn);
  call.more = [page](std::string& out) { return page->more(out); };
}

void inspectClose(InspectionCall& call) {
  const InspectionParams params(call.params, {"cursor"});
  call.session.cursorDel(params.number("cursor", 0, kAny));
  call.out += "null";
}

}  // namespace Agent
