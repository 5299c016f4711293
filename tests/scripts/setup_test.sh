#!/bin/sh
# Tests scripts/setup with stand-ins for apt and dpkg: setup_test.sh SETUP
# shellcheck disable=SC2015,SC2016 # fail ends the test; the stand-ins expand their own variables
set -eu
setup=$1
box=$(mktemp -d)
trap 'rm -rf "$box"' EXIT
fail() { echo "$*; said: $(cat "$box/out")" >&2; exit 1; }

# A PATH of what a minimal system has, and the stand-ins.
mkdir "$box/bin"
for tool in sh cat dirname env grep mktemp paste rm sed sort tail tr; do
    ln -s "$(command -v $tool)" "$box/bin/$tool"
done
stand_in() { printf '#!/bin/sh\n%s\n' "$2" >"$box/bin/$1"; chmod +x "$box/bin/$1"; }
stand_in id 'echo "$ACCOUNT"'
stand_in sleep 'echo "sleep $1" >>"$BOX/calls"'
stand_in dpkg-query 'case " $MISSING " in *" $4 "*) exit 1 ;; esac; echo installed'
stand_in apt-get 'echo "apt-get $*" >>"$BOX/calls"
[ -z "$BROKEN" ] || { echo "E: no network" >&2; exit 100; }
case $1 in install)
    echo "dlstatus:1:10.5:Retrieving file 1 of 2"
    echo "dlstatus:2:60:Retrieving file 2 of 2"
    echo "pmstatus:cmake:45.4545:Installing cmake (amd64)"
esac'
printf 'ID=debian\nVERSION_ID="13"\nPRETTY_NAME="Debian 13"\n' >"$box/debian"
printf 'ID=other\nVERSION_ID="24.04"\nPRETTY_NAME="Other 24.04"\n' >"$box/other"

# Runs setup in that world; its status is in $status, both streams in out, the calls in calls.
setup() { # release, account, missing packages, extra assignments
    : >"$box/calls"
    status=0
    env -i PATH="$box/bin" BOX="$box" FOCUS_OS_RELEASE="$box/$1" ACCOUNT="$2" MISSING="$3" \
        BROKEN="${4:-}" FOCUS_SKIP_SETUP="${5:-}" "$setup" run test >"$box/out" 2>&1 || status=$?
}
one_line() { [ "$(wc -l <"$box/out")" -eq 1 ] || fail "$1: not one line"; }
says() { grep -qF -- "$1" "$box/out" || fail "does not say '$1'"; }

setup debian 0 ''
[ "$status" -eq 0 ] && [ ! -s "$box/out" ] && [ ! -s "$box/calls" ] || fail "nothing missing: status $status"

setup debian 0 'cmake busybox'
[ "$status" -eq 0 ] || fail "root: status $status"
says 'setup: installing 2 packages and what they depend on: busybox cmake'
says 'setup: fetched 60 %'
says 'setup: installed 40 %'
! grep -q 'fetched 0 %' "$box/out" || fail "shows that nothing has been fetched"
grep -q '^apt-get install .*busybox cmake$' "$box/calls" || fail "root: calls $(cat "$box/calls")"

setup debian 0 cmake broken
[ "$status" -eq 1 ] || fail "apt fails: status $status"
says 'E: no network'
[ "$(tail -n 1 "$box/out")" = 'setup: apt could not install the packages' ] || fail "apt fails: last line"
[ "$(grep -c '^apt-get update' "$box/calls")" -eq 3 ] || fail "apt fails: calls $(cat "$box/calls")"

setup debian 1000 cmake
[ "$status" -eq 1 ] && [ ! -s "$box/calls" ] || fail "plain user: status $status"
one_line 'plain user'
says 'setup: only root or sudo can install the missing packages: cmake'

setup other 1000 ''
[ "$status" -eq 0 ] && [ ! -s "$box/out" ] || fail "another release, nothing missing: status $status"

setup other 0 cmake
[ "$status" -eq 1 ] && [ ! -s "$box/calls" ] || fail "another release: status $status"
one_line 'another release'
says 'Other 24.04 is untested; tested on Debian 12 and 13 only'
says 'set FOCUS_SKIP_SETUP=1: cmake'

rm "$box/bin/apt-get"
setup other 0 cmake
[ "$status" -eq 1 ] || fail "no apt: status $status"
one_line 'no apt'
says 'Other 24.04 has no apt; tested on Debian 12 and 13 only'
says ' cmake '

setup other 0 cmake '' 1
[ "$status" -eq 0 ] && [ ! -s "$box/out" ] || fail "FOCUS_SKIP_SETUP: status $status"
