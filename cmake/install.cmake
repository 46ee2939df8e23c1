# What `cmake --install` puts in place; debian/ makes the Debian packages from it.
#
#   <prefix>/include/settings_manager/          the public headers, version.h among them
#   <prefix>/include/settings_manager/platform/ uvc/, fdn/result_codes.h,
#                                               tern/rtl/timestamp.h: the headers the
#                                               public ones include, in a folder of our own
#   <prefix>/<libdir>/libsettings_manager.so.X.Y.Z, .so.X, .so
#   <prefix>/<libdir>/cmake/settings_manager/   find_package(settings_manager)
#   <prefix>/<libdir>/pkgconfig/settings_manager.pc
#   <prefix>/bin/settingsctl                    when the tool is built
#   <prefix>/share/doc/settings_manager/        README.md, file-format.md, LICENSE
#
# Components: "runtime" (the versioned library), "development" (headers, the unversioned
# link, the CMake and pkg-config files, the docs) and "tool" (settingsctl).

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(SM_INSTALL_CMAKEDIR "${CMAKE_INSTALL_LIBDIR}/cmake/settings_manager")
# The public headers include "uvc/path.h", "fdn/result_codes.h": generic top-level names
# that other packages could own, so they live under our folder, and clients get that
# folder on their include path from the CMake package and from the .pc file.
set(SM_INSTALL_PLATFORM_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}/settings_manager/platform")

# The platform headers an installed header includes: nothing else of platform/ is public.
# The consumer test compiles the installed headers against the installed tree alone, so a
# missing one here fails there.
set(SM_INSTALL_PLATFORM_HEADERS
  fdn/result_codes.h
  tern/rtl/timestamp.h
)

# The public headers need C++17; the exported target tells the client's build so.
target_compile_features(settings_manager PUBLIC cxx_std_17)
target_include_directories(settings_manager PUBLIC
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>
  $<INSTALL_INTERFACE:${SM_INSTALL_PLATFORM_INCLUDEDIR}>)

install(TARGETS settings_manager
  EXPORT settings_manager_targets
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
    COMPONENT runtime
    NAMELINK_COMPONENT development)

install(DIRECTORY "${PROJECT_SOURCE_DIR}/include/settings_manager"
  DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}"
  COMPONENT development
  FILES_MATCHING PATTERN "*.h")
install(FILES "${PROJECT_BINARY_DIR}/include/settings_manager/version.h"
  DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/settings_manager"
  COMPONENT development)
install(DIRECTORY "${PROJECT_SOURCE_DIR}/include/uvc"
  DESTINATION "${SM_INSTALL_PLATFORM_INCLUDEDIR}"
  COMPONENT development
  FILES_MATCHING PATTERN "*.h")
foreach(header IN LISTS SM_INSTALL_PLATFORM_HEADERS)
  get_filename_component(subdir "${header}" DIRECTORY)
  install(FILES "${PROJECT_SOURCE_DIR}/platform/include/${header}"
    DESTINATION "${SM_INSTALL_PLATFORM_INCLUDEDIR}/${subdir}"
    COMPONENT development)
endforeach()

install(FILES "${PROJECT_SOURCE_DIR}/README.md" "${PROJECT_SOURCE_DIR}/docs/file-format.md"
  "${PROJECT_SOURCE_DIR}/LICENSE"
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
foreach(dir LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${dir}}")
    set(SM_PC_${dir} "${CMAKE_INSTALL_${dir}}")
  else()
    set(SM_PC_${dir} "\${prefix}/${CMAKE_INSTALL_${dir}}")
  endif()
endforeach()
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

if(TARGET settingsctl)
  include("${CMAKE_CURRENT_LIST_DIR}/settingsctl_install.cmake")
endif()

include("${CMAKE_CURRENT_LIST_DIR}/docs.cmake")
