#!/usr/bin/env bash
# The `webclient` program's exit statuses and output, against a loopback
# server, plus the embedded demo. usage: cli_test.sh PATH_TO_WEBCLIENT
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

# An answer cut short over TLS. The local endpoint is not verified, so with
# --ssl the error text is this attempt's own and the transfer failed.
openssl req -x509 -newkey rsa:2048 -nodes -subj /CN=127.0.0.1 -days 1 \
  -keyout "$dir/key.pem" -out "$dir/cert.pem" >/dev/null 2>&1
python3 - "$dir" > "$dir/tls.log" 2>&1 <<'PY' &
import socket, ssl, sys
context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
context.load_cert_chain(sys.argv[1] + "/cert.pem", sys.argv[1] + "/key.pem")
listener = socket.socket()
listener.bind(("127.0.0.1", 0))
listener.listen()
print("port", listener.getsockname()[1], flush=True)
while True:
    connection, _ = listener.accept()
    try:
        peer = context.wrap_socket(connection, server_side=True)
        peer.recv(65536)
        peer.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nabc")
        peer.close()
    except OSError:
        connection.close()
PY
tls_server=$!
trap 'kill $server $tls_server 2>/dev/null; rm -rf "$dir"' EXIT
for _ in $(seq 100); do tls_port=$(grep -o 'port [0-9]*' "$dir/tls.log" | grep -o '[0-9]*'); [ -n "$tls_port" ] && break; sleep 0.1; done
expect 2 "answer cut short, with --ssl" "$cli" get --ssl "https://127.0.0.1:$tls_port/short"
grep -q "^error: transfer closed" /tmp/cli_test.err || { echo "FAIL: no truncation error"; failures=$((failures + 1)); }

expect 0 "demo" "$cli" demo
grep -q "demo finished: every step behaved as expected" /tmp/cli_test.out || { echo "FAIL: demo"; failures=$((failures + 1)); }
echo "cli: $failures failure(s)"
[ "$failures" -eq 0 ]
