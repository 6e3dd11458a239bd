# Steps of a script, to be sourced from the project's root: each prints one line and keeps what it prints in
# build/logs/RUN; a failure names the step and its log.
# shellcheck shell=bash

# The name of the run, the script's own unless another script starts it as a part of itself. A second run of the name
# waits for the first.
run=${FABTESTD_RUN:-$(basename "$0")}
logs=build/logs/$run
mkdir -p "$logs"
exec {run_lock}> "$logs/lock"
if ! flock --nonblock "$run_lock"; then
    echo "waiting for the $run that runs here already"
    flock "$run_lock"
fi
steps=0
failed_steps=0

# step NAME LOG COMMAND...: runs the command with its output in build/logs/RUN/LOG.log. Returns the command's status.
step() {
    local name=$1 log=$logs/$2.log status=0 start=$SECONDS
    shift 2
    steps=$((steps + 1))
    "$@" > "$log" 2>&1 < /dev/null || status=$?
    if [ "$status" -eq 0 ]; then
        printf 'ok      %4d s  %s\n' $((SECONDS - start)) "$name"
    else
        failed_steps=$((failed_steps + 1))
        printf 'FAILED  %4d s  %s (status %d)\n' $((SECONDS - start)) "$name" "$status"
        tail -n 25 "$log" | sed 's/^/        /'
        printf '        the whole log: %s\n' "$log"
    fi
    return "$status"
}

# build PRESET [TARGET...]: configures it and builds all or the targets, while nobody else builds there.
build() {
    local preset=$1
    shift
    (
        flock 9
        cmake --preset "$preset" && cmake --build --preset "$preset" ${1:+--target "$@"}
    ) 9> "build/$preset.lock"
}

# wait_for SECONDS COMMAND...: until the command succeeds; fails when it has not within the time.
wait_for() {
    local deadline=$((SECONDS + $1))
    shift
    until "$@"; do
        [ "$SECONDS" -lt "$deadline" ] || return 1
        sleep 0.2
    done
}

# own_network: makes a network of the script's own, which is there for as long as the script is. On its loopback address
# the ports at which virtual board and station meet are free, whatever else runs on this machine. What is put behind
# "${in_network[@]}" runs there.
# shellcheck disable=SC2034
own_network() {
    local user=() in_user=() made
    [ "$(id -u)" -eq 0 ] || user=(--user --map-root-user) in_user=(--user --preserve-credentials)
    coproc network { exec unshare "${user[@]}" --net sh -c 'ip link set lo up && echo made && read -r end' 2>&1; }
    in_network=(nsenter --target "$network_PID" "${in_user[@]}" --net --)
    read -r made <&"${network[0]}"
    [ "$made" = made ] && return
    echo "note: without a network of its own ($made), where one run at a time has the virtual board's ports"
    in_network=()
}
