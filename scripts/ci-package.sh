#!/usr/bin/env bash
# What a device team receives, checked the way they meet it:
#   1. the API reference: doxygen over the installed headers, a warning fails;
#   2. the Debian packages (debian/): `dpkg-buildpackage -b` on a copy of the source tree
#      as a clean checkout has it, then lintian on them: no error, no warning;
#   3. the packages unpacked with `dpkg -x` into one scratch root, for what lintian cannot
#      see: settingsctl runs from there on the root's library, every header compiles on
#      its own, and the example clients build against the root through find_package
#      (with SQLite's CMake files out of reach) and through pkg-config, and run.
# Run from anywhere; CI runs it from .ci/run. Output in build/package.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh package

build="$PWD/build/package"
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

echo "== API reference (doxygen, warnings are errors)"
cmake -S . -B "$build/docs" -G Ninja -DSM_BUILD_TESTS=OFF -DSM_BUILD_EXAMPLES=OFF \
  -DSM_BUILD_BENCHMARKS=OFF -DSM_BUILD_TOOLS=OFF >/dev/null
check "doxygen: every public declaration documented, no warning" \
  cmake --build "$build/docs" --target docs
check "API reference written" test -s "$build/docs/docs/html/index.html"

echo "== Debian packages (dpkg-buildpackage -us -uc -b)"
version="$(dpkg-parsechangelog -S Version)"
arch="$(dpkg-architecture -qDEB_HOST_ARCH)"
multiarch="$(dpkg-architecture -qDEB_HOST_MULTIARCH)"
libdir="usr/lib/$multiarch"
src="$build/src/settings-manager-$version"
rm -rf "$build/src"
mkdir -p "$src"
# The working tree's tracked and new files: what a clean checkout of it would hold.
git ls-files -z --cached --others --exclude-standard |
  tar -c --null --ignore-failed-read -T - 2>/dev/null | tar -x -C "$src"
if ! (cd "$src" && DEB_BUILD_OPTIONS="parallel=$(nproc)" dpkg-buildpackage -us -uc -b) \
  >"$build/dpkg-buildpackage.log" 2>&1; then
  tail -20 "$build/dpkg-buildpackage.log"
  echo "dpkg-buildpackage failed: $build/dpkg-buildpackage.log" >&2
  exit 1
fi
(cd "$build/src" && ls ./*.deb)

echo "== lintian"
check "lintian: no error, no warning" \
  lintian --fail-on error,warning "$build/src/settings-manager_${version}_$arch.changes"

echo "== unpacked into one scratch root"
root="$build/root"
rm -rf "$root"
for package in libsettings-manager0 libsettings-manager-dev settingsctl; do
  dpkg -x "$build/src/${package}_${version}_$arch.deb" "$root"
done
(cd "$root" && find . ! -type d | sort)
pc="$root/$libdir/pkgconfig/settings_manager.pc"
check "debian/changelog names the project's version" \
  test "$(sed -n 's/^Version: //p' "$pc")" = "$version"
check "pkg-config file names /usr" grep -qx 'prefix=/usr' "$pc"
check "every header in our own folder" test "$(ls "$root/usr/include")" = settings_manager

echo "== settingsctl from the root, without LD_LIBRARY_PATH"
tool="$root/usr/bin/settingsctl"
unset LD_LIBRARY_PATH
check "settingsctl loads the root's library" sh -c \
  "ldd '$tool' | grep -q 'libsettings_manager.so.0 => $root/usr/bin/../lib/$multiarch/'"
rm -f "$build/tool.db"
check "settingsctl creates and reads a setting" sh -c \
  "'$tool' --db '$build/tool.db' create net/port 8080 --type uint16 >/dev/null &&
   test \"\$('$tool' --db '$build/tool.db' get net/port)\" = 8080"

echo "== every installed header on its own"
cflags="$(PKG_CONFIG_PATH="${pc%/*}" pkg-config --define-variable=prefix="$root/usr" --cflags settings_manager)"
for header in $(cd "$root/usr/include" && find . -name '*.h' | sed 's|^\./||' | sort); do
  check "header $header compiles alone" sh -c "printf '#include <%s>\n' '$header' |
    c++ -std=c++17 -Wall -Wextra -Wpedantic -Wshadow -Werror $cflags -fsyntax-only -x c++ -"
done

echo "== example clients against the root"
clients="$build/clients"
rm -rf "$clients"
mkdir -p "$clients/pkg-config"
check "find_package build, SQLite's CMake files out of reach" sh -c \
  "cmake -S examples/consumer -B '$clients/cmake' -G Ninja --no-warn-unused-cli \
     -DCMAKE_PREFIX_PATH='$root/usr' \
     -DCMAKE_DISABLE_FIND_PACKAGE_SQLite3=ON -DCMAKE_CXX_FLAGS='-Wall -Wextra -Werror' >/dev/null &&
   cmake --build '$clients/cmake' >/dev/null"
check "pkg-config build" env PKG_CONFIG_PATH="${pc%/*}" \
  make -s -C "$clients/pkg-config" -f "$PWD/examples/consumer/Makefile" \
  "PKG_CONFIG=pkg-config --define-variable=prefix=$root/usr"
for dir in "$clients/cmake" "$clients/pkg-config"; do
  export LD_LIBRARY_PATH="$root/$libdir"  # the pkg-config clients have no RUNPATH
  check "$dir/hello runs" sh -c "'$dir/hello' '$dir/hello.db' | grep -q 'network/port = 8080'"
  check "$dir/consumer runs" sh -c "'$dir/consumer' '$dir/consumer.db' |
    grep -qx 'consumer: ok, built against libsettings_manager $version'"
done

echo "package checks: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
