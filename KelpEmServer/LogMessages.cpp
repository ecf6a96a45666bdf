#include "KelpEmServer/LogMessages.h"

namespace KelpEmServer {

constinit const Brio::LogDescriptor kLogRecords[3] = {
    {"HW_ABSTRACTION_EXCEPTION", "%s", "Exception", "\x01", 3},
    {"HW_ABSTRACTION_RELAUNCH_ERROR", "%s", "Duplicate Writer Detected, quilt path not cleaned up",
     "\x01", 3},
    {"HW_ABSTRACTION_ERROR", "Hardware abstraction error: unable to load item: %s",
     "Hardware abstraction error: unable to load some persistent items. Some agents will be "
     "restarted",
     "\x01", 3},
};

namespace {

const Brio::LogSection section("KelpEmServer", kLogRecords);

}  // namespace

EntryLogHandles::EntryLogHandles()
    : hwAbstractionError(&HW_ABSTRACTION_ERROR, Lumen::Duration(), 1.0, 0, 0),
      hwAbstractionRelaunchError(&HW_ABSTRACTION_RELAUNCH_ERROR, Lumen::Duration(), 1.0, 0, 0),
      hwAbstractionException(&HW_ABSTRACTION_EXCEPTION, Lumen::Duration(), 1.0, 0, 0) {}

}  // namespace KelpEmServer
