#pragma once

// Helpers of the store suites: error expectations, file bytes, and rows built by hand so
// that every column of every row differs from the others.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "db_wrappers/sqlite/database.h"
#include "fdn/result_codes.h"
#include "raw_setting.h"
#include "settings_db.h"
#include "support/sqlite_file.h"
#include "uvc/error.h"

namespace store_test {

using settings_db::SettingsDB;
using settings_manager::impl::Bytes;
using settings_manager::impl::RawAttrib;
using settings_manager::impl::RawItem;
using Row = test_support::SqliteFile::Row;

constexpr int kInvalidResult = static_cast<int>(0x80000071u);
constexpr int kMediaError = static_cast<int>(0x80000059u);
constexpr char const kDbSource[] = "settings_manager/src/settings_db";

// The code text that the store puts in its messages for a failure with SQLite's
// (extended) result code `sqliteCode`.
inline std::string WrapperCodeText(int sqliteCode) {
  return fdn::ResultCodeText(db_wrappers::sqlite::MakeError(sqliteCode));
}

// Runs `action`, which must throw uvc::Error; returns it (code and message) for checks.
inline uvc::Error CatchError(std::function<void()> const& action) {
  try {
    action();
  } catch (uvc::Error const& error) {
    return error;
  } catch (std::exception const& other) {
    ADD_FAILURE() << "expected uvc::Error, got: " << other.what();
    return uvc::Error(0, "<other exception>");
  }
  ADD_FAILURE() << "expected uvc::Error, nothing thrown";
  return uvc::Error(0, "<nothing thrown>");
}

#define EXPECT_SMDB_ERROR(statement, expectedCode, expectedMessage)                  \
  do {                                                                               \
    uvc::Error const smdbError_ = ::store_test::CatchError([&] { statement; });      \
    EXPECT_EQ(smdbError_.code, (expectedCode));                                      \
    EXPECT_EQ(std::string(smdbError_.what()), std::string(expectedMessage));          \
  } while (false)

inline std::string FileBytes(std::string const& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline std::set<std::string> FolderNames(std::filesystem::path const& folder) {
  std::set<std::string> names;
  for (auto const& entry : std::filesystem::directory_iterator(folder))
    names.insert(entry.path().filename().string());
  return names;
}

// An attribute record whose flags word carries `tag` in its second byte, so that rows
// are told apart by attrib too (the store does not read the records).
inline Bytes Attrib(std::uint8_t tag, bool readOnly = false) {
  Bytes bytes(16, 0);
  bytes[2] = 1;  // version 0x10000
  bytes[8] = readOnly ? 1 : 0;
  bytes[9] = tag;
  return bytes;
}

// A uint64 value record (index 15) holding `number`; `extra` trailing bytes vary the size.
inline Bytes Value(std::uint64_t number, std::size_t extra = 0) {
  Bytes bytes(16 + extra, 0xA5);
  std::fill(bytes.begin(), bytes.begin() + 16, 0);
  bytes[0] = 15;
  for (int i = 0; i < 8; ++i) bytes[8 + i] = static_cast<std::uint8_t>(number >> (8 * i));
  return bytes;
}

inline Row MakeRow(std::string path, std::uint64_t number) {
  return Row{std::move(path), Value(number), Attrib(static_cast<std::uint8_t>(number))};
}

inline RawItem ToItem(Row const& row) { return RawItem(row.attrib, row.value, row.path); }
inline Row ToRow(RawItem const& item) { return Row{item.path, item.value, item.attrib}; }

inline std::vector<Row> ToRows(SettingsDB::RawItems const& items) {
  std::vector<Row> rows;
  for (auto const& item : items) rows.push_back(ToRow(item));
  return rows;
}

inline SettingsDB::RawItems ToItems(std::vector<Row> const& rows) {
  SettingsDB::RawItems items;
  for (auto const& row : rows) items.push_back(ToItem(row));
  return items;
}

// Byte order of path texts: std::string compares its chars as unsigned bytes.
inline std::vector<Row> SortedByPath(std::vector<Row> rows) {
  std::sort(rows.begin(), rows.end(), [](Row const& a, Row const& b) { return a.path < b.path; });
  return rows;
}

inline bool StartsWith(std::string const& text, std::string const& prefix) {
  return text.size() >= prefix.size() && text.compare(0, prefix.size(), prefix) == 0;
}

// Readable paths in failure output: bytes outside printable ASCII as \xNN.
inline std::string Printable(std::string const& text) {
  static char const digits[] = "0123456789abcdef";
  std::string out;
  for (unsigned char c : text) {
    if (c >= 0x20 && c < 0x7F) {
      out += static_cast<char>(c);
    } else {
      out += "\\x";
      out += digits[c >> 4];
      out += digits[c & 15];
    }
  }
  return out;
}

inline std::vector<std::string> Paths(std::vector<Row> const& rows) {
  std::vector<std::string> paths;
  for (auto const& row : rows) paths.push_back(Printable(row.path));
  return paths;
}

}  // namespace store_test

namespace test_support {
// gtest finds this through the Row's namespace; the default would dump raw object bytes.
inline void PrintTo(SqliteFile::Row const& row, std::ostream* out) {
  *out << "{'" << store_test::Printable(row.path) << "', " << Hex(row.value) << ", "
       << Hex(row.attrib) << "}";
}
}  // namespace test_support
