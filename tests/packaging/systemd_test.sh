#!/bin/sh
# The service unit: systemd_test.sh CLAIM UNIT. Exit status 77: skipped.
set -eu
claim=$1 unit=$2

command -v systemd-analyze >/dev/null || { echo "skipped: systemd-analyze is not installed"; exit 77; }
fail() { echo "$claim: $*" >&2; exit 1; }

case $claim in
    verified)
        box=$(mktemp -d)
        trap 'rm -rf "$box"' EXIT
        mkdir -p "$box/usr/local/bin" "$box/usr/lib/systemd/system"
        cp /bin/true "$box/usr/local/bin/focus_assist"
        cp "$unit" "$box/usr/lib/systemd/system/"
        systemd-analyze verify --man=no --recursive-errors=no --root="$box" \
            focus-assist.service >"$box/said" 2>&1 || fail "$(cat "$box/said")"
        [ ! -s "$box/said" ] || fail "$(cat "$box/said")"
        ;;
    exposure)
        # In tenths, as the threshold is given to the command: 15 is 1.5.
        systemd-analyze security --offline=true --threshold=15 --no-pager "$unit" ||
            fail "more exposed than 1.5"
        ;;
    camera_files)
        for line in "DeviceAllow=/dev/cam rw" "DevicePolicy=closed" "ReadWritePaths=/run" \
            "ProtectSystem=strict" "Restart=always" "BindsTo=dev-cam.device" "After=dev-cam.device" \
            "WantedBy=dev-cam.device" "RestartSec=2" "StartLimitIntervalSec=0" \
            "ExecStart=/usr/local/bin/focus_assist"; do
            grep -qx "$line" "$unit" || fail "no line '$line'"
        done
        # Kernels without user namespaces could not start it.
        ! grep -q '^PrivateUsers' "$unit" || fail "needs user namespaces"
        ! grep -Eq '^(PrivateDevices=(yes|true|1)|InaccessiblePaths=)' "$unit" || fail "hides /dev/cam"
        ;;
    *) fail "no such claim" ;;
esac
