#pragma once

#include "Brio/LogHandle.h"

namespace KelpEmServer {

// The library's log-message records. They exist once, and are registered when it is loaded.
extern const Brio::LogDescriptor kLogRecords[3];
inline constexpr const Brio::LogDescriptor& HW_ABSTRACTION_EXCEPTION = kLogRecords[0];
inline constexpr const Brio::LogDescriptor& HW_ABSTRACTION_RELAUNCH_ERROR = kLogRecords[1];
inline constexpr const Brio::LogDescriptor& HW_ABSTRACTION_ERROR = kLogRecords[2];

// The handles of one table's entry log, made when the library is loaded.
struct EntryLogHandles {
  EntryLogHandles();

  Brio::LogHandle hwAbstractionError;
  Brio::LogHandle hwAbstractionRelaunchError;
  Brio::LogHandle hwAbstractionException;
};

}  // namespace KelpEmServer
