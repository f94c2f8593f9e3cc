#!/usr/bin/env bash
# Checks who includes whom.
#
# usage: check_includes.sh ROOT
#
# include/ and system/*.h: the standard library, their own folder and nqExport.h. scheduler/,
# supervision/, worker/, support/: the standard library, include/, system/*.h, their own folder and
# those after it; of the operating system only select(), and only in the pump, which also names what
# unwinds the stack of a cancelled thread. One look upwards is allowed: the record of a worker takes
# jobs from the queues and hands its results to them. system/linux/: the system and system/.
# cluster/: the system, its own folder, and the pool's public headers.
# pool/include/: the standard library, include/ and its own folder. pool/: the system, its own folder,
# and of the other libraries include/ and the header for loggers. tools/: the system, its own folder, and
# the public headers of the pool library and of the cluster library.
set -euo pipefail
cd "$1"

standard='<(algorithm|any|array|atomic|bitset|cassert|cctype|chrono|climits|cmath|cstddef|cstdint'
standard+='|cstdio|cstdlib|cstring|deque|exception|filesystem|functional|future|initializer_list|iomanip|iosfwd|iostream'
standard+='|istream|iterator|limits|list|locale|map|memory|mutex|new|numeric|optional|ostream|queue'
standard+='|random|ratio|set|sstream|stdexcept|streambuf|string|string_view|system_error|tuple'
standard+='|type_traits|typeinfo|unordered_map|unordered_set|utility|variant|vector)>'

public='"(include/)?nq(Export|Scheduler|SchedulerAPIVersion|SchedulerObserver|Version|Worker|WorkerStatus)\.h"'
system='"system/nq[A-Za-z]+\.h"'
pool_headers=$(cd pool/include && printf '%s|' *.h)nqExport.h
platform_headers=$(cd system && printf '%s|' *.h)nqExport.h

failures=0

# check WHAT ALLOWED FILES...: every include line of the files matches the pattern ALLOWED.
check() {
    local what=$1 allowed=$2 foreign
    shift 2
    [[ -e ${1:-} ]] || {
        echo "FAILED: $what has no files to check" >&2
        failures=$((failures + 1))
        return
    }
    foreign=$(grep -EHn '^[[:space:]]*#[[:space:]]*include' "$@" |
        grep -Ev "#[[:space:]]*include[[:space:]]+($allowed)[[:space:]]*(//.*)?\$" || true)
    [[ -z $foreign ]] || {
        printf 'FAILED: %s includes what it may not see:\n%s\n' "$what" "$foreign" >&2
        failures=$((failures + 1))
    }
}

files_of() {
    find "$1" -maxdepth 1 -type f \( -name '*.h' -o -name '*.cpp' \) | LC_ALL=C sort
}

pump=scheduler/nqSchedulerPump.cpp
mapfile -t scheduler < <(files_of scheduler | grep -Fxv "$pump")
mapfile -t supervision < <(files_of supervision)
mapfile -t worker < <(files_of worker)
mapfile -t support < <(files_of support)

below_support="$standard|$public|$system|\"support/[A-Za-z]+\.h\""
below_worker="$below_support|\"worker/[A-Za-z]+\.h\""
below_supervision="$below_worker|\"supervision/[A-Za-z]+\.h\""
below_scheduler="$below_supervision|\"scheduler/[A-Za-z]+\.h\""

check "include/" "$standard|$public" include/*.h
check "system/" "$standard|\"($platform_headers)\"" system/*.h
check "scheduler/" "$below_scheduler" "${scheduler[@]}"
check "the pump" "$below_scheduler|<sys/select\.h>|<cxxabi\.h>" "$pump"
check "supervision/" "$below_supervision|\"scheduler/nqJobQueues\.h\"" "${supervision[@]}"
check "worker/" "$below_worker" "${worker[@]}"
check "support/" "$below_support" "${support[@]}"
check "pool/include/" "$standard|$public|\"($pool_headers)\"" pool/include/*.h
check "pool/" "<[a-z0-9_./]+>|$public|\"pool/(include/)?nq[A-Za-z]+\.h\"|\"($pool_headers)\"|\"system/nqLog\.h\"" \
    pool/*.h pool/*.cpp
cluster_headers=$(cd cluster/include && printf '%s|' *.h)nqExport.h
check "cluster/include/" "$standard|$public|\"($cluster_headers)\"|\"($pool_headers)\"" cluster/include/*.h
check "cluster/" "<[a-z0-9_./]+>|\"cluster/(include/|agent/)?nq[A-Za-z]+\.h\"|\"pool/include/nq[A-Za-z]+\.h\"" \
    cluster/*.h cluster/*.cpp cluster/agent/*.h cluster/agent/*.cpp
check "system/linux/" '<[a-z0-9_./]+>|"system/(linux/)?nq[A-Za-z]+\.h"' system/linux/*.h system/linux/*.cpp

check "tools/nqrun/" "<[a-zA-Z0-9_./+]+>|\"tools/nqrun/[a-z_]+\.h\"" tools/nqrun/*.h tools/nqrun/*.cpp
! grep -EHn '#include <nq' tools/nqrun/*.h tools/nqrun/*.cpp |
    grep -Ev '<(nqPool|nqPoolWorker|nqPoolStatus|nqClusterPool)\.h>' >&2 || {
    echo "FAILED: tools/nqrun/ includes more of the libraries than programs of users do" >&2
    failures=$((failures + 1))
}

# Platform #ifdefs are an include rule in disguise.
platform_ifdefs=$(grep -EHn '^[[:space:]]*#[[:space:]]*(if|ifdef|ifndef|elif)\b.*(linux|unix|WIN32|APPLE)' \
    include/*.h system/*.h "${scheduler[@]}" "$pump" "${supervision[@]}" "${worker[@]}" \
    "${support[@]}" || true)
[[ -z $platform_ifdefs ]] || {
    printf 'FAILED: a platform #ifdef outside system/linux/:\n%s\n' "$platform_ifdefs" >&2
    failures=$((failures + 1))
}

((failures == 0)) || exit 1
echo "Every include keeps to the rule."
