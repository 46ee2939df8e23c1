# One step of the consumer test; run by CTest as `cmake -D... -DSTEP=<step> -P` (see
# CMakeLists.txt beside this file for the variables).
#
#   install       installs BUILD_TREE into PREFIX, afresh, and checks that every header
#                 is in our own folder and no internal one came along
#   find_package  configures examples/consumer with CMake against PREFIX (with SQLite's
#                 CMake files out of reach: a client does not need them), builds the
#                 consumer and runs it
#   pkg_config    builds the consumer and the README's client (hello) with their Makefile
#                 and pkg-config, runs both, and compiles every installed header against
#                 the installed tree
#   tool          runs the installed settingsctl with no LD_LIBRARY_PATH (it finds the
#                 library relative to itself), and checks its man page and completion
#   readme        checks that README.md shows examples/consumer/hello.cpp as it is

cmake_minimum_required(VERSION 3.25)

set(example "${SOURCE_TREE}/examples/consumer")
set(warnings -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Werror)

function(run)
  cmake_parse_arguments(ARG "" "WORKING_DIRECTORY;OUTPUT" "COMMAND" ${ARGN})
  if(NOT ARG_WORKING_DIRECTORY)
    set(ARG_WORKING_DIRECTORY "${WORK}")
  endif()
  list(JOIN ARG_COMMAND " " shown)
  message(STATUS "$ ${shown}")
  execute_process(COMMAND ${ARG_COMMAND}
    WORKING_DIRECTORY "${ARG_WORKING_DIRECTORY}"
    OUTPUT_VARIABLE out ERROR_VARIABLE out RESULT_VARIABLE rc)
  message("${out}")
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${shown}")
  endif()
  if(ARG_OUTPUT)
    set(${ARG_OUTPUT} "${out}" PARENT_SCOPE)
  endif()
endfunction()

function(expect text pattern)
  if(NOT text MATCHES "${pattern}")
    message(FATAL_ERROR "expected output matching '${pattern}'")
  endif()
endfunction()

# Runs the consumer from `dir` on a fresh database there: it creates, reads and watches.
function(run_consumer dir)
  file(REMOVE "${dir}/consumer.db" "${dir}/consumer.db-wal" "${dir}/consumer.db-shm")
  run(COMMAND "${dir}/consumer" "${dir}/consumer.db" WORKING_DIRECTORY "${dir}" OUTPUT out)
  expect("${out}" "observer told: device/port/ changed")
  expect("${out}" "reopened: device/port/ = 8081")
  expect("${out}" "consumer: ok, built against libsettings_manager ${VERSION}\n")
endfunction()

# Runs the README's client from `dir` on a fresh database there.
function(run_hello dir)
  file(REMOVE "${dir}/hello.db" "${dir}/hello.db-wal" "${dir}/hello.db-shm")
  run(COMMAND "${dir}/hello" "${dir}/hello.db" WORKING_DIRECTORY "${dir}" OUTPUT out)
  expect("${out}" "network/port = 8080")
endfunction()

if(STEP STREQUAL "install")
  file(REMOVE_RECURSE "${PREFIX}")
  run(COMMAND "${CMAKE_COMMAND}" --install "${BUILD_TREE}" --prefix "${PREFIX}")
  foreach(file include/settings_manager/settings_manager.h
               include/settings_manager/version.h
               include/settings_manager/platform/uvc/path.h
               include/settings_manager/platform/fdn/result_codes.h
               include/settings_manager/platform/tern/rtl/timestamp.h
               ${LIBDIR}/libsettings_manager.so ${LIBDIR}/pkgconfig/settings_manager.pc
               ${LIBDIR}/cmake/settings_manager/settings_managerConfig.cmake
               bin/settingsctl share/man/man1/settingsctl.1
               share/bash-completion/completions/settingsctl)
    if(NOT EXISTS "${PREFIX}/${file}")
      message(FATAL_ERROR "not installed: ${file}")
    endif()
  endforeach()
  # Only the public headers and the platform headers that they include, all in our folder.
  file(GLOB_RECURSE headers RELATIVE "${PREFIX}/include" "${PREFIX}/include/*")
  foreach(header IN LISTS headers)
    if(NOT header MATCHES "^settings_manager/([a-z_]+|platform/uvc/[a-z_]+)\\.h$"
       AND NOT header MATCHES "^settings_manager/platform/(fdn/result_codes|tern/rtl/timestamp)\\.h$")
      message(FATAL_ERROR "an internal or unexpected header is installed: include/${header}")
    endif()
  endforeach()

elseif(STEP STREQUAL "find_package")
  set(dir "${WORK}/find_package")
  file(REMOVE_RECURSE "${dir}")
  list(JOIN warnings " " flags)
  run(COMMAND "${CMAKE_COMMAND}" -S "${example}" -B "${dir}" -G "${GENERATOR}" --no-warn-unused-cli
              "-DCMAKE_CXX_COMPILER=${CXX}" -DCMAKE_BUILD_TYPE=
              "-DCMAKE_CXX_FLAGS=${flags}" "-DCMAKE_PREFIX_PATH=${PREFIX}"
              -DCMAKE_DISABLE_FIND_PACKAGE_SQLite3=ON)
  # The package must come from the prefix, not from a copy installed elsewhere.
  file(STRINGS "${dir}/CMakeCache.txt" found REGEX "^settings_manager_DIR:")
  if(NOT found MATCHES "=${PREFIX}/")
    message(FATAL_ERROR "find_package used another settings_manager: ${found}")
  endif()
  # The README's client is built by the pkg-config step; one build of it is enough.
  run(COMMAND "${CMAKE_COMMAND}" --build "${dir}" --target consumer)
  run_consumer("${dir}")

elseif(STEP STREQUAL "pkg_config")
  if(NOT PKG_CONFIG OR NOT MAKE)
    message(FATAL_ERROR "pkg-config and make are needed (scripts/setup.sh installs them)")
  endif()
  set(dir "${WORK}/pkg_config")
  file(REMOVE_RECURSE "${dir}")
  file(MAKE_DIRECTORY "${dir}")
  set(ENV{PKG_CONFIG_PATH} "${PREFIX}/${LIBDIR}/pkgconfig")
  run(COMMAND "${PKG_CONFIG}" --cflags --libs settings_manager OUTPUT flags)
  expect("${flags}" "-I${PREFIX}/include -I${PREFIX}/include/settings_manager/platform")
  list(JOIN warnings " " cxxflags)
  run(COMMAND "${MAKE}" -f "${example}/Makefile" "CXX=${CXX}" "CXXFLAGS=-O0 ${cxxflags}"
      WORKING_DIRECTORY "${dir}")
  set(ENV{LD_LIBRARY_PATH} "${PREFIX}/${LIBDIR}")
  run_consumer("${dir}")
  run_hello("${dir}")

  # Every installed header compiles with only the installed tree to draw on (one
  # translation unit, to stay quick; scripts/ci-package.sh compiles each one alone).
  run(COMMAND "${PKG_CONFIG}" --cflags settings_manager OUTPUT cflags)
  separate_arguments(cflags UNIX_COMMAND "${cflags}")
  file(GLOB_RECURSE headers RELATIVE "${PREFIX}/include" "${PREFIX}/include/*.h")
  set(all "")
  foreach(header IN LISTS headers)
    string(APPEND all "#include <${header}>\n")
  endforeach()
  file(WRITE "${dir}/all_headers.cpp" "${all}")
  run(COMMAND "${CXX}" -std=c++17 ${warnings} ${cflags} -fsyntax-only "${dir}/all_headers.cpp")

elseif(STEP STREQUAL "tool")
  set(tool "${PREFIX}/bin/settingsctl")
  unset(ENV{LD_LIBRARY_PATH})
  # The library it loads is the prefix's own, whatever else the system has.
  run(COMMAND ldd "${tool}" OUTPUT loaded)
  string(FIND "${loaded}" "libsettings_manager.so.0 => ${PREFIX}/bin/../${LIBDIR}/" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "settingsctl does not load the library from ${PREFIX}")
  endif()
  file(REMOVE "${WORK}/tool.db")
  run(COMMAND "${tool}" --db "${WORK}/tool.db" create net/port 8080 --type uint16)
  run(COMMAND "${tool}" --db "${WORK}/tool.db" get net/port OUTPUT out)
  expect("${out}" "^8080\n")

  # The man page has a part for every verb the tool lists.
  run(COMMAND "${tool}" --help OUTPUT help)
  string(REGEX MATCH "\nSubcommands:\n(  [^\n]*\n)+" listed "${help}")
  string(REGEX MATCHALL "\n  [a-z][a-z0-9-]*" verbs "${listed}")
  file(READ "${PREFIX}/share/man/man1/settingsctl.1" page)
  foreach(verb IN LISTS verbs)
    string(STRIP "${verb}" verb)
    expect("${page}" "\n\\.SS ${verb}\n")
  endforeach()

  # Completion as bash asks for it: "the words up to the cursor|the replies, sorted".
  set(completion "${PREFIX}/share/bash-completion/completions/settingsctl")
  foreach(case "im|import" "--db ${WORK}/tool.db im|import" "get --d|--db"
               "create --type uint|uint16 uint32 uint64 uint8"
               "create --from ${WORK}/tool.d|${WORK}/tool.db"
               "import --at a ${WORK}/tool.d|${WORK}/tool.db")
    string(REPLACE "|" ";" case "${case}")
    list(GET case 0 words)
    list(GET case 1 replies)
    run(COMMAND bash -c "source \"$1\" || exit
          COMP_WORDS=(\"$2\" $3)
          COMP_CWORD=$((\${#COMP_WORDS[@]} - 1))
          _settingsctl
          printf '%s\\n' \"\${COMPREPLY[@]}\" | LC_ALL=C sort | paste -sd ' '"
          completion "${completion}" "${tool}" "${words}"
        OUTPUT out)
    expect("${out}" "^${replies}\n")
  endforeach()

elseif(STEP STREQUAL "readme")
  file(READ "${SOURCE_TREE}/README.md" readme)
  file(READ "${example}/hello.cpp" hello)
  string(FIND "${readme}" "${hello}" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "README.md does not show examples/consumer/hello.cpp as it is: "
                        "copy the file into the README's client example")
  endif()

else()
  message(FATAL_ERROR "unknown STEP '${STEP}'")
endif()
