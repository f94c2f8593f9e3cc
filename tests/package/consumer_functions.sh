# What the checks of the consumer project share; sourced by them.

fail() {
    echo "FAILED: $*" >&2
    exit 1
}

# run_pair HOST WORKER: the host hands one job to the worker.
run_pair() {
    local output expected=$'version 3.0.0, headers 3.0.0\nanswer stressed'
    output=$("$1" "$2") || fail "the host ended with $?: $output"
    [[ $output == "$expected" ]] || fail "the host printed '$output' instead of '$expected'"
}

# run_programs FOLDER PLACE: the programs work, with libraries that are in PLACE.
run_programs() {
    local folder=$1 place program libraries library loaded output
    place=$(realpath "$2")
    for program in host worker logging_host pool_host; do
        libraries=(libnqSchedulerAPI.so.3.0 libnqSystem.so.3.0)
        [[ $program != pool_host ]] || libraries+=(libnqPool.so.0.1)
        for library in "${libraries[@]}"; do
            loaded=$(ldd "$folder/$program" | sed -n "s/^\t$library => \(\/.*\) (0x[0-9a-f]*)\$/\1/p")
            [[ -n $loaded && $(realpath "$loaded") == "$place"/* ]] ||
                fail "$program loads $library from '$loaded' instead of $place"
        done
    done
    run_pair "$folder/host" "$folder/worker"

    output=$("$folder/logging_host") || fail "the logging host ended with $?: $output"
    [[ $output == $'limits 1.5GB and 2m 5s\nhost log, level 3: Cannot start '*$'/no-such-worker: No such file or directory\n'"host log, level 3: Fail to startWorker, Process state is not 'running' (pid "* ]] ||
        fail "the logging host printed '$output'"

    output=$("$folder/pool_host") || fail "the host with a pool ended with $?: $output"
    [[ $output == $'version 0.1.0\npool stressed\nthread desserts' ]] ||
        fail "the host with a pool printed '$output'"
}
