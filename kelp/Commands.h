#pragma once

#include "kelp/Session.h"

// The commands. Each writes to the session's output and tells what went wrong through it; what it
// can't do at all it throws: CommandError, BrioSharedMem::StoreError, Common::InputError.

namespace Kelp {

// All tables, with the entries of each unit.
void showTables(Session& session);
// How far the changes of each table are.
void showPending(Session& session);
// What the resource tables have given out, and to whom.
void showResources(Session& session);
// The entries of a table, in no order.
void showEntries(Session& session);
// All that is known of one key.
void showEntry(Session& session);
// The records of a table's change log by version, and with `follow` those to come.
void showLog(Session& session);
// What has changed of late: asks the agent for the versions, and reads the changes itself.
void showChanges(Session& session);
// Whether every collection is sound.
void check(Session& session);

}  // namespace Kelp
