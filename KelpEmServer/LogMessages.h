#pragma once

#include "Brio/LogHandle.h"

namespace KelpEmServer {

// The library's log-message records.
extern const Brio::LogDescriptor HW_ABSTRACTION_EXCEPTION;
extern const Brio::LogDescriptor HW_ABSTRACTION_RELAUNCH_ERROR;
extern const Brio::LogDescriptor HW_ABSTRACTION_ERROR;

// The handles of one table's entry log, made when the library is loaded.
struct EntryLogHandles {
  EntryLogHandles();

  Brio::LogHandle hwAbstractionError;
  Brio::LogHandle hwAbstractionRelaunchError;
  Brio::LogHandle hwAbstractionException;
};

}  // namespace KelpEmServer
