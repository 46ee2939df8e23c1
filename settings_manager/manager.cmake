# The manager: client operations, start-up, subscriptions and event delivery.
add_library(sm_manager STATIC
  src/settings_manager.cpp
  src/settings_manager_operations.cpp
  src/settings_manager_events.cpp
  src/settings_manager_subscriptions.cpp
  src/settings_manager_tree_access.cpp
  src/stored_tree.cpp
  src/tree_diff.cpp
  src/failure.cpp
  src/settings_manager_coherence.cpp
)
target_link_libraries(sm_manager PUBLIC sm_db Threads::Threads PRIVATE sm_warnings)

# Everything of the library, for tests and benchmarks that reach internals.
add_library(settings_manager_core INTERFACE)
target_link_libraries(settings_manager_core INTERFACE sm_manager)

# The shared library a device program links: exports only the public API.
add_library(settings_manager SHARED src/product_name.cpp
  $<TARGET_OBJECTS:sm_values> $<TARGET_OBJECTS:sm_records> $<TARGET_OBJECTS:sm_db>
  $<TARGET_OBJECTS:sm_manager> $<TARGET_OBJECTS:platform>)
add_library(settings_manager::settings_manager ALIAS settings_manager)
target_compile_definitions(settings_manager PRIVATE "SM_PRODUCT_NAME=\"${SM_PRODUCT_NAME}\"")
# Where the headers are once installed: cmake/install.cmake.
target_include_directories(settings_manager PUBLIC
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
  $<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/include>
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/platform/include>)
target_link_libraries(settings_manager
  PUBLIC fmt::fmt
  PRIVATE
    SQLite::SQLite3 Threads::Threads sm_warnings)
target_link_options(settings_manager PRIVATE
  "LINKER:--version-script=${CMAKE_CURRENT_SOURCE_DIR}/exports.map"
  "LINKER:--no-undefined")
set_target_properties(settings_manager PROPERTIES
  VERSION ${PROJECT_VERSION}
  SOVERSION ${PROJECT_VERSION_MAJOR}
  LINK_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/exports.map)
