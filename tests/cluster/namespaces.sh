#!/usr/bin/env bash
# Runs a submitter and two agents in three network namespaces, cuts one after the other off, and looks
# at what became of each job. Only root can do that.
#
#   usage: namespaces.sh AGENT SUBMITTER WORKER
set -euo pipefail
agent=$1 submitter=$2 worker=$3

if ((EUID != 0)) || ! ip netns list >/dev/null 2>&1 || ! command -v redis-server >/dev/null; then
    echo "skipped: it needs root, network namespaces and redis-server"
    exit
fi

folder=$(mktemp -d)
tag=nq$$
children=()
cleanup() {
    for child in "${children[@]}"; do
        kill -KILL "$child" 2>/dev/null || true
    done
    wait 2>/dev/null || true
    for name in submitter first second; do
        ip netns delete "$tag-$name" 2>/dev/null || true
    done
    ip link delete "$tag" 2>/dev/null || true
    rm -rf "$folder"
}
trap cleanup EXIT

ip link add "$tag" type bridge 2>/dev/null || {
    echo "skipped: this machine makes no network bridges"
    exit
}
ip address add 10.213.77.1/24 dev "$tag"
ip link set "$tag" up
number=1
for name in submitter first second; do
    number=$((number + 1))
    ip netns add "$tag-$name"
    ip link add "$tag-$number" type veth peer name eth0 netns "$tag-$name"
    ip link set "$tag-$number" master "$tag" up
    ip -n "$tag-$name" address add 10.213.77.$number/24 dev eth0
    ip -n "$tag-$name" link set eth0 up
    ip -n "$tag-$name" link set lo up
done

export NQ_REDIS_PASSWORD=secret
redis-server --bind 10.213.77.1 --port 6399 --requirepass secret --save '' --dir "$folder" \
    >"$folder/redis.log" &
children+=($!)
until redis-cli -h 10.213.77.1 -p 6399 --no-auth-warning -a secret ping >/dev/null 2>&1; do :; done

url=redis://10.213.77.1:6399
for name in first second; do
    ip netns exec "$tag-$name" "$agent" --redis $url --queue tests --workers 2 --lease 1 \
        --name "$name" -- "$worker" >"$folder/$name.log" 2>&1 &
    children+=($!)
done
ip netns exec "$tag-submitter" "$submitter" $url "$folder/notes" 1 6000 1 >"$folder/submitter.log" 2>&1 &
children+=($!)
last=$!

# await COUNT: until so many outcomes are noted.
await() {
    local end=$((SECONDS + 60))
    until [[ -f $folder/notes ]] && (($(grep -c '^[OE]' "$folder/notes" || true) >= $1)); do
        if ((SECONDS > end)); then
            tail -n 5 "$folder"/*.log
            echo "FAILED: there are no $1 outcomes" >&2
            exit 1
        fi
        read -rt 0.05 <> <(:) || true
    done
}
await 300
ip link set "$tag-3" down # an agent, for longer than its lease
until (($(redis-cli -h 10.213.77.1 -p 6399 --no-auth-warning -a secret hlen 'nq:{tests}:agents') == 1)); do :; done
ip link set "$tag-3" up
await 2000
ip link set "$tag-2" down # the submitter
read -rt 3 <> <(:) || true # as long as the cut lasts
ip link set "$tag-2" up
wait "$last" || {
    cat "$folder/submitter.log"
    exit 1
}

grep --quiet --max-count=1 'was cut off for longer than its lease' \
    < <(timeout 60 tail --lines=+1 --follow "$folder/first.log") || {
    tail -n 5 "$folder/first.log"
    echo "FAILED: the agent that was cut off has not noticed" >&2
    exit 1
}
submitted=$(grep -c '^S' "$folder/notes")
ended=$(awk '$1 == "O" {print $3}' "$folder/notes" | sort -u | wc -l)
told=$(grep -c '^O' "$folder/notes")
if ((submitted != 6000 || ended != 6000 || told != 6000)); then
    echo "FAILED: $submitted jobs, $ended with an outcome, $told outcomes" >&2
    exit 1
fi
echo "$submitted jobs, each with one outcome; $(awk '$1 == "E" {print $3}' "$folder/notes") second ones dropped"
