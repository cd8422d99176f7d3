#!/bin/bash
# Runs a command against a real Secret Service: a private D-Bus session bus with GNOME Keyring
# (secrets component only) unlocked by a throwaway password, in throwaway XDG folders, so the
# keyrings of the user running the tests are never touched. No display is needed.
#
#   with-secret-service.sh COMMAND [ARGS...]
#
# Known behaviour of gnome-keyring-daemon this relies on:
#  - --unlock reads the password from stdin; an empty one makes it want a prompt, and the login
#    collection never appears, so the password is not empty;
#  - a daemon started by D-Bus activation can outlive the session and hold inherited pipes open,
#    so ours is started by hand in the foreground, its pid kept, and killed by that pid; any
#    activated one is looked up on the bus and killed by pid too;
#  - everything runs under timeout, so a hung daemon cannot hang the suite.
set -euo pipefail

if [[ "${1:-}" != "--inside-session" ]]; then
  for tool in dbus-run-session gnome-keyring-daemon gdbus timeout; do
    command -v "$tool" >/dev/null || { echo "with-secret-service: $tool is not installed" >&2; exit 1; }
  done
  # The bus daemon inherits our stdio; keep it off the caller's pipes, and hand the command
  # the caller's stdout and stderr as fds 3 and 4.
  log=$(mktemp)
  status=0
  timeout --kill-after=10 240 dbus-run-session -- "$0" --inside-session "$@" 3>&1 4>&2 >"$log" 2>&1 </dev/null || status=$?
  grep -v 'Failed to set fd limit' "$log" >&2 || true
  rm -f "$log"
  exit "$status"
fi
shift

scratch=$(mktemp -d)
daemon=
cleanup() {
  local activated
  activated=$(gdbus call --session --dest org.freedesktop.DBus --object-path /org/freedesktop/DBus \
    --method org.freedesktop.DBus.GetConnectionUnixProcessID org.freedesktop.secrets 2>/dev/null |
    sed -n 's/^(uint32 \([0-9]*\),)$/\1/p' || true)  # the answer reads "(uint32 PID,)"
  kill $daemon $activated 2>/dev/null || true
  [[ -n "$daemon" ]] && wait "$daemon" 2>/dev/null || true
  rm -rf "$scratch"
}
trap cleanup EXIT

export HOME="$scratch/home" XDG_DATA_HOME="$scratch/data" XDG_CONFIG_HOME="$scratch/config"
export XDG_STATE_HOME="$scratch/state" XDG_CACHE_HOME="$scratch/cache" XDG_RUNTIME_DIR="$scratch/run"
mkdir -p "$HOME" "$XDG_DATA_HOME" "$XDG_CONFIG_HOME" "$XDG_STATE_HOME" "$XDG_CACHE_HOME" "$XDG_RUNTIME_DIR"
chmod 700 "$XDG_RUNTIME_DIR"
unset DISPLAY WAYLAND_DISPLAY

printf '%s' "keyring-fixture-password" |
  gnome-keyring-daemon --unlock --components=secrets --foreground >"$scratch/daemon.log" 2>&1 &
daemon=$!
if ! gdbus wait --session --timeout 30 org.freedesktop.secrets; then
  echo "with-secret-service: gnome-keyring-daemon did not appear on the bus" >&2
  cat "$scratch/daemon.log" >&2
  exit 1
fi

# Under AddressSanitizer, GLib (built without frame pointers) cuts the fast unwinder's stacks at
# g_malloc, and the leak suppressions that name our frames could never match.
if [[ -n "${ASAN_OPTIONS:-}" ]]; then
  export ASAN_OPTIONS="$ASAN_OPTIONS:fast_unwind_on_malloc=0"
fi

status=0
timeout --kill-after=10 180 "$@" >&3 2>&4 || status=$?
exit "$status"
