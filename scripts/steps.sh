# Runs the steps of a script, which sources this file in the project's root. Each step reports when it begins and how it
# ended. Its output goes to build/logs/RUN; a failure names the step and its log.
# shellcheck shell=bash

# The run has the script's name, unless another script starts it as one of its steps. A second run of the same name
# waits for the first.
run=${FABTESTD_RUN:-$(basename "$0")}
logs=build/logs/$run
mkdir -p "$logs"
exec {run_lock}> "$logs/lock"
if ! flock --nonblock "$run_lock"; then
    echo "waiting until the $run that is already running here has ended"
    flock "$run_lock"
fi
steps=0
failed_steps=0

# tick NAME LOG: rewrites one line of the terminal each second while the script lives. The line shows how long the step
# has run, and the last line of its log. Wrapping is off meanwhile, so the terminal cuts the line at its edge.
tick() {
    local start=$SECONDS
    while kill -0 $$ 2> /dev/null; do
        printf '\r\033[K\033[?7l...     %4d s  %s  %s\033[?7h' $((SECONDS - start)) "$1" \
            "$(tail -n 1 "$2" | tr -cd '[:print:]')"
        sleep 1
    done
}

# step NAME LOG COMMAND...: runs the command with its output in build/logs/RUN/LOG.log. Returns the command's status.
step() {
    local name=$1 log=$logs/$2.log status=0 start=$SECONDS erase='' ticker=''
    shift 2
    steps=$((steps + 1))
    : > "$log"
    if [ -t 1 ] && [ "${TERM:-dumb}" != dumb ]; then
        erase=$'\r\033[K'
        tick "$name" "$log" {run_lock}>&- &
        ticker=$!
    else
        printf '...             %s\n' "$name"
    fi
    "$@" > "$log" 2>&1 < /dev/null || status=$?
    [ -z "$ticker" ] || { kill "$ticker" && wait "$ticker"; } 2> /dev/null || true
    if [ "$status" -eq 0 ]; then
        printf '%sok      %4d s  %s\n' "$erase" $((SECONDS - start)) "$name"
    else
        failed_steps=$((failed_steps + 1))
        printf '%sFAILED  %4d s  %s (status %d)\n' "$erase" $((SECONDS - start)) "$name" "$status"
        tail -n 25 "$log" | sed 's/^/        /'
        printf '        the whole log: %s\n' "$log"
    fi
    return "$status"
}

# build PRESET [TARGET...]: configures the preset and builds all of it or the targets. Waits while others build there.
build() {
    local preset=$1
    shift
    (
        flock 9
        cmake --preset "$preset" && cmake --build --preset "$preset" ${1:+--target "$@"}
    ) 9> "build/$preset.lock"
}

# wait_for SECONDS COMMAND...: repeats the command until it succeeds. Fails after so many seconds.
wait_for() {
    local deadline=$((SECONDS + $1))
    shift
    until "$@"; do
        [ "$SECONDS" -lt "$deadline" ] || return 1
        sleep 0.2
    done
}

# own_network: makes a network namespace that lives as long as the script. The ports at which virtual board and station
# meet are always free on its loopback address. "${in_network[@]}" COMMAND... runs there.
# shellcheck disable=SC2034
own_network() {
    local user=() in_user=() made
    [ "$(id -u)" -eq 0 ] || user=(--user --map-root-user) in_user=(--user --preserve-credentials)
    coproc network { exec unshare "${user[@]}" --net sh -c 'ip link set lo up && echo made && read -r end' 2>&1; }
    in_network=(nsenter --target "$network_PID" "${in_user[@]}" --net --)
    read -r made <&"${network[0]}"
    [ "$made" = made ] && return
    echo "note: no network of its own ($made): only one run at a time can use the virtual board's ports"
    in_network=()
}
