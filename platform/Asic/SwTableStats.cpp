#include "Asic/SwTableStats.h"

namespace Asic {

SwTableStats::~SwTableStats() = default;

}  // namespace Asic
