#!/usr/bin/env bash
# Installs the Debian packages this project needs; does nothing (quietly)
# when they are all present. Safe to run again. Extra package names given
# as arguments are installed too.
set -euo pipefail

PACKAGES=(
  cmake g++ make pkg-config openssl python3 locales
  libcurl4-openssl-dev libssl-dev libjson-c-dev
  googletest libgtest-dev libcpp-httplib-dev
  "$@"
)

missing=()
for pkg in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$pkg")
  fi
done

if ((${#missing[@]})); then
  echo "setup: installing ${missing[*]}"
  SUDO=""
  if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
