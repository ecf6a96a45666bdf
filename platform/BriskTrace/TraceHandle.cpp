#include "BriskTrace/TraceHandle.h"

namespace BriskTrace {

TraceHandle* defaultBriskTraceHandle = nullptr;

}  // namespace BriskTrace
