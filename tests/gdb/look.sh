#!/usr/bin/env bash
# look.sh SUBJECT LIBRARY-FOLDER: lets gdb look into the subject, with the printers that lie beside
# the library, and compares what it shows.
set -euo pipefail
subject=$1
folder=$2

if ! command -v gdb >/dev/null; then
  echo "SKIPPED: there is no gdb"
  exit 77
fi

variables=(nothing thing again set none state version invalid major noMajor logVersion tableId unit)
commands=(-iex "set auto-load safe-path $folder" -ex "set print elements 200"
  -ex "break Subject::stop" -ex run -ex up)
for variable in "${variables[@]}"; do
  commands+=(-ex "printf \"$variable: \"" -ex "output $variable" -ex 'printf "\n"')
done
commands+=(-ex 'printf "queue: "' -ex "output queue" -ex 'printf "\n"')
commands+=(-ex 'printf "numbers: "' -ex "output numbers" -ex 'printf "\n"' -ex kill)
shown=$(gdb -nx -batch "${commands[@]}" "$subject" 2>&1 </dev/null)

failed=0
expect() {
  if ! grep -qE -- "$1" <<<"$shown"; then
    printf 'not shown: %s\n' "$1"
    failed=1
  fi
}
expect '^nothing: null$'
expect '^thing: Subject::SpecialThing at 0x[0-9a-f]+, 17 users$'
expect '^again: Subject::SpecialThing at 0x[0-9a-f]+, 17 users$'
expect '^set: collection of 1 = \{5\}$'
expect '^none: collection of 0$'
expect '^state: failed \(6\)$'
expect '^version: 3\.1$'
expect '^invalid: invalid$'
expect '^major: 9$'
expect '^noMajor: invalid$'
expect '^logVersion: 17$'
expect '^tableId: 01:02:001f$'
expect '^unit: 4$'
expect '^queue: queue of 14 = \{\[7\] = Subject::SpecialThing'
expect '\[20\] = Subject::SpecialThing'
expect '^numbers: collection of 100 = \{'
for number in 1 57 100; do
  expect "[{ ]\"?$number: $((1000 + number))\"?[,}]"
done
count=$(grep '^numbers: ' <<<"$shown" | grep -oE '[0-9]+: 1[0-9]{3}' | sort -u | wc -l)
if [[ $count -ne 100 ]]; then
  printf '%s of 100 members are shown\n' "$count"
  failed=1
fi
if [[ $failed -ne 0 ]]; then
  printf '%s\n' "$shown"
fi
exit "$failed"
