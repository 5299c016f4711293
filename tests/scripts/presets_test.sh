#!/bin/sh
# Every test preset fails if no test matches: presets_test.sh CMakePresets.json CTEST
set -eu
presets=$1
ctest=$2
box=$(mktemp -d)
trap 'rm -rf "$box"' EXIT
unset FOCUS_BUILD_ROOT
cp "$presets" "$box/CMakePresets.json"
cd "$box"

names=$("$ctest" --list-presets | sed -n 's/^ *"\([^"]*\)".*/\1/p')
[ -n "$names" ] || { echo "ctest lists no presets" >&2; exit 1; }
for name in $names; do
    mkdir -p "build/$name"
    echo 'add_test(there true)' >"build/$name/CTestTestfile.cmake"
    "$ctest" --preset "$name" -R '^there$' >out 2>&1 || { cat out; echo "preset $name: a test that passes fails" >&2; exit 1; }
    ! "$ctest" --preset "$name" -R '^absent$' >out 2>&1 || { cat out; echo "preset $name: no test is run, which passes" >&2; exit 1; }
done
