#include "BrioSharedMem/EntityType.h"
#include "KelpEmServer/NinthKelpInterface.h"
#include "TableCore.h"

namespace {

const BrioSharedMem::EntityTypeRegistrar<KelpTunnelNiLib::NinthConfigQuilt> config(
    "KelpTunnelNiLib::NinthConfigQuilt");
const BrioSharedMem::EntityTypeRegistrar<KelpTunnelNiLib::NinthEntryLogQuilt> log(
    "KelpTunnelNiLib::NinthEntryLogQuilt");

}  // namespace

namespace TestSupport {

INSTANTIATE_TYPED_TEST_SUITE_P(NinthTable, TableCore, testing::Types<KelpEmServer::Ninth>,
                               TableTestName);

}  // namespace TestSupport
