#!/usr/bin/env bash
# The client end to end against reference tools, on one emulator, in one run:
#   - GetFolderAssets through the whole pipeline (token, service, resource, records), QUERIES per
#     round with 32 in flight: queries/s, p50 and p99, beside h2load -m32 sending the same body
#   - an asset's original (the large data set's 3 GiB video, or DOWNLOAD_ASSET's) through
#     DownloadVideoAsset to a file in /dev/shm, beside curl (one stream) and aria2c -x8, with
#     our peak memory
#
#   bench/e2e/client_bench.sh [build-dir]     (default build/release; ROUNDS=3, QUERIES=1000)
# Each line names every round; the summary takes medians. h2load and aria2c go to 127.0.0.1,
# which the emulator serves as its api and media host (media links are signed without the host).
set -euo pipefail

ROOT=$(cd "$(dirname "$0")/../.." && pwd)
BUILD=${1:-$ROOT/build/release}
ROUNDS=${ROUNDS:-3}
QUERIES=${QUERIES:-1000}
source "$ROOT/bench/e2e/bench_common.sh"
bench_setup client-bench "$BUILD" ostriolib

DRIVER=$WORK/driver
RPATH="$BUILD:$BUILD/platform/kelappsupport:$BUILD/platform/kelnet:$BUILD/platform/kelcore"
c++ -O2 -std=c++20 -Wall -Wextra -Werror -I"$ROOT/include" -I"$ROOT/platform/kelcore/include" \
  -I"$ROOT/platform/kelnet/include" -I"$ROOT/platform/kelappsupport/include" \
  "$ROOT/bench/e2e/client_bench_driver.cpp" -o "$DRIVER" -L"$BUILD" -L"$BUILD/platform/kelappsupport" \
  -L"$BUILD/platform/kelnet" -L"$BUILD/platform/kelcore" -lostriolib -lkelappsupport -lkelnet -lkelcore \
  -Wl,-rpath,"$RPATH" -pthread

bench_start_emulator --dataset large
get() { node -e "const o=JSON.parse(require('fs').readFileSync(0,'utf8').split('\n')[0]); const v=$1; console.log(v)"; }
export OSTRIOLIB_ENVIRONMENT=2 OSTRIOLIB_DOMAIN_DEVELOPMENT=$SUFFIX OSTRIOLIB_CABUNDLE=$CA OSTRIOLIB_KEYCHAIN=memory
export OSTRIOLIB_DEBUG_DB=/dev/null XDG_DATA_HOME=$WORK/data XDG_CONFIG_HOME=$WORK/config XDG_STATE_HOME=$WORK/xstate
SESSION=$(curl -sf --cacert "$CA" -X POST -H 'content-type: application/json' -d '{}' "$API/_emulator/session")
export OSTRIO_BENCH_RECORD=$(get o.record <<<"$SESSION")
TOKEN=$(get o.accessToken <<<"$SESSION")
DATA=$(curl -sf --cacert "$CA" "$API/_emulator/data")
FOLDER=$(get o.largeFolderId <<<"$DATA")
ASSET=${DOWNLOAD_ASSET:-$(get o.largeVideo.id <<<"$DATA")}
BODY=$(node -e "
  const { KNOWN_QUERIES } = require('$ROOT/emulator/lib/knownQueries.js');
  const f = '$FOLDER';
  console.log(JSON.stringify({ query: KNOWN_QUERIES.GetFilesAndFolders, variables: {
    pageFiles: { first: 50 }, pageFolders: { first: 50 },
    queryFiles: { assetType: 'FILE', folderId: f }, queryFolders: { assetType: 'FOLDER', folderId: f } } }))")
printf '%s' "$BODY" >"$WORK/body.json"

field() { sed -n "s/.*\<$1=\([0-9.]*\).*/\1/p" | head -1; }
declare -A V
add() { V[$1]+="$2 "; }

echo "load average before the run: $(cut -d' ' -f1-3 /proc/loadavg) (cores: $(nproc))"
for round in $(seq "$ROUNDS"); do
  line=$("$DRIVER" queries "$QUERIES" 32 "$FOLDER")
  add qps "$(field qps <<<"$line")"; add p50 "$(field p50_ms <<<"$line")"; add p99 "$(field p99_ms <<<"$line")"
  h2=$(h2load -n "$QUERIES" -c 1 -m 32 -d "$WORK/body.json" -H 'content-type: application/json' \
    -H "authorization: Bearer $TOKEN" "$LOOPBACK/graphql" | sed -n 's/.*finished in [^,]*, \([0-9.]*\) req\/s.*/\1/p')
  add h2load "$h2"

  line=$("$DRIVER" download "$ASSET" /dev/shm/client-bench-ours)
  add ours "$(field mbps <<<"$line")"; add peak "$(field peak_kib <<<"$line")"
  bytes=$(field bytes <<<"$line")
  rm -f /dev/shm/client-bench-ours
  URL=$(curl -sf --cacert "$CA" "$API/_emulator/data" | get o.largeVideo.downloadUrl)
  QUERY=${URL#*\?}
  PATH_PART=$(node -e "console.log(new URL(process.argv[1]).pathname)" "$URL")
  c=$(curl -sf --cacert "$CA" -o /dev/shm/client-bench-curl -w '%{speed_download}' "$URL")
  add curl "$(awk -v s="$c" 'BEGIN { printf "%.1f", s / 1e6 }')"
  rm -f /dev/shm/client-bench-curl
  start=$(date +%s.%N)
  aria2c -q -x8 -s8 --file-allocation=none --allow-overwrite=true --auto-file-renaming=false --ca-certificate="$CA" \
    -d /dev/shm -o client-bench-aria "$LOOPBACK$PATH_PART?$QUERY"
  add aria "$(awk -v a="$start" -v b="$(date +%s.%N)" -v n="$bytes" 'BEGIN { printf "%.1f", n / (b - a) / 1e6 }')"
  rm -f /dev/shm/client-bench-aria
  last() { local a=(${V[$1]}); echo "${a[-1]}"; }
  echo "round $round (load $(cut -d' ' -f1 /proc/loadavg)): GetFolderAssets/s $(last qps) (p50 $(last p50) ms," \
    "p99 $(last p99) ms) vs h2load $(last h2load); download MB/s $(last ours) vs curl $(last curl)," \
    "aria2c -x8 $(last aria); peak $(last peak) KiB" >&2
done
m() { tr ' ' '\n' <<<"${V[$1]}" | grep . | median; }
echo "queries vs h2load: $(ratio "$(m qps)" "$(m h2load)") (median $(m qps) vs $(m h2load) /s; p50 $(m p50) ms, p99 $(m p99) ms)"
echo "download vs curl: $(ratio "$(m ours)" "$(m curl)"); vs aria2c -x8: $(ratio "$(m ours)" "$(m aria)") (median $(m ours) MB/s)"
echo "peak memory of the download: $(( $(m peak | cut -d. -f1) / 1024 )) MiB"
