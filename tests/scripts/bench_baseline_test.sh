#!/bin/sh
# What the comparison of instruction counts lets pass: bench_baseline_test.sh SCRIPT.
set -eu
script=$1
box=$(mktemp -d)
trap 'rm -rf "$box"' EXIT

REVISION='x86_64, g++ 12.2.0, libc6 2.36, libfreetype6 2.12.1'
OTHER_LIBRARY='x86_64, g++ 12.2.0, libc6 2.37, libfreetype6 2.12.1'
OTHER_COMPILER='x86_64, g++ 13.1.0, libc6 2.36, libfreetype6 2.12.1'
BAR='bar-a 10000 500 0'
BOX='draw_rectangle-a 10000 500 0'
TEXT='text-a 10000 5000 6'

counts() { # a revision, then the steps
    echo '# counts'
    echo "# $1"
    shift
    printf '%s\n' "$@"
}

expect() { # a status, a revision, the steps; options in $with
    status=0
    wanted=$1
    shift
    counts "$@" >"$box/now"
    # shellcheck disable=SC2086 # words of their own
    "$script" $with --baseline "$box/baseline" --counts "$box/now" >"$box/out" 2>&1 || status=$?
    [ "$status" -eq "$wanted" ] && return 0
    echo "status $status instead of $wanted: $with $*"
    cat "$box/out"
    exit 1
}

counts "$REVISION" "$BAR" "$BOX" "$TEXT" >"$box/baseline"
with=

expect 0 "$REVISION" "$BAR" "$BOX" "$TEXT"
expect 0 "$REVISION" 'bar-a 10190 500 0' "$BOX" "$TEXT"
expect 1 "$REVISION" 'bar-a 10210 500 0' "$BOX" "$TEXT"
expect 1 "$REVISION" 'bar-a 9790 500 0' "$BOX" "$TEXT"
expect 1 "$REVISION" "$BAR" "$BOX" 'text-a 10210 5000 6'
expect 1 "$REVISION" "$BAR" "$BOX" 'text-a 10000 5000 7'
expect 1 "$REVISION" "$BAR" "$TEXT"
expect 1 "$REVISION" "$BAR" "$BOX" "$TEXT" 'text-b 10 5 0'

# Another C library: its own share may differ, the program's may not.
expect 0 "$OTHER_LIBRARY" 'bar-a 10900 500 0' 'draw_rectangle-a 9100 500 0' 'text-a 10900 5900 6'
expect 1 "$OTHER_LIBRARY" 'bar-a 11100 500 0' "$BOX" "$TEXT"
expect 1 "$OTHER_LIBRARY" 'bar-a 10000 710 0' "$BOX" "$TEXT"
expect 1 "$OTHER_LIBRARY" "$BAR" 'draw_rectangle-a 10000 290 0' "$TEXT"
expect 0 "$OTHER_LIBRARY" "$BAR" 'draw_rectangle-a 10000 310 0' "$TEXT"
expect 1 "$OTHER_LIBRARY" "$BAR" "$BOX" 'text-a 11100 5000 6'
expect 1 "$OTHER_LIBRARY" "$BAR" "$BOX" 'text-a 10000 5000 5'

# Another compiler: nothing is compared; fails without --may-differ.
expect 1 "$OTHER_COMPILER" "$BAR" "$BOX" "$TEXT"
with=--may-differ
expect 0 "$OTHER_COMPILER" "$BAR" "$BOX" "$TEXT"
expect 1 "$REVISION" 'bar-a 10210 500 0' "$BOX" "$TEXT"
