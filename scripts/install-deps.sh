#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, when any is missing.
#   --tool   only what the library and the kestrelvue tool need (the demo)
set -euo pipefail
packages=(g++ cmake make pkg-config libcurl4-openssl-dev libsimdjson-dev nlohmann-json3-dev
          libcpp-httplib-dev libgeographiclib-dev libsqlite3-dev libssl-dev libcli11-dev
          zlib1g-dev libgps-dev libexpat1-dev libmicrohttpd-dev liblz4-dev)
if [ "${1:-}" != --tool ]; then
  packages+=(git python3 libgtest-dev libgmock-dev libbenchmark-dev locales ccache clang
             libclang-rt-14-dev clang-format clang-tidy gpsd gpsd-clients util-linux)
fi
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if ((${#missing[@]})); then
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}"
fi

[ "${1:-}" = --tool ] && exit 0

# The number formatting tests run under a locale whose decimal separator is a comma, to prove the
# library's texts do not follow the process locale.
if ! locale -a 2>/dev/null | grep -qi '^tr_TR\.utf-\?8$'; then
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  $sudo localedef -i tr_TR -f UTF-8 tr_TR.UTF-8 || echo "install-deps: tr_TR.UTF-8 unavailable; locale tests will skip" >&2
fi
