#!/usr/bin/env bash
# symbols.sh NM LIBRARY: the library shows what its users need, and nothing that is not its own.
set -euo pipefail
nm=$1
library=$2

names=$("$nm" -DC --defined-only "$library" | sed -E 's/^[0-9a-f]* +[A-Za-z] //' | sort -u)

prefix='((construction )?vtable for |VTT for |typeinfo (name )?for |guard variable for '
prefix+='|(non-)?virtual thunk to )?'
# The allocation tracker of a class is the one thing of another namespace that has to be shared.
own="^$prefix(KelpEmServer::|PoolSlab::Slabbed<)|^_[A-Za-z0-9]+_[0-9a-f]+_brioModule$"
failed=0
if foreign=$(grep -Ev "$own" <<<"$names"); then
  printf 'shown, but not of namespace KelpEmServer; exports.map lets it through:\n%s\n' "$foreign"
  failed=1
fi

# A tracker that stays inside would count what others never see, and miss what they count.
trackers=' [a-tv-z] PoolSlab::Slabbed<.*Tracker_$'
if hidden=$("$nm" -C --defined-only "$library" | grep -E "$trackers"); then
  printf 'counted apart from the rest of the process:\n%s\n' "$hidden"
  failed=1
fi

for table in Isem1Tag Isem2Tag IsemUntagged IsemMpls IsemInnerEth EsemFodo EsemFodoVd LemVpwsAc; do
  for unit in SwTable SwTableIteratorState SwTableHelperBase EntryLog EntryWrapper ResolverEntry; do
    factory="KelpEmServer::${table,}Kelp${unit}Factory("
    if ! grep -Fq "$factory" <<<"$names"; then
      printf 'missing: %s...)\n' "$factory"
      failed=1
    fi
  done
  if ! grep -Eq "^KelpEmServer::.*\b$table(Kelp)?.*::getIntf\(" <<<"$names"; then
    printf 'missing: getIntf of %s\n' "$table"
    failed=1
  fi
done
exit "$failed"
