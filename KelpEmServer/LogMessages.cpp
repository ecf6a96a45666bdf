#include "KelpEmServer/LogMessages.h"

namespace KelpEmServer {
namespace {

constexpr Brio::LogDescriptor kRecords[] = {
    {"HW_ABSTRACTION_EXCEPTION", "%s", "Exception", "\x01", 3},
    {"HW_ABSTRACTION_RELAUNCH_ERROR", "%s", "Duplicate Writer Detected, quilt path not cleaned up",
     "\x01", 3},
    {"HW_ABSTRACTION_ERROR", "Hardware abstraction error: unable to load item: %s",
     "Hardware abstraction error: unable to load some persistent items. Some agents will be "
     "restarted",
     "\x01", 3},
};

const Brio::LogSection section("KelpEmServer", kRecords);

}  // namespace

constinit const Brio::LogDescriptor HW_ABSTRACTION_EXCEPTION = kRecords[0];
constinit const Brio::LogDescriptor HW_ABSTRACTION_RELAUNCH_ERROR = kRecords[1];
constinit const Brio::LogDescriptor HW_ABSTRACTION_ERROR = kRecords[2];

EntryLogHandles::EntryLogHandles()
    : hwAbstractionError(&HW_ABSTRACTION_ERROR, Lumen::Duration(), 1.0, 0, 0),
      hwAbstractionRelaunchError(&HW_ABSTRACTION_RELAUNCH_ERROR, Lumen::Duration(), 1.0, 0, 0),
      hwAbstractionException(&HW_ABSTRACTION_EXCEPTION, Lumen::Duration(), 1.0, 0, 0) {}

}  // namespace KelpEmServer
