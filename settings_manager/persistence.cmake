# Records of one node and the tree/record conversion.
add_library(sm_records STATIC
  src/raw_setting.cpp
  src/raw_conversion.cpp
)
target_link_libraries(sm_records PUBLIC sm_values PRIVATE sm_warnings)

# The SQLite store of the records.
add_library(sm_db STATIC
  src/settings_db.cpp
  src/settings_db_check.cpp
  src/settings_db_encoding.cpp
  src/settings_db_change_log.cpp
  src/wal_write_lock.cpp
)
target_link_libraries(sm_db PUBLIC sm_records platform PRIVATE SQLite::SQLite3 sm_warnings)
