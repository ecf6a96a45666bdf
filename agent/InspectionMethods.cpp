#include "agent/InspectionMethods.h"

#include <algorithm>
#include <array>

#include "agent/InspectionCollections.h"
#include "agent/InspectionObjects.h"
#include "agent/InspectionReports.h"
#include "agent/InspectionValues.h"

namespace Agent {
namespace {

struct Named {
  std::string_view name;
  InspectionMethod method;
};

constexpr std::array kMethods{
    Named{"objects", &inspectObjects},
    Named{"classes", &inspectClasses},
    Named{"attributes", &inspectAttributes},
    Named{"list", &inspectList},
    Named{"read", &inspectRead},
    Named{"write", &inspectWrite},
    Named{"call", &inspectCall},
    Named{"subscribe", &inspectSubscribe},
    Named{"unsubscribe", &inspectUnsubscribe},
    Named{"release", &inspectRelease},
    Named{"count", &inspectCount},
    Named{"has", &inspectHas},
    Named{"lookup", &inspectLookup},
    Named{"delete", &inspectDelete},
    Named{"iterate", &inspectIterate},
    Named{"close", &inspectClose},
    Named{"stats", &inspectStats},
    Named{"waiting", &inspectWaiting},
    Named{"users", &inspectUsers},
    Named{"versions", &inspectVersions},
    Named{"trace", &inspectTrace},
};

}  // namespace

bool givesObject(const Brio::InspectPlace& place) {
  if (!place.field() || place.field()->attribute.row().type < 0) {
    return false;
  }
  const Brio::InspectAttribute& attribute = place.field()->attribute;
  return attribute.field().module->dependencyTable[attribute.row().type].value == nullptr;
}

InspectionMethod inspectionMethod(std::string_view name) {
  const auto found = std::find_if(kMethods.begin(), kMethods.end(),
                                  [&](const Named& one) { return one.name == name; });
  return found == kMethods.end() ? nullptr : found->method;
}

}  // namespace Agent
