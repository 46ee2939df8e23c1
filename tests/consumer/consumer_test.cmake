# One step of the consumer test; run by CTest as `cmake -D... -DSTEP=<step> -P` (see
# CMakeLists.txt beside this file for the variables).
#
#   install       installs BUILD_TREE into PREFIX, afresh, and checks that no internal
#                 header came along
#   find_package  configures examples/consumer with CMake against PREFIX, builds the
#                 consumer and runs it
#   pkg_config    builds the consumer and the README's client (hello) with their Makefile
#                 and pkg-config, runs both, and compiles every installed header against
#                 the installed tree
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
  expect("${out}" "consumer: ok")
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
  foreach(file include/settings_manager/settings_manager.h include/uvc/path.h
               include/fdn/result_codes.h include/tern/rtl/timestamp.h
               ${LIBDIR}/libsettings_manager.so ${LIBDIR}/pkgconfig/settings_manager.pc
               ${LIBDIR}/cmake/settings_manager/settings_managerConfig.cmake)
    if(NOT EXISTS "${PREFIX}/${file}")
      message(FATAL_ERROR "not installed: ${file}")
    endif()
  endforeach()
  # Only the public headers and the platform headers that they include.
  file(GLOB_RECURSE headers RELATIVE "${PREFIX}/include" "${PREFIX}/include/*")
  foreach(header IN LISTS headers)
    if(NOT header MATCHES "^(settings_manager|uvc)/[a-z_]+\\.h$"
       AND NOT header MATCHES "^(fdn/result_codes|tern/rtl/timestamp)\\.h$")
      message(FATAL_ERROR "an internal or unexpected header is installed: include/${header}")
    endif()
  endforeach()

elseif(STEP STREQUAL "find_package")
  set(dir "${WORK}/find_package")
  file(REMOVE_RECURSE "${dir}")
  list(JOIN warnings " " flags)
  run(COMMAND "${CMAKE_COMMAND}" -S "${example}" -B "${dir}" -G "${GENERATOR}"
              "-DCMAKE_CXX_COMPILER=${CXX}" -DCMAKE_BUILD_TYPE=
              "-DCMAKE_CXX_FLAGS=${flags}" "-DCMAKE_PREFIX_PATH=${PREFIX}")
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
  expect("${flags}" "-I${PREFIX}/include")
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
