#pragma once

#include "KelpTunnelNiLib/EsemFodoRecords.h"
#include "KelpTunnelNiLib/EsemFodoVdRecords.h"
#include "KelpTunnelNiLib/Isem1TagRecords.h"
#include "KelpTunnelNiLib/Isem2TagRecords.h"
#include "KelpTunnelNiLib/IsemInnerEthRecords.h"
#include "KelpTunnelNiLib/IsemMplsRecords.h"
#include "KelpTunnelNiLib/IsemUntaggedRecords.h"
#include "KelpTunnelNiLib/LemVpwsAcRecords.h"
#include "KelpTunnelNiLib/SwTableBase.h"

// What feature code holds of each table, and where its walks stand.

namespace KelpTunnelNiLib {

using EsemFodoSwTableBase = SwTableBase<EsemFodoEntry>;
using EsemFodoVdSwTableBase = SwTableBase<EsemFodoVdEntry>;
using Isem1TagSwTableBase = SwTableBase<Isem1TagEntry>;
using Isem2TagSwTableBase = SwTableBase<Isem2TagEntry>;
using IsemInnerEthSwTableBase = SwTableBase<IsemInnerEthEntry>;
using IsemMplsSwTableBase = SwTableBase<IsemMplsEntry>;
using IsemUntaggedSwTableBase = SwTableBase<IsemUntaggedEntry>;
using LemVpwsAcSwTableBase = SwTableBase<LemVpwsAcEntry>;

using EsemFodoSwTableIteratorState = SwTableIteratorState<EsemFodoEntry>;
using EsemFodoVdSwTableIteratorState = SwTableIteratorState<EsemFodoVdEntry>;
using Isem1TagSwTableIteratorState = SwTableIteratorState<Isem1TagEntry>;
using Isem2TagSwTableIteratorState = SwTableIteratorState<Isem2TagEntry>;
using IsemInnerEthSwTableIteratorState = SwTableIteratorState<IsemInnerEthEntry>;
using IsemMplsSwTableIteratorState = SwTableIteratorState<IsemMplsEntry>;
using IsemUntaggedSwTableIteratorState = SwTableIteratorState<IsemUntaggedEntry>;
using LemVpwsAcSwTableIteratorState = SwTableIteratorState<LemVpwsAcEntry>;

}  // namespace KelpTunnelNiLib
