#pragma once

#include "agent/InspectionMethods.h"

// The methods of inspection that tell what there is.

namespace Agent {

void inspectObjects(InspectionCall& call);
void inspectClasses(InspectionCall& call);
void inspectAttributes(InspectionCall& call);
void inspectList(InspectionCall& call);

}  // namespace Agent
