#pragma once

#include "kelp/Live.h"

// The commands that ask a running agent. Each writes to the output, and throws what it can't do:
// CommandError, Common::InputError.

namespace Kelp {

// What is at a place: the roots, the attributes of an object, the members of a collection.
void listPlace(Live& live);
// What a path may go on with, one on a line.
void completePath(Live& live);
// The value at a place, or all that an object holds.
void getValue(Live& live);
void setValue(Live& live);
void callOperation(Live& live);
// Changes of a place, until interrupted.
void watchPlace(Live& live);
// The trace handles, and the ring buffer.
void showTrace(Live& live);
// The operations that have no outcome, and what they wait for.
void showWaiting(Live& live);
// Who uses a resource.
void showUsers(Live& live);
// Every counter.
void showStats(Live& live);
// The same as it moves.
void showTop(Live& live);

}  // namespace Kelp
