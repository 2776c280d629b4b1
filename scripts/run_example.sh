#!/usr/bin/env bash
# The main job: builds the library and runs the example program, which
# starts a loopback server and makes requests through the library.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build-example -DCMAKE_BUILD_TYPE=RelWithDebInfo -DWEBCLIENT_BUILD_TESTS=OFF >/dev/null
cmake --build build-example -j "$(nproc)" --target webclient_example
./build-example/tools/webclient_example
