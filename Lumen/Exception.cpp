#include "Lumen/Exception.h"

namespace Lumen {

Exception::~Exception() = default;
CorruptionDetectedException::~CorruptionDetectedException() = default;

}  // namespace Lumen
