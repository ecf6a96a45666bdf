#pragma once

#include "KelpEmServer/Export.h"
#include "KelpEmServer/TableSpec.h"

namespace KelpEmServer {

template <TableSpec T>
class KelpEntryWrapper;
template <TableSpec T>
class KelpResolverEntry;
template <TableSpec T>
class KelpSwTable;
template <TableSpec T>
class KelpSwTableHelperBase;
template <TableSpec T>
class KelpSwTableIteratorState;
template <TableSpec T>
class KelpEntryLog;
template <TableSpec T>
class KelpInterface;

}  // namespace KelpEmServer
