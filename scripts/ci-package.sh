#!/usr/bin/env bash
# What a device team receives, checked the way they meet it:
#   1. the API reference: doxygen over the installed headers, a warning fails;
#   2. the Debian package: a release build for /usr, `cpack -G DEB`, its control data
#      (dependencies on Debian's SQLite and fmt runtime packages) and its file list;
#   3. the package extracted with `dpkg -x` into a scratch root: the files where a user
#      expects them, settingsctl runs, every header compiles on its own, and the example
#      clients build against it through find_package and through pkg-config, and run.
# Run from anywhere; CI runs it from .ci/run. Output in build/package.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh

build=build/package
root="$PWD/$build/root"
passed=0
failed=0

check() {  # check DESCRIPTION COMMAND...: runs the command, counts and reports the outcome
  local what="$1"
  shift
  if "$@"; then
    passed=$((passed + 1))
  else
    failed=$((failed + 1))
    echo "FAILED: $what" >&2
  fi
}

multiarch="$(dpkg-architecture -qDEB_HOST_MULTIARCH)"
libdir="lib/$multiarch"

echo "== configure and build ($build, release, prefix /usr)"
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
  -DCMAKE_INSTALL_LIBDIR="$libdir" -DCMAKE_INSTALL_DOCDIR=share/doc/settings-manager \
  -DSM_BUILD_TESTS=OFF -DSM_BUILD_EXAMPLES=OFF -DSM_BUILD_BENCHMARKS=OFF >/dev/null

echo "== API reference (doxygen, warnings are errors)"
check "doxygen: every public declaration documented, no warning" \
  cmake --build "$build" --target docs
check "API reference written" test -s "$build/docs/html/index.html"

cmake --build "$build" -j "$(nproc)"

echo "== Debian package"
rm -f "$build"/*.deb
(cd "$build" && cpack -G DEB >/dev/null)
deb="$(ls "$build"/settings-manager_*.deb)"
echo "$deb"
dpkg-deb --info "$deb"
depends="$(dpkg-deb --field "$deb" Depends)"
check "depends on Debian's SQLite runtime" grep -Eq '(^|, )libsqlite3-0( |,|$)' <<<"$depends"
check "depends on Debian's fmt runtime" grep -Eq '(^|, )libfmt[0-9]+( |,|$)' <<<"$depends"
check "depends on the C++ runtime" grep -Eq '(^|, )libstdc\+\+6( |,|$)' <<<"$depends"
check "shlibs file for the library" sh -c "dpkg-deb --ctrl-tarfile '$deb' | tar -t | grep -q shlibs"

echo "== extracted into $root"
rm -rf "$root"
dpkg -x "$deb" "$root"
(cd "$root" && find . ! -type d | sort)
for file in \
  usr/include/settings_manager/settings_manager.h usr/include/settings_manager/interfaces.h \
  usr/include/settings_manager/platform/uvc/path.h \
  usr/include/settings_manager/platform/fdn/result_codes.h \
  "usr/$libdir/libsettings_manager.so.0" "usr/$libdir/libsettings_manager.so" \
  "usr/$libdir/cmake/settings_manager/settings_managerConfig.cmake" \
  "usr/$libdir/cmake/settings_manager/settings_managerConfigVersion.cmake" \
  "usr/$libdir/pkgconfig/settings_manager.pc" \
  usr/bin/settingsctl usr/share/doc/settings-manager/file-format.md; do
  check "installed: /$file" test -e "$root/$file"
done
check "the library file is versioned" test -f "$root/usr/$libdir/libsettings_manager.so.$(
  sed -n 's/^Version: //p' "$root/usr/$libdir/pkgconfig/settings_manager.pc")"
check "SONAME libsettings_manager.so.0" sh -c \
  "readelf -d '$root/usr/$libdir/libsettings_manager.so.0' | grep -q 'SONAME.*libsettings_manager.so.0'"
check "stripped library" sh -c "file -L '$root/usr/$libdir/libsettings_manager.so' | grep -q ', stripped'"
check "settingsctl finds the library relative to itself" sh -c \
  "readelf -d '$root/usr/bin/settingsctl' | grep -q 'RUNPATH.*\\[\\\$ORIGIN/../$libdir\\]'"
check "pkg-config file names /usr" grep -qx 'prefix=/usr' "$root/usr/$libdir/pkgconfig/settings_manager.pc"
unexpected="$(cd "$root/usr/include" && find . -type f | sed 's|^\./||' |
  grep -Ev '^settings_manager/([a-z_]+|platform/uvc/[a-z_]+|platform/fdn/result_codes|platform/tern/rtl/timestamp)\.h$' || true)"
check "no internal header installed${unexpected:+: $unexpected}" test -z "$unexpected"

echo "== settingsctl from the package"
export LD_LIBRARY_PATH="$root/usr/$libdir"
check "settingsctl --version" "$root/usr/bin/settingsctl" --version

echo "== every installed header on its own"
for header in $(cd "$root/usr/include" && find . -name '*.h' | sed 's|^\./||' | sort); do
  check "header $header compiles alone" sh -c "printf '#include <%s>\n' '$header' |
    c++ -std=c++17 -Wall -Wextra -Wpedantic -Wshadow -Werror -I'$root/usr/include' \
    -I'$root/usr/include/settings_manager/platform' -fsyntax-only -x c++ -"
done

echo "== example clients against the package"
clients="$PWD/$build/clients"
rm -rf "$clients"
mkdir -p "$clients/pkg-config"
check "find_package build" sh -c "cmake -S examples/consumer -B '$clients/cmake' -G Ninja \
    -DCMAKE_PREFIX_PATH='$root/usr' -DCMAKE_CXX_FLAGS='-Wall -Wextra -Werror' >/dev/null &&
  cmake --build '$clients/cmake' >/dev/null"
check "pkg-config build" env PKG_CONFIG_PATH="$root/usr/$libdir/pkgconfig" \
  make -s -C "$clients/pkg-config" -f "$PWD/examples/consumer/Makefile" \
  "PKG_CONFIG=pkg-config --define-variable=prefix=$root/usr"
for dir in "$clients/cmake" "$clients/pkg-config"; do
  check "$dir/hello runs" sh -c "'$dir/hello' '$dir/hello.db' | grep -q 'network/port = 8080'"
  check "$dir/consumer runs" sh -c "'$dir/consumer' '$dir/consumer.db' | grep -q 'consumer: ok'"
done

echo "package checks: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
