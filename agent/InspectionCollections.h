#pragma once

#include "agent/InspectionMethods.h"

// The methods of inspection that are about a collection.

namespace Agent {

void inspectCount(InspectionCall& call);
void inspectHas(InspectionCall& call);
void inspectLookup(InspectionCall& call);
void inspectDelete(InspectionCall& call);
void inspectIterate(InspectionCall& call);
void inspectClose(InspectionCall& call);

}  // namespace Agent
