#!/usr/bin/env bash
# Installs with apt-get whatever building, testing and running the project needs and this Debian machine
# lacks. Nothing is installed when everything is there already.
set -euo pipefail

packages=(
  cmake g++ make pkg-config
  libsqlite3-dev libjsoncpp-dev libglib2.0-dev libxml2-dev
  libgtest-dev libgmock-dev
  sqlite3 valgrind
  rpm
  clang libclang-rt-14-dev
)

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$package")
  fi
done

if ((${#missing[@]} == 0)); then
  exit 0
fi

echo "installing with apt-get: ${missing[*]}"
sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo=sudo; fi
# apt-get's hundreds of progress lines go to a log, shown only when something fails.
log=$(mktemp)
trap 'rm -f "$log"' EXIT
if ! { $sudo apt-get update -qq && DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq \
    --no-install-recommends "${missing[@]}"; } >"$log" 2>&1; then
  cat "$log" >&2
  echo "install-deps: apt-get failed (its output is above)" >&2
  exit 1
fi
