# Shared by the end-to-end benchmarks (sourced, not run): the tool check, the build, a scratch
# folder cleaned on exit, one emulator for the whole run, and the median and ratio helpers.
#
#   bench_setup NAME BUILD TARGET       checks the tools, builds TARGET in BUILD, sets WORK
#   bench_start_emulator [FLAGS...]     sets PORT SUFFIX CA API LOOPBACK (request log off)

bench_setup() {
  local name=$1 build=$2 target=$3 tool
  for tool in node curl h2load aria2c c++ cmake ninja; do
    command -v "$tool" >/dev/null || { echo "$name: $tool is missing" >&2; exit 2; }
  done
  if [[ ! -f $build/build.ninja ]]; then
    cmake -S "$ROOT" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  fi
  ninja -C "$build" "$target" >/dev/null
  WORK=$(mktemp -d "/tmp/$name.XXXXXX")
  BENCH_SHM_PREFIX=/dev/shm/$name-
  EMULATOR_PID=
  trap bench_cleanup EXIT
}

bench_cleanup() {
  [[ -n $EMULATOR_PID ]] && kill "$EMULATOR_PID" 2>/dev/null && wait "$EMULATOR_PID" 2>/dev/null
  rm -rf "$WORK" "$BENCH_SHM_PREFIX"*
}

# The emulator, without its request log: a benchmark is not to measure the log's growth.
bench_start_emulator() {
  mkdir -p "$WORK/state"
  node "$ROOT/emulator/server.js" --port 0 --state "$WORK/state" --quiet --no-log "$@" >"$WORK/emulator.out" &
  EMULATOR_PID=$!
  for _ in $(seq 300); do [[ -s $WORK/emulator.out ]] && break; sleep 0.1; done
  PORT=$(json port <"$WORK/emulator.out")
  SUFFIX=$(json suffix <"$WORK/emulator.out")
  CA=$(json ca <"$WORK/emulator.out")
  API="https://api$SUFFIX"
  LOOPBACK="https://127.0.0.1:$PORT"
}

json() { node -e "const o=JSON.parse(require('fs').readFileSync(0,'utf8').split('\n')[0]); console.log(o['$1'])"; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", (b > 0 ? a / b : 0) }'; }
median() {
  sort -g | awk '{ v[NR] = $1 } END { if (NR % 2) print v[(NR + 1) / 2]; else printf "%.1f\n", (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}
