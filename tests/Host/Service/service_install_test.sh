#!/usr/bin/env bash
# Installs the build into a staging directory, then runs the installed unit's
# command (its paths moved under the staging directory) until the server
# listens, and stops it as the service manager would.
set -euo pipefail
build=$1
stage=$(mktemp -d)
server=
cleanup() {
  if [ -n "$server" ]; then kill -KILL "$server" 2>/dev/null || true; fi
  rm -rf "$stage"
}
trap cleanup EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

DESTDIR=$stage cmake --install "$build" >/dev/null
unit=$(find "$stage" -path '*/systemd/system/loopstore.service')
[ -n "$unit" ] || fail "no loopstore.service installed"

# The command must name the installed program and logging configuration.
exec_start=$(sed -n 's/^ExecStart=//p' "$unit")
read -r -a words <<<"$exec_start"
program=${words[0]}
[ -x "$stage$program" ] || fail "ExecStart names $program, which is not installed"
log_config=$(sed -n 's/.*--log-config \([^ ]*\).*/\1/p' <<<"$exec_start")
[ -f "$stage$log_config" ] || fail "ExecStart names $log_config, which is not installed"
"$stage$program" --version >/dev/null || fail "the installed program does not run"

# Run the unit's command as systemd would, with LOOPSTORE_OPTIONS set.
command=${exec_start//\/var\/lib\/loopstore/$stage/data}
command=${command//$program/$stage$program}
command=${command//$log_config/$stage$log_config}
command=${command//--http 127.0.0.1:7421/--http 127.0.0.1:0}
command=${command//\$LOOPSTORE_OPTIONS/--listen 127.0.0.1:0 --pool-files 2 --pool-file-size 2M}
log=$stage/server.log
# shellcheck disable=SC2086
$command 2>"$log" &
server=$!
for _ in $(seq 1 600); do
  grep -q "listening on" "$log" && break
  kill -0 "$server" 2>/dev/null || { cat "$log" >&2; fail "the server exited"; }
  sleep 0.1
done
grep -q "listening on" "$log" || fail "the server did not start listening"
kill -TERM "$server"
status=0
wait "$server" || status=$?
server=
[ "$status" -eq 0 ] || { cat "$log" >&2; fail "the server stopped with status $status"; }
# The installed configuration sets the journal's layout: level, then logger.
grep -Eq '^(INFO|WARN) +\[' "$log" || { cat "$log" >&2; fail "no line in the configured layout"; }
echo "installed unit ran the server and stopped it cleanly"
