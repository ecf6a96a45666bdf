#include <cstdio>

#include "KelpEmServer/Isem1TagKelpInterface.h"
#include "KelpTunnelNiLib/ResourceTableSet.h"

// The shortest agent: one table on one chip unit, in private memory, with one entry in flight.
int main() {
  const auto agent = Lumen::makeNode<Asic::OrderedTableInterface>(
      Lumen::makeNode<Vault::EntityManager>("Consumer", true));
  const auto resources = KelpTunnelNiLib::ResourceTableSet::make(agent);
  const auto interface = KelpEmServer::Isem1TagKelpInterface::getIntf(agent);
  const auto table = interface->makeSwTable(Asic::UnitId{0}, nullptr, false);

  KelpTunnelNiLib::Isem1TagEntry entry;
  entry.logEntry.key = {1, 100};
  entry.logEntry.inLif0Index = 7;
  const auto handle = table->entryWrite(entry.logEntry.key, entry, nullptr);
  std::printf("index %u\n", table->entryRead(entry.logEntry.key).logEntry.inLif0Index);
}
