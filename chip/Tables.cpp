#include "chip/TableOf.h"

namespace Chip {

Tables makeTables(const Lumen::Ptr<BrioSharedMem::EntityManager>& memory, Notices& notices) {
  Tables tables;
  KelpEmServer::AllTables::forEach([&](auto tag) {
    tables.push_back(std::make_unique<TableOf<typename decltype(tag)::Table>>(memory, notices));
  });
  return tables;
}

}  // namespace Chip
