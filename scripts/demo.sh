#!/usr/bin/env bash
# The main job: builds the library and the `webclient` program, then runs
# `webclient demo`, which starts loopback HTTP and HTTPS servers with a
# fresh test PKI and walks through every capability. Run it as root so the
# demo can re-root the trust store's fixed paths in a private mount
# namespace; otherwise it skips (and says so) the trust-store steps.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build-demo -DCMAKE_BUILD_TYPE=RelWithDebInfo -DWEBCLIENT_BUILD_TESTS=OFF >/dev/null
cmake --build build-demo -j "$(nproc)" --target webclient_cli >/dev/null
exec ./build-demo/tools/webclient demo
