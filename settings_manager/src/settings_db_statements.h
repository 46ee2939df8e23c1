#pragma once

// The statements of the settings store, run exactly as written: files written by other
// builds of the library were made with these.

#include <string>
#include <string_view>

namespace settings_db::statements {

// clang-format off
constexpr std::string_view kCreateData =
    " CREATE TABLE data (   path    TEXT NOT NULL UNIQUE,   value   BLOB NOT NULL,   attrib  BLOB NOT NULL );";
constexpr std::string_view kCreateMeta =
    " CREATE TABLE meta (   key     TEXT NOT NULL UNIQUE,   value   TEXT NOT NULL );";
constexpr std::string_view kTableExists =
    " SELECT name   FROM sqlite_master  WHERE type = 'table'    AND name = $name;";
constexpr std::string_view kSelectVersion = " SELECT value   FROM meta  WHERE key = $key;";
constexpr std::string_view kInsertMeta = " INSERT INTO meta VALUES ($key, $value);";

// A subtree through the index on path. Every path text ends with the separator, so the
// node with text P and its descendants are exactly the texts P <= path < SubtreeEnd(P):
// P with its final separator replaced by the next byte. Comparison is bytewise. A path
// stored as a blob behind the store's back is taken by the same bytes, as a prefix
// match would take it; blobs sort after every text. The root's subtree is every row.
constexpr std::string_view kSelectAll = " SELECT path, value, attrib    FROM data  ORDER BY path ASC;";
constexpr std::string_view kSelectSubtree =
    " SELECT path, value, attrib    FROM data  WHERE path >= $path AND path < $end"
    "  UNION ALL SELECT path, value, attrib    FROM data"
    "  WHERE path >= CAST($path AS BLOB) AND path < CAST($end AS BLOB)  ORDER BY path ASC;";
// How many rows the two selects above take, counted while one of them reads.
constexpr std::string_view kCountAll = " SELECT count(*)    FROM data;";
constexpr std::string_view kCountSubtree =
    " SELECT count(*)    FROM data  WHERE path >= $path AND path < $end"
    "  OR path >= CAST($path AS BLOB) AND path < CAST($end AS BLOB);";
constexpr std::string_view kDeleteAll = " DELETE    FROM data;";
constexpr std::string_view kDeleteSubtree =
    " DELETE    FROM data  WHERE path >= $path AND path < $end"
    "  OR path >= CAST($path AS BLOB) AND path < CAST($end AS BLOB);";
constexpr std::string_view kInsertRow = " INSERT INTO data VALUES ($path, $value, $attrib);";
constexpr std::string_view kUpdateAttrib = " UPDATE data    SET attrib = $attrib  WHERE path = $path;";

// The change log of the managers that share a file: one row per change, in the change's
// own transaction; the last generation is the file's. Made by the first change that
// needs it, so a file only ever read keeps just data and meta.
constexpr char const kChangeLog[] = "changes";
constexpr std::string_view kCreateChangeLog =
    " CREATE TABLE IF NOT EXISTS changes (   generation  INTEGER PRIMARY KEY,   path        TEXT NOT NULL );";
constexpr std::string_view kLastGeneration = " SELECT max(generation)   FROM changes;";
constexpr std::string_view kFirstGeneration = " SELECT min(generation)   FROM changes;";
constexpr std::string_view kChangedSince =
    " SELECT DISTINCT path   FROM changes  WHERE generation > $seen  ORDER BY path ASC;";
constexpr std::string_view kInsertChange = " INSERT INTO changes VALUES ($generation, $path);";
constexpr std::string_view kPruneChanges = " DELETE    FROM changes  WHERE generation <= $last;";

// clang-format on

constexpr char const kVersionKey[] = "ver";
constexpr char const kVersion[] = "1";

// The end of the index range of the rows whose text begins with `prefix`: the least
// text above every such text. For a path text that is `prefix` with its final separator
// '/' made '0'. Trailing 0xFF bytes have no successor and are dropped first; `prefix` must
// hold some other byte (a path text always ends with the separator).
inline std::string SubtreeEnd(std::string_view prefix) {
  std::string end(prefix);
  while (!end.empty() && static_cast<unsigned char>(end.back()) == 0xFF) end.pop_back();
  if (!end.empty()) end.back() = static_cast<char>(static_cast<unsigned char>(end.back()) + 1);
  return end;
}

}  // namespace settings_db::statements
