#!/usr/bin/env bash
# Installs a built tree into a temporary prefix, builds a consumer program
# against it through the CMake package and through pkg-config, runs both,
# and checks that CPack makes a Debian package with the versioned library.
# usage: package_test.sh BUILD_DIR
set -euo pipefail
build=$(cd "$1" && pwd)
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix="$work/prefix"

cmake --install "$build" --prefix "$prefix" >/dev/null
test -L "$prefix/lib/libwebclient.so"
ls "$prefix"/lib/libwebclient.so.1* >/dev/null
env -u LD_LIBRARY_PATH "$prefix/bin/webclient" --help >/dev/null
test -x "$prefix/share/webclient/extract_ca_bundle.sh"

cmake -S "$here" -B "$work/cmake-consumer" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake-consumer" >/dev/null
LD_LIBRARY_PATH="$prefix/lib" "$work/cmake-consumer/consumer"

export PKG_CONFIG_PATH="$prefix/lib/pkgconfig"
# A consumer needs libcurl's headers only, not OpenSSL's or json-c's.
if pkg-config --cflags --libs webclient | grep -Eq 'json|ssl|crypto'; then
  echo "package: pkg-config hands consumers OpenSSL or json-c" >&2
  exit 1
fi
# shellcheck disable=SC2046
g++ -std=c++17 "$here/consumer.cpp" -o "$work/pc-consumer" $(pkg-config --cflags --libs webclient)
LD_LIBRARY_PATH="$prefix/lib" "$work/pc-consumer"

(cd "$work" && cpack -G DEB --config "$build/CPackConfig.cmake" >/dev/null)
deb=$(ls "$work"/*.deb)
dpkg-deb -c "$deb" > "$work/contents"
grep -q 'libwebclient.so.1' "$work/contents"
echo "package: install, CMake package, pkg-config and Debian package all fine"
