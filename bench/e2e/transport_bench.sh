#!/usr/bin/env bash
# Transport benchmarks: the library against reference tools, on one emulator, in one run.
#
#   bench/e2e/transport_bench.sh [build-dir]      (default build/release; configured if missing)
#
# Prerequisites beyond the build's: curl, aria2 (aria2c), nghttp2-client (h2load), all installed
# by scripts/bootstrap; for profiling a run, Debian's linux-perf (`perf record -e cpu-clock -g`;
# hardware counters are not available on every machine: `perf stat -e instructions true` tells).
#
# Sizes come from the environment, so a smoke run can be small:
#   ROUNDS (5), POSTS (10000 per side and round), SINGLE_BYTES (1 GiB), SEGMENTED_BYTES (1 GiB),
#   MEMORY_BYTES (2 GiB: the peak-memory download).
#
# Each measure runs ours and the reference right next to each other, round after round, so that a
# busy moment of the machine hits both sides alike; the summary is the median of the rounds, and
# every round's figures are printed as they come:
#   - small POSTs per second through ServiceBase (16 in flight) vs h2load -c1 -m16, same endpoint;
#     over HTTP/2 (the default) and, for comparison, over HTTP/1.1 keep-alive connections
#   - single-stream download vs curl, both to /dev/null (the transport alone) and both to a file
#     in /dev/shm (what a download is: receiving and writing overlap on our side)
#   - segmented download vs aria2c -x8 -s8 (both write the file to /dev/shm)
#   - peak memory (VmHWM) of a MEMORY_BYTES download
# Besides throughput, the CPU time (user + system) each side's whole process spent, per 1 000
# requests and per GiB: on a machine shared with other work, throughput swings with the load,
# CPU time far less. Both sides are measured the same way (the driver's measure mode: wait4's
# rusage of the child).
# h2load and aria2c do not resolve *.localhost; they go to 127.0.0.1, which the emulator serves
# as its api host (its certificate carries the address).
set -euo pipefail

ROOT=$(cd "$(dirname "$0")/../.." && pwd)
BUILD=${1:-$ROOT/build/release}
ROUNDS=${ROUNDS:-5}
POSTS=${POSTS:-10000}
SINGLE_BYTES=${SINGLE_BYTES:-1073741824}
SEGMENTED_BYTES=${SEGMENTED_BYTES:-1073741824}
MEMORY_BYTES=${MEMORY_BYTES:-2147483648}

source "$ROOT/bench/e2e/bench_common.sh"
bench_setup transport-bench "$BUILD" kelappsupport

DRIVER=$WORK/driver
LIBS=(-L"$BUILD/platform/kelappsupport" -L"$BUILD/platform/kelnet" -L"$BUILD/platform/kelcore")
RPATH="$BUILD/platform/kelappsupport:$BUILD/platform/kelnet:$BUILD/platform/kelcore"
c++ -O2 -std=c++20 -Wall -Wextra -Werror \
  -I"$ROOT/platform/kelcore/include" -I"$ROOT/platform/kelnet/include" -I"$ROOT/platform/kelappsupport/include" \
  "$ROOT/bench/e2e/transport_bench_driver.cpp" -o "$DRIVER" "${LIBS[@]}" \
  -lkelappsupport -lkelnet -lkelcore -Wl,-rpath,"$RPATH" -pthread

bench_start_emulator
export BENCH_CABUNDLE=$CA
TOKEN=$(curl -sf --cacert "$CA" -X POST -H 'content-type: application/json' -d '{}' "$API/_emulator/session" | json accessToken)
BODY='{"query":"query Me { me { id } }"}'
printf '%s' "$BODY" >"$WORK/body.json"

field() { sed -n "s/.*\<$1=\([0-9.]*\).*/\1/p" | head -1; }
OUT=$WORK/out
# measure <command...>: runs it under the driver's measure mode; sets CPU_US, WALL_S, and the
# command's own output in $OUT.
measure() {
  local line
  line=$("$DRIVER" measure "$OUT" "$@") || { echo "transport_bench: failed: $*" >&2; cat "$OUT" >&2; exit 1; }
  CPU_US=$(field cpu_us <<<"$line")
  WALL_S=$(field wall_s <<<"$line")
}
# CPU milliseconds per 1 000 requests, per GiB.
per_k() { awk -v us="$1" -v n="$2" 'BEGIN { printf "%.1f", us / 1000 / n * 1000 }'; }
per_gib() { awk -v us="$1" -v n="$2" 'BEGIN { printf "%.0f", us / 1000 / (n / 1073741824) }'; }
curl_mbps() { awk '{ printf "%.1f", $1 / 1e6 }' "$OUT"; }

declare -A V  # V[name]="value value ..." one per round
add() { V[$1]+="$2 "; }

# One untimed round of POSTs first: a fresh emulator answers slowly until Node has compiled its
# hot paths, and whichever side ran first would pay for that alone.
h2load -n "$POSTS" -c 1 -m 16 -d "$WORK/body.json" -H 'content-type: application/json' \
  -H "authorization: Bearer $TOKEN" "$LOOPBACK/graphql" >/dev/null

echo "load average before the run: $(cut -d' ' -f1-3 /proc/loadavg) (cores: $(nproc))"
for round in $(seq "$ROUNDS"); do
  measure "$DRIVER" post "$API/graphql" "$POSTS" 16 "$BODY" "Bearer $TOKEN"
  add rps "$(field rps <"$OUT")"; add rps_cpu "$(per_k "$CPU_US" "$POSTS")"
  BENCH_HTTP1=1 measure "$DRIVER" post "$API/graphql" "$POSTS" 16 "$BODY" "Bearer $TOKEN"
  add rps1 "$(field rps <"$OUT")"; add rps1_cpu "$(per_k "$CPU_US" "$POSTS")"
  measure h2load -n "$POSTS" -c 1 -m 16 -d "$WORK/body.json" -H 'content-type: application/json' \
    -H "authorization: Bearer $TOKEN" "$LOOPBACK/graphql"
  add h2load "$(sed -n 's/.*finished in [^,]*, \([0-9.]*\) req\/s.*/\1/p' "$OUT")"
  add h2load_cpu "$(per_k "$CPU_US" "$POSTS")"

  measure "$DRIVER" download "$API/media/synthetic/$SINGLE_BYTES" 1 /dev/null
  add single "$(field mbps <"$OUT")"; add single_cpu "$(per_gib "$CPU_US" "$SINGLE_BYTES")"
  measure curl -sf --cacert "$CA" -o /dev/null -w '%{speed_download}' "$API/media/synthetic/$SINGLE_BYTES"
  add curl "$(curl_mbps)"; add curl_cpu "$(per_gib "$CPU_US" "$SINGLE_BYTES")"
  measure "$DRIVER" download "$API/media/synthetic/$SINGLE_BYTES" 1 /dev/shm/transport-bench-ours
  add file "$(field mbps <"$OUT")"; add file_cpu "$(per_gib "$CPU_US" "$SINGLE_BYTES")"
  rm -f /dev/shm/transport-bench-ours
  measure curl -sf --cacert "$CA" -o /dev/shm/transport-bench-curl -w '%{speed_download}' \
    "$API/media/synthetic/$SINGLE_BYTES"
  add curl_file "$(curl_mbps)"; add curl_file_cpu "$(per_gib "$CPU_US" "$SINGLE_BYTES")"
  rm -f /dev/shm/transport-bench-curl

  measure "$DRIVER" download "$API/media/synthetic/$SEGMENTED_BYTES" 8 /dev/shm/transport-bench-ours
  add seg "$(field mbps <"$OUT")"; add seg_cpu "$(per_gib "$CPU_US" "$SEGMENTED_BYTES")"
  rm -f /dev/shm/transport-bench-ours
  measure aria2c -q -x8 -s8 --file-allocation=none --allow-overwrite=true --auto-file-renaming=false \
    --ca-certificate="$CA" -d /dev/shm -o transport-bench-aria "$LOOPBACK/media/synthetic/$SEGMENTED_BYTES"
  add aria "$(awk -v s="$WALL_S" -v n="$SEGMENTED_BYTES" 'BEGIN { printf "%.1f", n / s / 1e6 }')"
  add aria_cpu "$(per_gib "$CPU_US" "$SEGMENTED_BYTES")"
  rm -f /dev/shm/transport-bench-aria
  last() { local a=(${V[$1]}); echo "${a[-1]}"; }
  echo "round $round (load $(cut -d' ' -f1 /proc/loadavg)):" \
    "POST/s $(last rps) (HTTP/1.1 $(last rps1)) vs $(last h2load)," \
    "CPU ms/1k $(last rps_cpu) ($(last rps1_cpu)) vs $(last h2load_cpu);" \
    "single MB/s $(last single) vs $(last curl), CPU ms/GiB $(last single_cpu) vs $(last curl_cpu);" \
    "to a file $(last file) vs $(last curl_file), CPU $(last file_cpu) vs $(last curl_file_cpu);" \
    "segmented $(last seg) vs $(last aria), CPU $(last seg_cpu) vs $(last aria_cpu)" >&2
done

measure "$DRIVER" download "$API/media/synthetic/$MEMORY_BYTES" 8 -
memory=$(field vmhwm_kib <"$OUT")

M() { tr ' ' '\n' <<<"${V[$1]}" | grep . | median; }
row() { printf '%-40s %10s %10s %7s  %s\n' "$1" "$2" "$3" "$(ratio "$2" "$3")" "$4"; }
echo
echo "median of $ROUNDS rounds"
printf '%-40s %10s %10s %7s  %s\n' measure ours reference ratio target
row "POST requests/s (vs h2load -c1 -m16)" "$(M rps)" "$(M h2load)" ">= 0.80"
row "  CPU ms per 1 000 requests" "$(M rps_cpu)" "$(M h2load_cpu)" "<= 1.25"
row "  the same over HTTP/1.1, requests/s" "$(M rps1)" "$(M h2load)" ""
row "  CPU ms per 1 000 requests" "$(M rps1_cpu)" "$(M h2load_cpu)" ""
row "single-stream MB/s (vs curl, /dev/null)" "$(M single)" "$(M curl)" ">= 0.95"
row "  CPU ms per GiB" "$(M single_cpu)" "$(M curl_cpu)" "<= 1.10"
row "  the same, both to a file, MB/s" "$(M file)" "$(M curl_file)" ">= 0.95"
row "  CPU ms per GiB" "$(M file_cpu)" "$(M curl_file_cpu)" ""
row "segmented MB/s (vs aria2c -x8 -s8)" "$(M seg)" "$(M aria)" ">= 1.20"
row "  CPU ms per GiB" "$(M seg_cpu)" "$(M aria_cpu)" ""
printf '%-40s %10s %10s %7s  %s\n' "peak RSS, $((MEMORY_BYTES >> 20)) MiB download, MiB" "$((memory / 1024))" - - "< 32"
echo "(load average after the run: $(cut -d' ' -f1-3 /proc/loadavg))"
