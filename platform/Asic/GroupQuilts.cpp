#include "Asic/GroupQuilts.h"

#include "BrioSharedMem/EntityType.h"

namespace Asic {
namespace {

const BrioSharedMem::EntityTypeRegistrar<StatusQuilt> status(kStatusQuiltType);
const BrioSharedMem::EntityTypeRegistrar<NeededQuilt> needed(kNeededQuiltType);

}  // namespace
}  // namespace Asic
