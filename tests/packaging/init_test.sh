#!/bin/sh
# Runs the init script under BusyBox, in a directory of its own: init_test.sh SCENARIO SCRIPT OVERLAY
# All processes are real; OVERLAY replaces the overlay. Exit status 77: skipped.
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
CHECK_SECONDS=0.1
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
await() { # until a command succeeds, for at most 20 s
    tries=0
    until "$@" >/dev/null 2>&1; do
        tries=$((tries + 1))
        [ "$tries" -lt 200 ] || fail "never succeeded: $*"
        sleep 0.1
    done
}
# Processes of the script, which include its children until they run another program. The one that
# calls "run start" has created its keeper when it ends, so a keeper that has not yet noticed a
# newer keeper is counted.
script_processes() {
    for process in /proc/[0-9]*; do
        read -r name 2>/dev/null <"$process/comm" || continue
        case $name in init | setsid) ;; *) continue ;; esac
        case $(tr '\0' ' ' 2>/dev/null <"$process/cmdline") in *"$box/init "*) echo "${process#/proc/}" ;; esac
    done
}
one_keeper_remains() { [ "$(script_processes | wc -l)" -eq 1 ]; }
no_keeper_remains() { [ -z "$(script_processes)" ]; }
adopted() { grep -q "watching pid $1," "$box/log"; }
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
        await one_keeper_remains
        [ "$(overlays)" = "$first" ] || fail "overlays: $(overlays), was $first"
        ;;
    start_twice_at_once)
        run start & run start & run start & wait
        await one_keeper_remains # one that ends later would have started no overlay either
        await one_runs
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
        kill -0 "$other" || fail "stop ended a process that is not the overlay"
        echo "$other" >"$box/run/focus_assist.pid"
        begin
        echo "$other" >"$box/run/focus_assist.pid" # even while the overlay runs
        run status | grep -qx "focus_assist: running, pid $(overlays)" || fail "status: $(run status)"
        run stop
        none_runs || fail "still there after stop"
        kill -0 "$other" || fail "stop ended a process that is not the overlay"
        ;;
    killed_overlay)
        begin
        first=$(overlays)
        kill -9 "$first"
        await another_runs "$first"
        grep -q "status 137; restarting in 1 s" "$box/log" || fail "the log does not say that it restarts"
        ;;
    killed_keeper)
        begin
        first=$(overlays)
        kill -9 "$(keeper)"
        run status || fail "the overlay ended with its keeper"
        run start
        await adopted "$first"
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
        none_runs || fail "stop left the overlay running"
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
            await one_runs # as if the device existed now
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
        [ ! -e "$box/run/focus_assist_keeper.pid" ] || fail "the keeper's pid file is still there"
        no_keeper_remains || fail "a keeper is left to start it again: $(script_processes)"
        none_runs || fail "still there after stop"
        ;;
    device_replaced)
        begin
        first=$(overlays)
        sleep 1 # ten checks
        [ "$(overlays)" = "$first" ] || fail "ended with its device there"
        rm "$box/cam"
        await ends 2 # first by the keeper, then because it finds no device
        : >"$box/cam"
        await another_runs "$first"
        first=$(overlays)
        : >"$box/other"
        mv "$box/other" "$box/cam"
        await another_runs "$first"
        grep -q "cam has gone or been replaced" "$box/log" || fail "no reason in the log"
        ;;
    slow_start) # the overlay opens its device long after the first check
        echo 'export FAKE_SLOW=1' >>"$box/settings"
        run start
        await test -s "$box/run/focus_assist.pid"
        sleep 1
        [ "$(cat "$box/run/focus_assist.pid")" = "$(overlays)" ] || fail "ended or started twice"
        ! grep . "$box/log" || fail "it was ended while it started"
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
        printf "DELAY_MOST=60\nGOOD_LIFE=1\n" >>"$box/settings"
        echo 1 >"$box/exit"
        run start
        await ends 2
        rm "$box/exit"
        await one_runs
        sleep 1.1 # longer than GOOD_LIFE
        kill -9 "$(overlays)"
        await ends 3
        tail -n 1 "$box/log" | grep -q "restarting in 1 s" || fail "delay: $(tail -n 1 "$box/log")"
        ;;
    stubborn_overlay)
        echo "export FAKE_STUBBORN=1" >>"$box/settings"
        begin
        run stop
        none_runs || fail "still there after SIGTERM and SIGKILL"
        ;;
    replaced_executable)
        begin
        cp "$box/focus_assist" "$box/new"
        mv "$box/new" "$box/focus_assist"
        first=$(overlays)
        run status || fail "the process of a replaced executable is not recognized"
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
        await adopted "$(overlays)"
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
