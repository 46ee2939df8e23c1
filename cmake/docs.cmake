# The API reference: `cmake --build <build dir> --target docs` runs doxygen (Debian's
# doxygen package) on docs/Doxyfile and writes <build dir>/docs/html/index.html. A
# warning, such as an undocumented public declaration, fails the target.
find_package(Doxygen QUIET)
if(DOXYGEN_FOUND)
  add_custom_target(docs
    COMMAND "${CMAKE_COMMAND}" -E rm -rf "${PROJECT_BINARY_DIR}/docs/html"
    COMMAND "${CMAKE_COMMAND}" -E make_directory "${PROJECT_BINARY_DIR}/docs"
    COMMAND "${CMAKE_COMMAND}" -E env "SM_DOCS_OUTPUT=${PROJECT_BINARY_DIR}/docs"
            "SM_VERSION=${PROJECT_VERSION}"
            "SM_BUILD_INCLUDE=${PROJECT_BINARY_DIR}/include" "${DOXYGEN_EXECUTABLE}" docs/Doxyfile
    WORKING_DIRECTORY "${PROJECT_SOURCE_DIR}"
    COMMENT "API reference: ${PROJECT_BINARY_DIR}/docs/html/index.html"
    VERBATIM)
endif()
