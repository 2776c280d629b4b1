#!/usr/bin/env bash
# Benchmarks libwebclient against raw libcurl on the same nginx (loopback,
# several ports = several origins) in one run, and prints a Markdown table.
# usage: bench/run_bench.sh [BUILD_DIR]   (default: build-bench, built here; a
#        given BUILD_DIR must already hold the benchmark)
set -euo pipefail
given=${1:-}
if [ -n "$given" ]; then given=$(cd "$given" && pwd); fi  # as the caller named it
cd "$(dirname "$0")/.."
bash scripts/setup.sh
if ! command -v nginx >/dev/null; then
  apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq nginx-light >/dev/null
fi
build=${given:-$PWD/build-bench}
if [ -z "$given" ]; then
  cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DWEBCLIENT_BUILD_TESTS=OFF >/dev/null
  cmake --build "$build" -j "$(nproc)" --target webclient_bench >/dev/null
fi
bench="$build/bench/webclient_bench"
if [ ! -x "$bench" ]; then
  echo "run_bench.sh: $bench not found; run without arguments to build it" >&2
  exit 1
fi

work=$(mktemp -d)
trap 'kill "$(cat "$work/nginx.pid" 2>/dev/null)" 2>/dev/null || true; rm -rf "$work"' EXIT
mkdir -p "$work/www"
head -c 1024 /dev/zero | tr '\0' 'a' > "$work/www/1k"
truncate -s 1G "$work/www/1g"
ports=(18181 18182 18183 18184 18185)
listen=""
for p in "${ports[@]}"; do listen+="    server { listen 127.0.0.1:$p; root $work/www; keepalive_requests 1000000; }"$'\n'; done
cat > "$work/nginx.conf" <<CONF
worker_processes 2;
pid $work/nginx.pid;
error_log $work/error.log;
events { worker_connections 1024; }
http {
    access_log off;
    sendfile on;
    client_body_temp_path $work; proxy_temp_path $work; fastcgi_temp_path $work;
    uwsgi_temp_path $work; scgi_temp_path $work;
$listen}
CONF
nginx -c "$work/nginx.conf"
# Ready once the first port accepts (bash's /dev/tcp: no curl command needed).
for _ in $(seq 50); do (exec 3<>"/dev/tcp/127.0.0.1/${ports[0]}") 2>/dev/null && break; sleep 0.1; done

origin() { echo "http://127.0.0.1:${ports[$1]}"; }
echo "| scenario | metric | library | raw libcurl | ratio (library / raw) |"
echo "|---|---|---|---|---|"
"$bench" sequential-numeric "$(origin 0)"
"$bench" sequential-named "http://localhost:${ports[0]}"
"$bench" parallel "$(origin 0)" "$(origin 1)" "$(origin 2)" "$(origin 3)"
named() { echo "http://localhost:${ports[$1]}"; }
"$bench" parallel-named "$(named 0)" "$(named 1)" "$(named 2)" "$(named 3)"
# Six downloads each, alternated (the disk and the VM drift), and each
# client first in half of the pairs: the first of a pair was slower for
# either client. Medians of the rates, the largest peak memory.
for pair in 1 2 3 4 5 6; do
  order="download-library download-raw"
  [ $((pair % 2)) -eq 0 ] && order="download-raw download-library"
  for client in $order; do "$bench" "$client" "$(origin 0)" | tail -n 1 >> "$work/download"; done
done
awk '
  function med(a, n,   i, j, t) { for (i = 1; i <= n; i++) for (j = i + 1; j <= n; j++) if (a[j] < a[i]) { t = a[i]; a[i] = a[j]; a[j] = t }
                                  return n % 2 ? a[(n + 1) / 2] : (a[n / 2] + a[n / 2 + 1]) / 2 }
  { n[$1]++; rate[$1, n[$1]] = $2; if ($3 > rss[$1]) rss[$1] = $3 }
  END {
    for (i = 1; i <= n["library"]; i++) l[i] = rate["library", i]
    for (i = 1; i <= n["raw"]; i++) r[i] = rate["raw", i]
    lm = med(l, n["library"]); rm = med(r, n["raw"])
    printf "| 4 download 1 GiB to a file | MiB/s (median of 6) | %.1f | %.1f | %.2f |\n", lm, rm, lm / rm
    printf "| 4 download 1 GiB to a file | peak RSS (KiB) | %d | %d | %.2f |\n", rss["library"], rss["raw"], rss["library"] / rss["raw"]
  }' "$work/download"
"$bench" pickup "$(origin 0)" "$(origin 4)"
"$bench" idle-cpu "$(origin 0)"
"$bench" many-descriptors "$(origin 0)"
