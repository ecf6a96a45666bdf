#pragma once

#include "agent/InspectionMethods.h"

// The methods of inspection that are about one attribute or object.

namespace Agent {

void inspectRead(InspectionCall& call);
void inspectWrite(InspectionCall& call);
void inspectCall(InspectionCall& call);
void inspectSubscribe(InspectionCall& call);
void inspectUnsubscribe(InspectionCall& call);
void inspectRelease(InspectionCall& call);

}  // namespace Agent
