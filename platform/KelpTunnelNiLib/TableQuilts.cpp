#include "KelpTunnelNiLib/TableQuilts.h"

#include "BrioSharedMem/EntityType.h"

namespace KelpTunnelNiLib {
namespace {

template <class Quilt>
using Registrar = BrioSharedMem::EntityTypeRegistrar<Quilt>;

const Registrar<EsemFodoConfigQuilt> config1("KelpTunnelNiLib::EsemFodoConfigQuilt");
const Registrar<EsemFodoVdConfigQuilt> config2("KelpTunnelNiLib::EsemFodoVdConfigQuilt");
const Registrar<Isem1TagConfigQuilt> config3("KelpTunnelNiLib::Isem1TagConfigQuilt");
const Registrar<Isem2TagConfigQuilt> config4("KelpTunnelNiLib::Isem2TagConfigQuilt");
const Registrar<IsemInnerEthConfigQuilt> config5("KelpTunnelNiLib::IsemInnerEthConfigQuilt");
const Registrar<IsemMplsConfigQuilt> config6("KelpTunnelNiLib::IsemMplsConfigQuilt");
const Registrar<IsemUntaggedConfigQuilt> config7("KelpTunnelNiLib::IsemUntaggedConfigQuilt");
const Registrar<LemVpwsAcConfigQuilt> config8("KelpTunnelNiLib::LemVpwsAcConfigQuilt");

const Registrar<EsemFodoEntryLogQuilt> log1("KelpTunnelNiLib::EsemFodoEntryLogQuilt");
const Registrar<EsemFodoVdEntryLogQuilt> log2("KelpTunnelNiLib::EsemFodoVdEntryLogQuilt");
const Registrar<Isem1TagEntryLogQuilt> log3("KelpTunnelNiLib::Isem1TagEntryLogQuilt");
const Registrar<Isem2TagEntryLogQuilt> log4("KelpTunnelNiLib::Isem2TagEntryLogQuilt");
const Registrar<IsemInnerEthEntryLogQuilt> log5("KelpTunnelNiLib::IsemInnerEthEntryLogQuilt");
const Registrar<IsemMplsEntryLogQuilt> log6("KelpTunnelNiLib::IsemMplsEntryLogQuilt");
const Registrar<IsemUntaggedEntryLogQuilt> log7("KelpTunnelNiLib::IsemUntaggedEntryLogQuilt");
const Registrar<LemVpwsAcEntryLogQuilt> log8("KelpTunnelNiLib::LemVpwsAcEntryLogQuilt");

}  // namespace
}  // namespace KelpTunnelNiLib
