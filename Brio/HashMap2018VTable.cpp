#include "Brio/HashMap2018VTable.h"

namespace Brio {

Lumen::MemTrack HashMap2018VTable::bucketTracker_{"Brio::HashMap2018BucketHdr"};

}  // namespace Brio
