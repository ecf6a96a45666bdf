#!/usr/bin/env bash
# symbols.sh NM LIBRARY: the library shows what its users need, and nothing else.
set -euo pipefail
nm=$1
library=$2

names=$("$nm" -DC --defined-only "$library" | sed -E 's/^[0-9a-f]* +[A-Za-z] //' | sort -u)

table='(EsemFodo|EsemFodoVd|Isem1Tag|Isem2Tag|IsemInnerEth|IsemMpls|IsemUntagged|LemVpwsAc)'
factory_table=$(sed -E 's/([(|])([A-Z])/\1\l\2/g' <<<"$table")
unit='(SwTable|SwTableIteratorState|SwTableHelperBase|EntryLog|EntryWrapper|ResolverEntry|Interface)'
made='(SwTable|SwTableIteratorState|SwTableHelperBase|EntryLog|EntryWrapper|ResolverEntry)'
linkage="KelpResourceLinkage<KelpEmServer::$table, KelpEmServer::[A-Za-z]+LinkageKind>"
linkage+='(::LocalUsageUpdateSm)?'
class="KelpEmServer::(Kelp$unit<KelpEmServer::$table>(::EntryHandle|::SwTableEntries_py)?|$linkage)"
nested='(::(HN_[A-Za-z]+|QE_[A-Za-z]+|[A-Za-z]+KeyFunktor))?'
shared='(KelpEmServer|Asic|PactResourceTable)'
function='[A-Za-z_~]+(\[abi:cxx11\])?\([^{}]*\)( const)?'
families=(
  # The operations of the classes, without what is inside them: static variables, lambdas.
  -e "^((non-)?virtual thunk to )?$class$nested::$function$"
  -e "^$class$nested::operator[^{}]+\([^{}]*\)( const)?$"
  -e "^(vtable|VTT|typeinfo|typeinfo name|construction vtable) for $class$"
  -e "^KelpEmServer::${factory_table}Kelp(${made}|[A-Za-z]+Linkage)Factory\("
  # What the template checkAndwriteMountQuilt calls, wherever it is instantiated.
  -e "^KelpEmServer::raiseRelaunchGeneration\\("
  -e "^_[A-Za-z0-9]+_[0-9a-f]+_brioModule$"
  # The allocation tracker of a class is the one thing of another namespace that has to be shared.
  -e "^(guard variable for )?PoolSlab::Slabbed<$shared::.*>::memAllocationTracker_$"
)

failed=0
if others=$(grep -Ev "${families[@]}" <<<"$names"); then
  printf 'shown, but nothing that users need; exports.map lets it through:\n%s\n' "$others"
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
  for operation in getIntf makeSwTable reconcile; do
    if ! grep -Fq "KelpEmServer::KelpInterface<KelpEmServer::$table>::$operation(" <<<"$names"; then
      printf 'missing: %s of %s\n' "$operation" "$table"
      failed=1
    fi
  done
  for operation in entryWrite entryRemove entryRemoveAll entryRead entryHas; do
    if ! grep -Fq "KelpEmServer::KelpSwTable<KelpEmServer::$table>::$operation(" <<<"$names"; then
      printf 'missing: %s of %s\n' "$operation" "$table"
      failed=1
    fi
  done
done

# A module for each source unit; a table without linkages has none for them.
for table in Isem1Tag Isem2Tag IsemUntagged IsemMpls IsemInnerEth EsemFodo EsemFodoVd LemVpwsAc; do
  for unit in EntryLog InfraTypes SwTableHelperBase SwTable ResourceTableLinkage Interface; do
    wanted=1
    if [[ $unit == ResourceTableLinkage && $table =~ ^(IsemInnerEth|EsemFodo|LemVpwsAc)$ ]]; then
      wanted=0
    fi
    found=$(grep -Ec "^_${table}Kelp${unit}_[0-9a-f]{16}_brioModule$" <<<"$names" || true)
    if [[ $found != "$wanted" ]]; then
      printf 'type modules of %sKelp%s: %s, not %s\n' "$table" "$unit" "$found" "$wanted"
      failed=1
    fi
  done
done
exit "$failed"
