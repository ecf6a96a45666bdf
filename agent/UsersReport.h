#pragma once

#include <nlohmann/json.hpp>

#include "agent/Intake.h"
#include "agent/Store.h"
#include "common/Json.h"

namespace Agent {

// Who uses a resource, and who waits for it:
//
//   {"resource","key","state","index","result":[...],"version",
//    "entries":N,
//    "clients":[{"table","unit","entries":N,"keys":[...],"acknowledged":V,"behind":BOOL}],
//    "waitingCount":N,"waiting":[{...}],
//    "releases":[{"table","unit","version":V}]}
//
// A client is a table on a unit that has the resource, or has entries that wait for it: it is
// behind unless it has acknowledged the resource's version; `acknowledged` is null as long as it
// has acknowledged none. `releases` are the clients that have given up the index, with the version
// of their tables from which on they do without, null if they have not said so. Where nobody has
// asked for the resource, `state` is null. `waiting` has the operations as waitingReport() has
// them.
//
// `params` has `resource` and `key` as in an event of a resource, and may have `limit`: keys of a
// client, and operations (100 if left out, 10000 at most). Throws Common::InputError for other
// params, and BrioSharedMem::StoreError if the store can't be read. Costs a look at all intents
// that are in flight.
[[nodiscard]] nlohmann::ordered_json usersReport(const Store& store, const Intake& intake,
                                                 const Common::Json& params);

}  // namespace Agent
