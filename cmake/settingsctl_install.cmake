# settingsctl installed: the tool, its man page and its bash completion.
#
#   <prefix>/bin/settingsctl
#   <prefix>/share/man/man1/settingsctl.1
#   <prefix>/share/bash-completion/completions/settingsctl

# The tool finds the library relative to its own folder, so it starts from any prefix
# (an unpacked package, /opt/...) without LD_LIBRARY_PATH; in /usr that is the system's
# library folder anyway.
file(RELATIVE_PATH sm_bin_to_lib "${CMAKE_INSTALL_FULL_BINDIR}" "${CMAKE_INSTALL_FULL_LIBDIR}")
set_target_properties(settingsctl PROPERTIES INSTALL_RPATH "$ORIGIN/${sm_bin_to_lib}")
install(TARGETS settingsctl RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT tool)

install(FILES "${PROJECT_SOURCE_DIR}/tools/settingsctl/settingsctl.bash-completion"
  DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions"
  RENAME settingsctl
  COMPONENT tool)

# The man page is written from the tool's --help by help2man (Debian's help2man package).
# Sanitizer builds are never installed, and their tool would run under the sanitizer.
find_program(SM_HELP2MAN help2man)
if(NOT SM_SANITIZER STREQUAL "")
  return()
elseif(NOT SM_HELP2MAN)
  message(WARNING "help2man not found (scripts/setup.sh installs it): no settingsctl man page")
  return()
endif()
set(sm_man_page "${PROJECT_BINARY_DIR}/man/settingsctl.1")
set(sm_man_script "${PROJECT_SOURCE_DIR}/tools/settingsctl/man_page.cmake")
add_custom_command(OUTPUT "${sm_man_page}"
  COMMAND "${CMAKE_COMMAND}" "-DTOOL=$<TARGET_FILE:settingsctl>" "-DHELP2MAN=${SM_HELP2MAN}"
          "-DVERSION=${PROJECT_VERSION}" "-DOUTPUT=${sm_man_page}" -P "${sm_man_script}"
  DEPENDS settingsctl "${sm_man_script}"
  COMMENT "settingsctl man page from its help"
  VERBATIM)
add_custom_target(settingsctl_man_page ALL DEPENDS "${sm_man_page}")
install(FILES "${sm_man_page}" DESTINATION "${CMAKE_INSTALL_MANDIR}/man1" COMPONENT tool)
