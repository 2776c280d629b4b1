#!/usr/bin/env bash
# The `webclient` program's exit statuses and output, against a loopback
# server, plus the embedded demo (which covers verified HTTPS). usage: cli_test.sh PATH_TO_WEBCLIENT
set -uo pipefail
cli=$1
failures=0
expect() {  # expect STATUS DESCRIPTION COMMAND...
  local want=$1 what=$2
  shift 2
  "$@" >/tmp/cli_test.out 2>/tmp/cli_test.err
  local got=$?
  if [ "$got" -ne "$want" ]; then
    echo "FAIL: $what: exit $got, expected $want"; cat /tmp/cli_test.err; failures=$((failures + 1))
  fi
}
expect 64 "unknown command" "$cli" frobnicate
grep -q "unknown command 'frobnicate'" /tmp/cli_test.err || { echo "FAIL: no usage message"; failures=$((failures + 1)); }
expect 64 "missing URL" "$cli" get
expect 64 "data on a GET" "$cli" get -d x http://127.0.0.1:1/
expect 0 "help" "$cli" --help
expect 0 "verb help" "$cli" upload --help
expect 2 "refused connection" "$cli" get http://127.0.0.1:1/
grep -q "^error: " /tmp/cli_test.err || { echo "FAIL: no libcurl error text"; failures=$((failures + 1)); }

dir=$(mktemp -d)
trap 'kill $server 2>/dev/null; rm -rf "$dir"' EXIT
printf 'hello' > "$dir/hello.txt"
python3 -m http.server 0 --bind 127.0.0.1 --directory "$dir" > "$dir/server.log" 2>&1 &
server=$!
for _ in $(seq 100); do port=$(grep -o 'port [0-9]*' "$dir/server.log" | grep -o '[0-9]*'); [ -n "$port" ] && break; sleep 0.1; done
expect 0 "GET by name" "$cli" get "http://localhost:$port/hello.txt"
[ "$(cat /tmp/cli_test.out)" = "hello" ] || { echo "FAIL: body not on stdout"; failures=$((failures + 1)); }
expect 1 "404 by name" "$cli" get "http://localhost:$port/missing"
expect 0 "download" "$cli" download -o "$dir/copy.txt" "http://localhost:$port/hello.txt"
cmp -s "$dir/hello.txt" "$dir/copy.txt" || { echo "FAIL: downloaded file differs"; failures=$((failures + 1)); }

expect 0 "demo" "$cli" demo
grep -q "demo finished: every step behaved as expected" /tmp/cli_test.out || { echo "FAIL: demo"; failures=$((failures + 1)); }
echo "cli: $failures failure(s)"
[ "$failures" -eq 0 ]
