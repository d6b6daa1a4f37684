#!/usr/bin/env bash
# Installs a built tree into a temporary prefix, moves the prefix elsewhere
# (nothing installed may depend on where it was put, or on the build
# folder), checks the installed files, and builds and runs the programs of
# examples/ against it twice: through the CMake package and through
# pkg-config.  Usage: consumer_test.sh BUILD_DIR
set -euo pipefail
src=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:?usage: consumer_test.sh BUILD_DIR}" && pwd)
work=$(mktemp -d "${TMPDIR:-/tmp}/vlu-consumer.XXXXXX")
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

command -v pkg-config >/dev/null || fail "pkg-config is missing (scripts/setup.sh --tests installs it)"
cc=${CC:-cc}

# Install, stripped: debug information would carry the build paths.
cmake --install "$build" --prefix "$work/stage" --strip >/dev/null
mv "$work/stage" "$work/prefix"
prefix=$work/prefix
pc=$(find "$prefix" -name vardenlu.pc)
[ -n "$pc" ] || fail "no vardenlu.pc installed"
libdir=$(dirname "$(dirname "$pc")")
libdir_rel=${libdir#"$prefix"/}

# Exactly these files, nothing more (the static archive of the tests, for one,
# must stay out).
(cd "$prefix" && find . \( -type f -o -type l \) | sed 's|^\./||' | sort) >"$work/files"
config=$(sed -n 's|^.*/vardenluTargets-\(.*\)\.cmake$|\1|p' "$work/files")
[ -n "$config" ] || fail "no per-configuration targets file installed"
version=$(sed -n 's/^ *set(PACKAGE_VERSION "\([0-9.]*\)")$/\1/p' "$prefix/$libdir_rel/cmake/vardenlu/vardenluConfigVersion.cmake")
[ -n "$version" ] || fail "no version in vardenluConfigVersion.cmake"
major=${version%%.*}
minor=$(echo "$version" | cut -d. -f2)
sort >"$work/expected" <<EOF
bin/vlu-bench
include/vardenlu.h
$libdir_rel/cmake/vardenlu/vardenluConfig.cmake
$libdir_rel/cmake/vardenlu/vardenluConfigVersion.cmake
$libdir_rel/cmake/vardenlu/vardenluTargets.cmake
$libdir_rel/cmake/vardenlu/vardenluTargets-$config.cmake
$libdir_rel/libvardenlu.so
$libdir_rel/libvardenlu.so.$major
$libdir_rel/libvardenlu.so.$version
$libdir_rel/pkgconfig/vardenlu.pc
EOF
diff -u "$work/expected" "$work/files" || fail "installed files differ from the expected list"

# The development link and the SONAME.
[ "$(readlink "$libdir/libvardenlu.so")" = "libvardenlu.so.$major" ] || fail "libvardenlu.so link"
[ "$(readlink "$libdir/libvardenlu.so.$major")" = "libvardenlu.so.$version" ] || fail "SONAME link"
readelf -d "$libdir/libvardenlu.so.$version" | grep -q "(SONAME).*\[libvardenlu.so.$major\]" ||
  fail "SONAME is not libvardenlu.so.$major"
"$src/tests/check_exports.sh" "$libdir/libvardenlu.so.$version"

# Relocatable: no installed file names the build folder, the sources or the
# prefix it was installed to.
for path in "$build" "$src" "$work/stage"; do
  if grep -rlF "$path" "$prefix"; then fail "the files above name $path"; fi
done

# The header carries the version of the package.
header_version=$(awk '/#define VARDENLU_VERSION_(MAJOR|MINOR|PATCH) /{v = v sep $3; sep = "."} END {print v}' \
  "$prefix/include/vardenlu.h")
[ "$header_version" = "$version" ] || fail "header version $header_version, package version $version"

# The CMake package: the version rule is "same major version, not older".
# A copy of the tree that claims version 2.3.0 shows the rule across majors.
probe() {  # probe PREFIX VERSION -> prints 1 when find_package accepts it
  local dir
  dir=$(mktemp -d "$work/probe.XXXXXX")
  # shellcheck disable=SC2016  # the ${...} are CMake's
  printf 'cmake_minimum_required(VERSION 3.16)\nproject(p LANGUAGES NONE)\nfind_package(vardenlu %s QUIET NO_DEFAULT_PATH PATHS "%s")\nfile(WRITE "${CMAKE_BINARY_DIR}/found" "${vardenlu_FOUND}")\n' \
    "$2" "$1" >"$dir/CMakeLists.txt"
  cmake -S "$dir" -B "$dir/b" >/dev/null
  [ "$(cat "$dir/b/found")" = 1 ] && echo 1 || echo 0
}
expect_probe() {  # expect_probe PREFIX VERSION 0|1
  [ "$(probe "$1" "$2")" = "$3" ] || fail "find_package(vardenlu $2) gave $((1 - $3)) for $(basename "$1")"
}
expect_probe "$prefix" "$major" 1
expect_probe "$prefix" "$version" 1
expect_probe "$prefix" "$major.$((minor + 1))" 0
expect_probe "$prefix" "$((major + 1))" 0
cp -a "$prefix" "$work/future"
sed -i "s/\"$version\"/\"2.3.0\"/g" "$work/future/$libdir_rel/cmake/vardenlu/vardenluConfigVersion.cmake"
expect_probe "$work/future" 1 0
expect_probe "$work/future" 2 1
expect_probe "$work/future" 2.3 1
expect_probe "$work/future" 2.4 0
expect_probe "$work/future" 3 0

echo "== examples through find_package(vardenlu)"
cmake -S "$src/examples" -B "$work/with-cmake" -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_FLAGS="-Wall -Wextra -pedantic -Werror" >/dev/null
grep -qF "vardenlu_DIR:PATH=$libdir/cmake/vardenlu" "$work/with-cmake/CMakeCache.txt" ||
  fail "find_package did not take the package of $prefix"
cmake --build "$work/with-cmake" >/dev/null
"$work/with-cmake/vlu_example"
"$work/with-cmake/vlu_factor_solve_update"

echo "== examples through pkg-config"
export PKG_CONFIG_PATH="$libdir/pkgconfig"
[ "$(pkg-config --modversion vardenlu)" = "$version" ] || fail "pkg-config --modversion"
flags=$(pkg-config --cflags --libs vardenlu)
echo "pkg-config --cflags --libs vardenlu: $flags"
for prog in example factor_solve_update; do
  # shellcheck disable=SC2086
  "$cc" -std=c99 -Wall -Wextra -pedantic -Werror "$src/examples/$prog.c" $flags -o "$work/$prog"
done
out=$(LD_LIBRARY_PATH="$libdir" "$work/factor_solve_update")
echo "$out"
[ "$(echo "$out" | head -n1)" = "vardenlu $version" ] || fail "the program reports another version"
LD_LIBRARY_PATH="$libdir" "$work/example"
# The program really runs on the installed library.
LD_LIBRARY_PATH="$libdir" LD_TRACE_LOADED_OBJECTS=1 "$work/example" | grep -qF "$libdir/libvardenlu.so.$major" ||
  fail "the program does not load $libdir/libvardenlu.so.$major"

echo "consumer test passed: $version installed, found by CMake and by pkg-config"
