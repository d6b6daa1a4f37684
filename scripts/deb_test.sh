#!/usr/bin/env bash
# Builds the Debian package of a built tree with CPack and checks its fields
# and its file list.  Exits 77 (skipped) where dpkg-deb is not available.
# Usage: deb_test.sh BUILD_DIR
set -euo pipefail
build=$(cd "${1:?usage: deb_test.sh BUILD_DIR}" && pwd)
command -v dpkg-deb >/dev/null || { echo "dpkg-deb not available: skipped"; exit 77; }
work=$(mktemp -d "${TMPDIR:-/tmp}/vlu-deb.XXXXXX")
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work" >"$work/cpack.log" 2>&1 ||
  { cat "$work/cpack.log"; fail "cpack"; }
deb=$(find "$work" -maxdepth 1 -name 'vardenlu_*.deb')
[ -n "$deb" ] || fail "cpack made no package"
echo "$(basename "$deb"):"
dpkg-deb -f "$deb" Package Version Architecture Depends
version=$(sed -n 's/^set(CPACK_PACKAGE_VERSION "\(.*\)")$/\1/p' "$build/CPackConfig.cmake")
[ "$(dpkg-deb -f "$deb" Package)" = vardenlu ] || fail "package name"
[ "$(dpkg-deb -f "$deb" Version)" = "$version" ] || fail "package version"

# Regular files and links, without the leading "./".
dpkg-deb -c "$deb" | awk '$1 !~ /^d/ {print $6}' | sed 's|^\./||' | sort >"$work/files"
cat "$work/files"
major=${version%%.*}
# The library folder is lib/ or a multiarch folder below it, as configured.
lib=$(sed -n 's|^\(usr/lib.*\)/pkgconfig/vardenlu\.pc$|\1|p' "$work/files")
[ -n "$lib" ] || fail "no pkg-config file in the package"
for f in usr/bin/vlu-bench usr/include/vardenlu.h \
  "$lib/libvardenlu.so" "$lib/libvardenlu.so.$major" "$lib/libvardenlu.so.$version" \
  "$lib/cmake/vardenlu/vardenluConfig.cmake" "$lib/cmake/vardenlu/vardenluConfigVersion.cmake" \
  "$lib/cmake/vardenlu/vardenluTargets.cmake"; do
  grep -qxF "$f" "$work/files" || fail "$f is not in the package"
done
[ "$(wc -l <"$work/files")" -eq 10 ] || fail "the package holds other files than the expected ten"
echo "debian package ok"
