#pragma once

// The statements of the settings store, run exactly as written: files written by other
// builds of the library were made with these.

#include <string_view>

namespace settings_db::statements {

constexpr std::string_view kCreateData =
    " CREATE TABLE data (   path    TEXT NOT NULL UNIQUE,   value   BLOB NOT NULL,   attrib  BLOB NOT NULL );";
constexpr std::string_view kCreateMeta =
    " CREATE TABLE meta (   key     TEXT NOT NULL UNIQUE,   value   TEXT NOT NULL );";
constexpr std::string_view kTableExists =
    " SELECT name   FROM sqlite_master  WHERE type = 'table'    AND name = $name;";
constexpr std::string_view kSelectVersion = " SELECT value   FROM meta  WHERE key = $key;";
constexpr std::string_view kInsertMeta = " INSERT INTO meta VALUES ($key, $value);";

// Every path text ends with the separator, so the prefix selects exactly a node and its
// descendants; keys can never hold the LIKE wildcards.
constexpr std::string_view kSelectSubtree =
    " SELECT path, value, attrib    FROM data  WHERE path LIKE $path || '%'  ORDER BY path ASC;";
constexpr std::string_view kDeleteSubtree = " DELETE    FROM data  WHERE path LIKE $path || '%';";
constexpr std::string_view kInsertRow = " INSERT INTO data VALUES ($path, $value, $attrib);";
constexpr std::string_view kUpdateAttrib = " UPDATE data    SET attrib = $attrib  WHERE path = $path;";

constexpr char const kVersionKey[] = "ver";
constexpr char const kVersion[] = "1";

}  // namespace settings_db::statements
