#include "BrioSharedMem/EntityType.h"
#include "PactResourceTable/Records.h"

namespace PactResourceTable {
namespace {

const BrioSharedMem::EntityTypeRegistrar<HoldQuilt> holds(kHoldQuiltType);
const BrioSharedMem::EntityTypeRegistrar<ReleaseQuilt> releases(kReleaseQuiltType);

}  // namespace
}  // namespace PactResourceTable
