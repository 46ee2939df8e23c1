# The Debian package: `cpack -G DEB` in a build directory gives
# settings-manager_<version>_<arch>.deb with everything `cmake --install` installs (the
# library, headers, CMake and pkg-config files, settingsctl, the docs). Configure that
# build with -DCMAKE_INSTALL_PREFIX=/usr so that the library lands in Debian's multiarch
# folder (/usr/lib/<triplet>); scripts/ci-package.sh builds and checks it.
#
# Runtime dependencies (libsqlite3-0, libfmt9, libstdc++6, libc6, ...) are worked out
# from the binaries by dpkg-shlibdeps; building against the headers also needs the -dev
# packages of fmt (the headers include it) and, for find_package, of SQLite: those are
# recommended, so that a device image can take the library alone.

set(CPACK_PACKAGE_NAME "settings-manager")
set(CPACK_PACKAGE_VENDOR "libsettings_manager developers")
set(CPACK_PACKAGE_CONTACT "libsettings_manager developers <settings-manager@localhost>")
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
  "typed hierarchical device settings kept in SQLite, with change observers")
string(JOIN "\n" CPACK_PACKAGE_DESCRIPTION
  "libsettings_manager keeps the configuration settings of a device's programs"
  "in one tree of typed values (maps, lists, booleans, integers, doubles,"
  "timestamps, strings and byte strings), mirrors every node in an SQLite file"
  "and tells subscribed observers what changed."
  ""
  "This package holds the shared library, its headers, CMake and pkg-config"
  "files, and the settingsctl command-line tool.")
set(CPACK_RESOURCE_FILE_README "${PROJECT_SOURCE_DIR}/README.md")
set(CPACK_PACKAGING_INSTALL_PREFIX "/usr")
# Install rules run with CMAKE_INSTALL_PREFIX=/usr into a DESTDIR staging folder, so that
# files written at install time (the pkg-config file) name /usr, not the staging folder.
set(CPACK_SET_DESTDIR ON)
set(CPACK_STRIP_FILES ON)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION "libs")
set(CPACK_DEBIAN_PACKAGE_PRIORITY "optional")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# settingsctl needs libsettings_manager.so.0, which this very package brings: found in
# the staging folder (dpkg-shlibdeps runs at its top, so the folder is relative).
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  string(REGEX REPLACE "^/+" "" sm_staged_libdir "${CMAKE_INSTALL_LIBDIR}")
else()
  string(REGEX REPLACE "^/+" "" sm_staged_libdir "${CPACK_PACKAGING_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}")
endif()
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${sm_staged_libdir}")
# A shlibs file and the ldconfig trigger for the library.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "libfmt-dev (>= 9), libsqlite3-dev, pkg-config")

set(CPACK_GENERATOR "DEB")
set(CPACK_SOURCE_GENERATOR "TGZ")
set(CPACK_SOURCE_IGNORE_FILES "/build/" "/build-.*/" "/\\\\.git/" "\\\\.db$" "\\\\.db-wal$" "\\\\.db-shm$")

include(CPack)
