#!/bin/sh
# Time and peak memory of `wharfy --containers-json` against engines that
# misbehave, each behind a Docker context in a temporary HOME.
#
#   bench/hostile_engines.sh [WHARFY] [HOSTILE_ENGINE]
#
# Defaults: build/src/app/wharfy and build/tests/support/wharfy_hostile_engine
# (build the targets wharfy and wharfy_hostile_engine first). Each run is
# stopped after 60 s and limited to 4 GiB of address space, so that an engine
# without end cannot take the machine down with it. Run as root to measure
# the permission-denied case (wharfy then runs as nobody).
set -u

WHARFY=$(realpath "${1:-build/src/app/wharfy}")
ENGINE=$(realpath "${2:-build/tests/support/wharfy_hostile_engine}")
LIMIT_SECONDS=60
LIMIT_BYTES=$((4 * 1024 * 1024 * 1024))

work=$(mktemp -d /tmp/wharfy-hostile-XXXXXX)
chmod 755 "$work"
engines=""
cleanup() {
    for pid in $engines; do kill "$pid" 2>/dev/null; done
    rm -rf "$work"
}
trap cleanup EXIT INT TERM

# context NAME MODE-ARGS...: an engine on its own socket and a context for it.
context() {
    name=$1
    shift
    sock="$work/$name.sock"
    "$ENGINE" --socket "$sock" "$@" >"$work/$name.ready" 2>/dev/null &
    engines="$engines $!"
    while [ ! -s "$work/$name.ready" ]; do sleep 0.05; done
    mkdir -p "$HOME/.docker/contexts/meta/$name"
    printf '{"Name":"%s","Endpoints":{"docker":{"Host":"unix://%s"}}}' "$name" "$sock" \
        >"$HOME/.docker/contexts/meta/$name/meta.json"
}

# measure LABEL [USER-PREFIX...]: one run of wharfy, one line of figures.
measure() {
    label=$1
    shift
    chmod -R a+rX "$HOME"
    /usr/bin/time -v -o "$work/time" "$@" \
        prlimit --as=$LIMIT_BYTES timeout -k 5 $LIMIT_SECONDS \
        env -i HOME="$HOME" PATH=/usr/bin:/bin "$WHARFY" --containers-json >"$work/out" 2>/dev/null
    status=$?
    wall=$(sed -n 's/.*Elapsed (wall clock) time (h:mm:ss or m:ss): //p' "$work/time")
    rss=$(sed -n 's/.*Maximum resident set size (kbytes): //p' "$work/time")
    note=""
    # timeout's own status when it had to stop wharfy.
    [ "$status" -eq 124 ] || [ "$status" -eq 137 ] && note="stopped at $LIMIT_SECONDS s"
    [ "$status" -ne 0 ] && [ -z "$note" ] && note="exit $status"
    state=$(grep -o '"state": "[a-zA-Z]*"' "$work/out" | sort | uniq -c | tr -s ' ' | tr '\n' ';')
    printf '%-22s %10s %10s MB  %s %s\n' "$label" "$wall" "$((rss / 1024))" "$state" "$note"
}

# scenario LABEL: a fresh HOME, then the contexts given on the following lines.
fresh() {
    for pid in $engines; do kill "$pid" 2>/dev/null; done
    engines=""
    HOME="$work/home-$1"
    mkdir -p "$HOME/.docker/contexts/meta"
}

printf '%-22s %10s %13s  %s\n' "engine" "wall" "peak memory" "states"

fresh drip && context drip --mode drip && measure "dripping"
fresh huge && context huge --mode huge && measure "200 MB body"
fresh headers && context headers --mode headers && measure "endless headers"
fresh many && context many --mode many && measure "10 million values"
fresh silent && context silent --mode silent && measure "accept, never answer"
fresh five
for i in 1 2 3 4 5; do context "silent$i" --mode silent; done
measure "five such contexts"
if [ "$(id -u)" -eq 0 ]; then
    fresh denied && context denied && chmod 600 "$work/denied.sock"
    measure "permission denied" setpriv --reuid=65534 --regid=65534 --clear-groups
else
    echo "permission denied: run as root to measure it"
fi
