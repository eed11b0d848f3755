#!/usr/bin/env bash
# Runs the .spec through rpmbuild as a gbs build of the device would: %prep unpacks a `git archive` of the
# committed HEAD named as Source0 says, %build and %install make the device build (-DTIZEN=ON), %check
# builds the unit tests in a host build and runs them, %files packages the result. The host stand-ins'
# pkg-config files stand for the platform's in the build root, and their application-service libraries
# are on the linker's path, where the device's development packages put theirs.
#
# Debian's rpm does not know Tizen's %manifest directive (Tizen's rpm adds it for Smack labels), so the
# build uses a copy of the .spec without that line, and the .manifest and its %manifest line are checked
# here on their own. The package must hold exactly the plug-in and its registration.
#
#   packaging/rpmbuild-check.sh HOST_BUILD_DIR [TOPDIR]      TOPDIR defaults to HOST_BUILD_DIR/rpmbuild
set -euo pipefail
cd "$(dirname "$0")/.."

host=$(realpath "${1:?usage: $0 HOST_BUILD_DIR [TOPDIR]}")
top=$(realpath -m "${2:-$host/rpmbuild}")
spec=packaging/webapi-upgrade-plugin.spec
expected=$(printf '%s\n' /etc/package-manager/parserlib/metadata/libwebapi-upgrade-plugin.so \
  /usr/share/parser-plugins/webapi-upgrade-plugin.info | sort)
status=0
fail() { echo "rpmbuild: $*"; status=1; }

name=$(rpmspec -q --srpm --qf '%{NAME}' "$spec")
version=$(rpmspec -q --srpm --qf '%{VERSION}' "$spec")

# The .manifest grants the plug-in the floor domain; Source1001 brings it and %files applies it.
check_manifest() {
  local manifest=packaging/$name.manifest
  [ "$(tr -d ' \t\n' <"$manifest")" = '<manifest><request><domainname="_"/></request></manifest>' ] ||
    fail "$manifest does not request the floor domain \"_\""
  [ "$(rpmspec -P "$spec" | sed -n 's/^Source1001: *//p')" = "$name.manifest" ] ||
    fail "Source1001 of $spec is not $name.manifest"
  [ "$(awk '/^%files/ { files = 1; next } files && /^%manifest /' "$spec")" = '%manifest %{name}.manifest' ] ||
    fail "%files of $spec has no single line: %manifest %{name}.manifest"
}

prepare_topdir() {
  local source0
  git rev-parse --verify -q HEAD >/dev/null || { echo "rpmbuild: not a git checkout: nothing to archive" >&2; exit 1; }
  [ -z "$(git status --porcelain --untracked-files=no)" ] ||
    echo "rpmbuild: note: the archive holds the committed HEAD, not the uncommitted changes"
  source0=$(rpmspec -P "$spec" | sed -n 's/^Source0: *//p')
  rm -rf "$top"
  mkdir -p "$top"/{SOURCES,SPECS}
  git archive --format=tar.gz --prefix="$name-$version/" -o "$top/SOURCES/$source0" HEAD
  cp "packaging/$name.manifest" "$top/SOURCES/"
  grep -v '^%manifest ' "$spec" >"$top/SPECS/$name.spec"
}

build_package() {
  local log=$top/rpmbuild.log
  if ! PKG_CONFIG_PATH=$host/platform/host/pkgconfig LIBRARY_PATH=$host/platform/host/vex \
      rpmbuild -bb --nodeps --define "_topdir $top" --define "_smp_mflags -j$(nproc 2>/dev/null || echo 2)" \
      "$top/SPECS/$name.spec" >"$log" 2>&1; then
    tail -n 40 "$log"
    fail "rpmbuild failed (the whole log: $log)"
    return
  fi
  # Each stage must have run: %check's tests say so themselves.
  grep -q '100% tests passed' "$log" || fail "%check ran no tests (log: $log)"
}

check_package() {
  local rpms listed
  rpms=$(find "$top/RPMS" -name "$name-$version-*.rpm" 2>/dev/null)
  [ "$(grep -c . <<<"$rpms")" = 1 ] || { fail "not one package built: ${rpms:-none}"; return; }
  listed=$(rpm -qlp "$rpms" 2>/dev/null | sort)
  echo "rpmbuild: $(basename "$rpms"):"
  sed 's/^/  /' <<<"$listed"
  [ "$listed" = "$expected" ] || fail "the package's files differ; expected:"$'\n'"$expected"
}

check_manifest
prepare_topdir
build_package
((status == 0)) && check_package
exit $status
