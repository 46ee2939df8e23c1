# What `cmake --install` puts in place, and the Debian package made from it.
#
#   <prefix>/include/settings_manager/, include/uvc/   the public headers
#   <prefix>/include/fdn/result_codes.h, include/tern/rtl/timestamp.h
#                                       the platform headers that the public ones include
#   <prefix>/<libdir>/libsettings_manager.so.X.Y.Z, .so.X, .so
#   <prefix>/<libdir>/cmake/settings_manager/          find_package(settings_manager)
#   <prefix>/<libdir>/pkgconfig/settings_manager.pc    pkg-config settings_manager
#   <prefix>/bin/settingsctl                           when the tool is built
#   <prefix>/share/doc/settings_manager/               README.md, file-format.md
#
# Components: "runtime" (the versioned library and settingsctl) and "development"
# (headers, the unversioned link, the CMake and pkg-config files).

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(SM_INSTALL_CMAKEDIR "${CMAKE_INSTALL_LIBDIR}/cmake/settings_manager")

# The platform headers an installed header includes: nothing else of platform/ is
# public. The consumer test compiles the installed headers against the installed tree
# alone (scripts/ci-package.sh each one on its own), so a missing one here fails there.
set(SM_INSTALL_PLATFORM_HEADERS
  fdn/result_codes.h
  tern/rtl/timestamp.h
)

# The public headers need C++17; the exported target tells the client's build so.
target_compile_features(settings_manager PUBLIC cxx_std_17)
target_include_directories(settings_manager PUBLIC
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)

install(TARGETS settings_manager
  EXPORT settings_manager_targets
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
    COMPONENT runtime
    NAMELINK_COMPONENT development)

install(DIRECTORY
    "${PROJECT_SOURCE_DIR}/include/settings_manager"
    "${PROJECT_SOURCE_DIR}/include/uvc"
  DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}"
  COMPONENT development
  FILES_MATCHING PATTERN "*.h")

install(FILES "${PROJECT_BINARY_DIR}/include/settings_manager/version.h"
  DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/settings_manager"
  COMPONENT development)

foreach(header IN LISTS SM_INSTALL_PLATFORM_HEADERS)
  get_filename_component(subdir "${header}" DIRECTORY)
  install(FILES "${PROJECT_SOURCE_DIR}/platform/include/${header}"
    DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/${subdir}"
    COMPONENT development)
endforeach()

if(TARGET settingsctl)
  install(TARGETS settingsctl RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT runtime)
endif()

install(FILES "${PROJECT_SOURCE_DIR}/README.md" "${PROJECT_SOURCE_DIR}/docs/file-format.md"
  DESTINATION "${CMAKE_INSTALL_DOCDIR}"
  COMPONENT development)

# CMake package: settings_manager::settings_manager, relocatable (paths relative to the
# config file), with its dependencies found for the client.
install(EXPORT settings_manager_targets
  NAMESPACE settings_manager::
  FILE settings_managerTargets.cmake
  DESTINATION "${SM_INSTALL_CMAKEDIR}"
  COMPONENT development)

configure_package_config_file(
  "${PROJECT_SOURCE_DIR}/cmake/settings_managerConfig.cmake.in"
  "${PROJECT_BINARY_DIR}/cmake/settings_managerConfig.cmake"
  INSTALL_DESTINATION "${SM_INSTALL_CMAKEDIR}")
# Same promise as the library file's name (SOVERSION is the major number): a client asking
# for 0.1 takes any later 0.y, never 1.0 (README.md, "Versions and compatibility").
write_basic_package_version_file(
  "${PROJECT_BINARY_DIR}/cmake/settings_managerConfigVersion.cmake"
  COMPATIBILITY SameMajorVersion)
install(FILES
  "${PROJECT_BINARY_DIR}/cmake/settings_managerConfig.cmake"
  "${PROJECT_BINARY_DIR}/cmake/settings_managerConfigVersion.cmake"
  DESTINATION "${SM_INSTALL_CMAKEDIR}"
  COMPONENT development)

# pkg-config file. Its prefix is the one the install actually uses (`--prefix`, or the
# package's /usr), so it is written at install time; DESTDIR staging is not part of it.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(SM_PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
else()
  set(SM_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
endif()
if(IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  set(SM_PC_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}")
else()
  set(SM_PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
endif()
set(SM_PC_PREFIX "@SM_PC_PREFIX@")  # kept for the install-time pass
configure_file("${PROJECT_SOURCE_DIR}/cmake/settings_manager.pc.in"
  "${PROJECT_BINARY_DIR}/cmake/settings_manager.pc.in" @ONLY)
install(CODE "
  set(SM_PC_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
  configure_file(\"${PROJECT_BINARY_DIR}/cmake/settings_manager.pc.in\"
                 \"${PROJECT_BINARY_DIR}/cmake/settings_manager.pc\" @ONLY)
  " COMPONENT development)
install(FILES "${PROJECT_BINARY_DIR}/cmake/settings_manager.pc"
  DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig"
  COMPONENT development)

include("${CMAKE_CURRENT_LIST_DIR}/packaging.cmake")
include("${CMAKE_CURRENT_LIST_DIR}/docs.cmake")
