#!/usr/bin/env bash
# Installs with apt-get what this Debian machine lacks: by default what building and running the plug-in
# and pkgsim needs (scripts/demo.sh); with --tests also what the whole test suite needs (scripts/test.sh).
# Nothing is installed when everything is there already.
#
#   scripts/install-deps.sh [--tests]
set -euo pipefail

build_and_run=(
  cmake g++ make pkg-config
  libsqlite3-dev libjsoncpp-dev libglib2.0-dev libxml2-dev
)
tests=(
  libgtest-dev libgmock-dev  # unit, end-to-end and pkgsim tests
  valgrind                   # memcheck runs, and the campaign program's client requests
  rpm git                    # the .spec through rpmbuild, on an archive of the checkout
  clang libclang-rt-14-dev   # the fuzz targets
  ccache                     # the device build and the .spec's builds reuse the plain build's objects
  sqlite3                    # to look into a sandbox device's database
)

packages=("${build_and_run[@]}")
case "${1:-}" in
  --tests) packages+=("${tests[@]}") ;;
  "") ;;
  *) echo "usage: $0 [--tests]" >&2; exit 2 ;;
esac

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
