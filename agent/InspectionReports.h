#pragma once

#include "agent/InspectionMethods.h"

// Methods that answer questions about the agent as a whole.

namespace Agent {

void inspectStats(InspectionCall& call);
void inspectTrace(InspectionCall& call);
void inspectUsers(InspectionCall& call);
void inspectVersions(InspectionCall& call);
void inspectWaiting(InspectionCall& call);

}  // namespace Agent
