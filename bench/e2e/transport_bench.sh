#!/usr/bin/env bash
# Transport benchmarks: the library against reference tools, on one emulator, in one run.
#
#   bench/e2e/transport_bench.sh [build-dir]      (default build/release; configured if missing)
#
# Sizes come from the environment, so a smoke run can be small:
#   ROUNDS (3), POSTS (10000 per side and round), SINGLE_BYTES (1 GiB), SEGMENTED_BYTES (1 GiB),
#   MEMORY_BYTES (2 GiB: the peak-memory download).
#
# Each line is a ratio of ours to the reference measured right next to it, best of ROUNDS runs
# each, taking turns so that a busy moment of the machine hits both sides alike:
#   - small POSTs per second through ServiceBase (16 in flight) vs h2load -c1 -m16, same endpoint;
#     over HTTP/2 (the default) and, for comparison, over HTTP/1.1 keep-alive connections
#   - single-stream download vs curl, both to /dev/null (the transport alone) and both to a file
#     in /dev/shm (what a download is: receiving and writing overlap on our side)
#   - segmented download vs aria2c -x8 -s8 (both write the file to /dev/shm)
#   - peak memory (VmHWM) of a MEMORY_BYTES download
# h2load and aria2c do not resolve *.localhost; they go to 127.0.0.1, which the emulator serves
# as its api host (its certificate carries the address).
set -euo pipefail

ROOT=$(cd "$(dirname "$0")/../.." && pwd)
BUILD=${1:-$ROOT/build/release}
ROUNDS=${ROUNDS:-3}
POSTS=${POSTS:-10000}
SINGLE_BYTES=${SINGLE_BYTES:-1073741824}
SEGMENTED_BYTES=${SEGMENTED_BYTES:-1073741824}
MEMORY_BYTES=${MEMORY_BYTES:-2147483648}

for tool in node curl h2load aria2c c++ cmake ninja; do
  command -v "$tool" >/dev/null || { echo "transport_bench: $tool is missing" >&2; exit 2; }
done

if [[ ! -f $BUILD/build.ninja ]]; then
  cmake -S "$ROOT" -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
ninja -C "$BUILD" kelappsupport >/dev/null

WORK=$(mktemp -d /tmp/transport-bench.XXXXXX)
EMULATOR_PID=
cleanup() {
  [[ -n $EMULATOR_PID ]] && kill "$EMULATOR_PID" 2>/dev/null && wait "$EMULATOR_PID" 2>/dev/null
  rm -rf "$WORK" /dev/shm/transport-bench-*
}
trap cleanup EXIT

DRIVER=$WORK/driver
LIBS=(-L"$BUILD/platform/kelappsupport" -L"$BUILD/platform/kelnet" -L"$BUILD/platform/kelcore")
RPATH="$BUILD/platform/kelappsupport:$BUILD/platform/kelnet:$BUILD/platform/kelcore"
c++ -O2 -std=c++20 -Wall -Wextra -Werror \
  -I"$ROOT/platform/kelcore/include" -I"$ROOT/platform/kelnet/include" -I"$ROOT/platform/kelappsupport/include" \
  "$ROOT/bench/e2e/transport_bench_driver.cpp" -o "$DRIVER" "${LIBS[@]}" \
  -lkelappsupport -lkelnet -lkelcore -Wl,-rpath,"$RPATH" -pthread

# The emulator, without its request log: a benchmark is not to measure the log's growth.
mkdir -p "$WORK/state"
node "$ROOT/emulator/server.js" --port 0 --state "$WORK/state" --quiet --no-log >"$WORK/emulator.out" &
EMULATOR_PID=$!
for _ in $(seq 300); do [[ -s $WORK/emulator.out ]] && break; sleep 0.1; done
json() { node -e "const o=JSON.parse(require('fs').readFileSync(0,'utf8').split('\n')[0]); console.log(o['$1'])"; }
PORT=$(json port <"$WORK/emulator.out")
SUFFIX=$(json suffix <"$WORK/emulator.out")
CA=$(json ca <"$WORK/emulator.out")
export BENCH_CABUNDLE=$CA
API="https://api$SUFFIX"
LOOPBACK="https://127.0.0.1:$PORT"
TOKEN=$(curl -sf --cacert "$CA" -X POST -H 'content-type: application/json' -d '{}' "$API/_emulator/session" | json accessToken)
BODY='{"query":"query Me { me { id } }"}'
printf '%s' "$BODY" >"$WORK/body.json"

now() { date +%s.%N; }
best() { sort -g | tail -1; }  # the largest of the numbers on stdin
field() { sed -n "s/.*$1=\([0-9.]*\).*/\1/p"; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", (b > 0 ? a / b : 0) }'; }

ours_rps=(); ours_rps1=(); h2load_rps=(); ours_single=(); curl_single=(); ours_file=(); curl_file=(); ours_seg=(); aria_seg=()
for round in $(seq "$ROUNDS"); do
  ours_rps+=("$("$DRIVER" post "$API/graphql" "$POSTS" 16 "$BODY" "Bearer $TOKEN" | field rps)")
  ours_rps1+=("$(BENCH_HTTP1=1 "$DRIVER" post "$API/graphql" "$POSTS" 16 "$BODY" "Bearer $TOKEN" | field rps)")
  h2load_rps+=("$(h2load -n "$POSTS" -c 1 -m 16 -d "$WORK/body.json" -H 'content-type: application/json' \
    -H "authorization: Bearer $TOKEN" "$LOOPBACK/graphql" | sed -n 's/.*finished in [^,]*, \([0-9.]*\) req\/s.*/\1/p')")

  ours_single+=("$("$DRIVER" download "$API/media/synthetic/$SINGLE_BYTES" 1 /dev/null | field mbps)")
  curl_single+=("$(curl -sf --cacert "$CA" -o /dev/null -w '%{speed_download}' "$API/media/synthetic/$SINGLE_BYTES" |
    awk '{ printf "%.1f", $1 / 1e6 }')")
  ours_file+=("$("$DRIVER" download "$API/media/synthetic/$SINGLE_BYTES" 1 /dev/shm/transport-bench-ours | field mbps)")
  rm -f /dev/shm/transport-bench-ours
  curl_file+=("$(curl -sf --cacert "$CA" -o /dev/shm/transport-bench-curl -w '%{speed_download}' \
    "$API/media/synthetic/$SINGLE_BYTES" | awk '{ printf "%.1f", $1 / 1e6 }')")
  rm -f /dev/shm/transport-bench-curl

  ours_seg+=("$("$DRIVER" download "$API/media/synthetic/$SEGMENTED_BYTES" 8 /dev/shm/transport-bench-ours | field mbps)")
  rm -f /dev/shm/transport-bench-ours
  start=$(now)
  aria2c -q -x8 -s8 --file-allocation=none --allow-overwrite=true --auto-file-renaming=false \
    --ca-certificate="$CA" -d /dev/shm -o transport-bench-aria "$LOOPBACK/media/synthetic/$SEGMENTED_BYTES"
  end=$(now)
  aria_seg+=("$(awk -v s="$start" -v e="$end" -v n="$SEGMENTED_BYTES" 'BEGIN { printf "%.1f", n / (e - s) / 1e6 }')")
  rm -f /dev/shm/transport-bench-aria
  echo "round $round: rps ${ours_rps[-1]} (HTTP/1.1 ${ours_rps1[-1]}) vs ${h2load_rps[-1]}; single MB/s ${ours_single[-1]} vs ${curl_single[-1]}" \
    "(to a file ${ours_file[-1]} vs ${curl_file[-1]});" \
    "segmented MB/s ${ours_seg[-1]} vs ${aria_seg[-1]}" >&2
done

memory=$("$DRIVER" download "$API/media/synthetic/$MEMORY_BYTES" 8 - | field vmhwm_kib)

R=$(printf '%s\n' "${ours_rps[@]}" | best); R1=$(printf '%s\n' "${ours_rps1[@]}" | best); H=$(printf '%s\n' "${h2load_rps[@]}" | best)
S=$(printf '%s\n' "${ours_single[@]}" | best); C=$(printf '%s\n' "${curl_single[@]}" | best)
SF=$(printf '%s\n' "${ours_file[@]}" | best); CF=$(printf '%s\n' "${curl_file[@]}" | best)
G=$(printf '%s\n' "${ours_seg[@]}" | best); A=$(printf '%s\n' "${aria_seg[@]}" | best)
echo
printf '%-34s %12s %12s %8s %s\n' measure ours reference ratio target
printf '%-34s %12s %12s %8s %s\n' "POST requests/s (vs h2load)" "$R" "$H" "$(ratio "$R" "$H")" ">= 0.70"
printf '%-34s %12s %12s %8s %s\n' "  the same over HTTP/1.1" "$R1" "$H" "$(ratio "$R1" "$H")" ""
printf '%-34s %12s %12s %8s %s\n' "single-stream MB/s (vs curl)" "$S" "$C" "$(ratio "$S" "$C")" ">= 0.90"
printf '%-34s %12s %12s %8s %s\n' "  the same, both to a file" "$SF" "$CF" "$(ratio "$SF" "$CF")" ">= 0.90"
printf '%-34s %12s %12s %8s %s\n' "segmented MB/s (vs aria2c -x8)" "$G" "$A" "$(ratio "$G" "$A")" ">= 1.00"
printf '%-34s %12s %12s %8s %s\n' "peak RSS, $((MEMORY_BYTES >> 20)) MiB download, MiB" "$((memory / 1024))" "-" "-" "< 64"
echo "(cores: $(nproc); load average before the summary: $(cut -d' ' -f1-3 /proc/loadavg))"
