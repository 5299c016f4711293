#!/bin/sh
# The init script under BusyBox, in a folder of its own: init_test.sh SCENARIO SCRIPT OVERLAY
# Every process that it meets is real; only the overlay is a stand-in. Exit status 77: skipped.
set -eu
scenario=$1 script=$2 overlay=$3

busybox=$(command -v busybox) || { echo "skipped: busybox is not installed"; exit 77; }
box=$(mktemp -d)
finish() {
    result=$?
    trap - EXIT
    run stop >/dev/null 2>&1 || true
    [ "$result" -eq 0 ] || { echo "--- log:"; cat "$box/log"; }
    [ -z "${other:-}" ] || kill -9 "$other" 2>/dev/null || true
    rm -rf "$box"
    exit "$result"
}

mkdir "$box/bin" "$box/run"
for applet in $("$busybox" --list); do ln -s "$busybox" "$box/bin/$applet"; done
{ echo "#!$busybox sh"; sed 1d "$script"; } >"$box/init"
cp "$overlay" "$box/focus_assist"
chmod +x "$box/init" "$box/focus_assist"
: >"$box/log"
cat >"$box/settings" <<EOF
DAEMON=$box/focus_assist
RUN=$box/run
LOG=$box/log
DELAY_MOST=4
GOOD_LIFE=3
STOP_SECONDS=2
DEVICE=$box/cam
export FAKE_PIDFILE=$box/run/focus_assist.pid FAKE_EXIT=$box/exit FAKE_DEVICE=$box/cam
EOF
: >"$box/cam"
run() { env -i PATH="$box/bin" FOCUS_ASSIST_SETTINGS="$box/settings" "$box/init" "$@"; }
trap finish EXIT
trap 'exit 1' INT TERM

fail() { echo "$scenario: $*" >&2; exit 1; }
overlays() { # pids of all running overlays of this box
    for process in /proc/[0-9]*; do
        exe=$(readlink "$process/exe" 2>/dev/null) || continue
        case $exe in "$box/focus_assist" | "$box/focus_assist (deleted)") echo "${process#/proc/}" ;; esac
    done
}
count() { overlays | wc -l; }
await() { # a command that is to succeed within 20 s
    tries=0
    until "$@" >/dev/null 2>&1; do
        tries=$((tries + 1))
        [ "$tries" -lt 200 ] || fail "waited in vain for: $*"
        sleep 0.1
    done
}
one_runs() { [ "$(count)" -eq 1 ] && [ -s "$box/run/focus_assist.pid" ] && run status; }
none_runs() { [ "$(count)" -eq 0 ]; }
another_runs() { one_runs && [ "$(overlays)" != "$1" ]; }
ends() { [ "$(grep -c 'ended after' "$box/log")" -ge "$1" ]; }
keeper() { cat "$box/run/focus_assist_keeper.pid"; }
another_keeper() { [ -e "/proc/$(keeper)" ] && [ "$(keeper)" != "$1" ]; }
begin() { run start; await one_runs; }

case $scenario in
    start_and_stop)
        run status && fail "status says running before the start"
        begin
        [ "$(cat "$box/run/focus_assist.pid")" = "$(overlays)" ] || fail "pid file is not the overlay's"
        run status | grep -qx "focus_assist: running, pid $(overlays)" || fail "status: $(run status)"
        run stop
        none_runs || fail "still there after stop"
        result=0; run status || result=$?
        [ "$result" -eq 3 ] || fail "status after stop: $result"
        run stop || fail "a second stop fails"
        ;;
    double_start)
        begin
        first=$(overlays)
        run start | grep -q "already running" || fail "second start does not say so"
        run start & run start & wait
        sleep 2
        [ "$(overlays)" = "$first" ] || fail "overlays: $(overlays), was $first"
        ;;
    start_twice_at_once)
        run start & run start & run start & wait
        await one_runs
        sleep 2
        [ "$(count)" -eq 1 ] || fail "$(count) overlays"
        run stop
        none_runs || fail "still there after stop"
        ;;
    stale_pid_file)
        sleep 0.1 & gone=$!
        wait "$gone"
        echo "$gone" >"$box/run/focus_assist.pid"
        echo "$gone" >"$box/run/focus_assist_keeper.pid"
        result=0; run status || result=$?
        [ "$result" -eq 3 ] || fail "status says $result with stale files"
        begin
        run stop
        none_runs || fail "still there after stop"
        ;;
    rubbish_pid_file)
        echo "no/number -1" >"$box/run/focus_assist.pid"
        echo "; kill" >"$box/run/focus_assist_keeper.pid"
        begin
        ;;
    recycled_pid)
        sleep 600 & other=$!
        echo "$other" >"$box/run/focus_assist.pid"
        echo "$other" >"$box/run/focus_assist_keeper.pid"
        run stop
        kill -0 "$other" || fail "stop ended a stranger"
        echo "$other" >"$box/run/focus_assist.pid"
        begin
        echo "$other" >"$box/run/focus_assist.pid" # even while the overlay runs
        run status | grep -qx "focus_assist: running, pid $(overlays)" || fail "status: $(run status)"
        run stop
        none_runs || fail "still there after stop"
        kill -0 "$other" || fail "stop ended a stranger"
        ;;
    killed_overlay)
        begin
        first=$(overlays)
        kill -9 "$first"
        await another_runs "$first"
        grep -q "status 137; restarting in 1 s" "$box/log" || fail "no word in the log"
        ;;
    killed_keeper)
        begin
        first=$(overlays)
        kill -9 "$(keeper)"
        run status || fail "the overlay went with its keeper"
        run start
        sleep 2
        [ "$(overlays)" = "$first" ] || fail "the overlay was disturbed: $(overlays), was $first"
        kill -9 "$first" # the new keeper watches it
        await another_runs "$first"
        run stop
        none_runs || fail "still there after stop"
        ;;
    killed_keeper_and_stop)
        begin
        kill -9 "$(keeper)"
        run stop
        none_runs || fail "stop leaves the orphan"
        ;;
    exit_1_and_255)
        for status in 1 255; do
            echo "$status" >"$box/exit"
            : >"$box/log"
            run start
            await ends 1
            grep -q "status $status; restarting in 1 s" "$box/log" || fail "status $status"
            result=0; run status || result=$?
            [ "$result" -eq 1 ] || fail "status says $result between two starts"
            rm "$box/exit"
            await one_runs # as when the device has come
            run stop
        done
        ;;
    back_off)
        echo 1 >"$box/exit"
        run start
        await ends 4
        sed -n 's/.*restarting in //p' "$box/log" | head -n 4 | tr '\n' ' ' | grep -qx "1 s 2 s 4 s 4 s " ||
            fail "delays: $(cat "$box/log")"
        run stop
        [ ! -e "$box/run/focus_assist_keeper.pid" ] || fail "the keeper is still there"
        sleep 5
        none_runs || fail "started again after stop"
        ;;
    device_replaced)
        begin
        first=$(overlays)
        sleep 5
        [ "$(overlays)" = "$first" ] || fail "ended with its device there"
        rm "$box/cam"
        await ends 2 # by the keeper, then for want of a device
        : >"$box/cam"
        await another_runs "$first"
        first=$(overlays)
        sleep 2
        : >"$box/other"
        mv "$box/other" "$box/cam"
        await another_runs "$first"
        grep -q "cam has gone or been replaced" "$box/log" || fail "no reason in the log"
        ;;
    replaced_script)
        begin
        first=$(overlays) old=$(keeper)
        cp "$box/init" "$box/new"
        mv "$box/new" "$box/init"
        run start
        await another_keeper "$old"
        kill -9 "$first"
        await another_runs "$first"
        await test ! -e "/proc/$old"
        [ "$(count)" -eq 1 ] || fail "$(count) overlays"
        run stop
        none_runs || fail "still there after stop"
        ;;
    good_life_resets_back_off)
        echo "DELAY_MOST=60" >>"$box/settings"
        echo 1 >"$box/exit"
        run start
        await ends 2
        rm "$box/exit"
        await one_runs
        sleep 5
        kill -9 "$(overlays)"
        await ends 3
        tail -n 1 "$box/log" | grep -q "restarting in 1 s" || fail "delay: $(tail -n 1 "$box/log")"
        ;;
    stubborn_overlay)
        echo "export FAKE_STUBBORN=1" >>"$box/settings"
        begin
        run stop
        none_runs || fail "SIGTERM was the last word"
        ;;
    replaced_executable)
        begin
        cp "$box/focus_assist" "$box/new"
        mv "$box/new" "$box/focus_assist"
        first=$(overlays)
        run status || fail "a replaced executable is not known any more"
        run restart
        await another_runs "$first"
        ;;
    linked_path)
        ln -s "$box" "$box/link"
        echo "DAEMON=$box/link/focus_assist" >>"$box/settings"
        begin
        run status | grep -qx "focus_assist: running, pid $(overlays)" || fail "status: $(run status)"
        kill -9 "$(keeper)"
        run start
        sleep 2
        [ "$(count)" -eq 1 ] || fail "$(count) overlays"
        run stop
        none_runs || fail "still there after stop"
        ;;
    missing_executable)
        rm "$box/focus_assist"
        result=0; run start 2>/dev/null || result=$?
        [ "$result" -eq 1 ] || fail "start says $result"
        ;;
    usage)
        result=0; run 2>"$box/usage" || result=$?
        [ "$result" -eq 2 ] || fail "status $result"
        grep -q "start|stop|restart|status" "$box/usage" || fail "no usage"
        ;;
    *) fail "no such scenario" ;;
esac
