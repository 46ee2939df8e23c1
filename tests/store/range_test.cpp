// The store takes a subtree through an index range on path. This proves it takes exactly
// the rows the prefix match `path LIKE $path || '%'` (the wrapper's exact-bytes LIKE)
// takes, over random tables whose keys use every byte the id rules allow, and that the
// range is an index search, not a scan.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <random>
#include <set>
#include <string>
#include <vector>

#include "settings_db_statements.h"
#include "store_test_util.h"
#include "support/temp_dir.h"

namespace store_test {
namespace {

namespace stmt = settings_db::statements;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr char kLikeSelect[] =
    "SELECT path, value, attrib FROM data WHERE path LIKE ?1 || '%' ORDER BY path ASC";
constexpr char kLikeDelete[] = "DELETE FROM data WHERE path LIKE ?1 || '%'";

// Every byte a key may hold: all but the separator and the barred characters.
std::string KeyBytes() {
  std::string bytes;
  for (int c = 0; c < 256; ++c)
    if (std::string_view("/\\\"'`%_ ").find(static_cast<char>(c)) == std::string_view::npos)
      bytes += static_cast<char>(c);
  return bytes;
}

// Path texts of a random tree: keys of one to three bytes over a few neighbouring bytes
// (so that texts share long prefixes) or over every allowed byte, and list indices.
std::set<std::string> RandomPaths(std::mt19937& random, std::size_t count) {
  static std::string const all = KeyBytes();
  static std::string const near("aAbB0\x80\xff\x7f\x2e\x30\x00", 11);
  std::set<std::string> paths{""};
  while (paths.size() < count) {
    auto parent = std::next(paths.begin(), static_cast<long>(random() % paths.size()));
    std::string key;
    if (random() % 5 == 0 && !parent->empty()) {
      key = std::to_string(random() % 12);  // a list index
    } else {
      std::string const& from = random() % 2 ? near : all;
      for (std::size_t n = 1 + random() % 3; key.size() < n;) key += from[random() % from.size()];
      if (key[0] >= '0' && key[0] <= '9') key[0] = 'k';
    }
    paths.insert(*parent + key + "/");
  }
  return paths;
}

// Each row as its path's type and bytes and its value, in the order a statement gave them.
std::vector<std::string> Rows(sqlite3* db, std::string_view sql, std::string const& path) {
  sqlite3_stmt* raw = nullptr;
  EXPECT_EQ(sqlite3_prepare_v2(db, sql.data(), static_cast<int>(sql.size()), &raw, nullptr),
            SQLITE_OK)
      << sqlite3_errmsg(db);
  std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt*)> statement(raw, sqlite3_finalize);
  std::string const end = path.empty() ? std::string() : stmt::SubtreeEnd(path);
  sqlite3_bind_text(raw, 1, path.data(), static_cast<int>(path.size()), SQLITE_STATIC);
  if (sqlite3_bind_parameter_count(raw) > 1)
    sqlite3_bind_text(raw, 2, end.data(), static_cast<int>(end.size()), SQLITE_STATIC);
  std::vector<std::string> rows;
  int step;
  while ((step = sqlite3_step(raw)) == SQLITE_ROW) {
    bool const blob = sqlite3_column_type(raw, 0) == SQLITE_BLOB;
    auto const* bytes = static_cast<char const*>(sqlite3_column_blob(raw, 0));
    auto const size = static_cast<std::size_t>(sqlite3_column_bytes(raw, 0));
    rows.push_back((blob ? "blob:" : "text:") + std::string(bytes ? bytes : "", size) + "=" +
                   std::to_string(sqlite3_column_int64(raw, 1)));
  }
  EXPECT_EQ(step, SQLITE_DONE) << sqlite3_errmsg(db);
  if (sql.substr(0, 8) == " DELETE " || sql.substr(0, 7) == "DELETE ")
    rows.push_back("deleted " + std::to_string(sqlite3_changes(db)));
  return rows;
}

std::vector<std::string> DeleteAndRest(sqlite3* db, std::string_view sql, std::string const& path) {
  EXPECT_EQ(sqlite3_exec(db, "SAVEPOINT probe", nullptr, nullptr, nullptr), SQLITE_OK);
  auto rows = Rows(db, sql, path);
  auto rest = Rows(db, "SELECT path, value FROM data ORDER BY path", "");
  rows.insert(rows.end(), rest.begin(), rest.end());
  EXPECT_EQ(sqlite3_exec(db, "ROLLBACK TO probe; RELEASE probe", nullptr, nullptr, nullptr),
            SQLITE_OK);
  return rows;
}

class RangeFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    SettingsDB const schema(path_);
    ASSERT_EQ(db_wrappers::sqlite::Wrapper().Open(path_, db_), 0);  // registers our LIKE
  }
  sqlite3* Db() const { return db_->Handle(); }

  test_support::TempDir dir_;
  std::string const path_ = dir_.File("settings.db");
  std::unique_ptr<db_wrappers::sqlite::IDatabase> db_;
};

class RangeTest : public RangeFixture, public ::testing::WithParamInterface<unsigned> {};

TEST_P(RangeTest, SelectsAndDeletesExactlyTheRowsOfThePrefixMatch) {
  std::mt19937 random(GetParam());
  auto const paths = RandomPaths(random, 250);
  std::int64_t number = 0;
  ASSERT_EQ(sqlite3_exec(Db(), "BEGIN", nullptr, nullptr, nullptr), SQLITE_OK);
  for (auto const& path : paths) {
    // Now and then a path stored as a blob, as a hand edit might leave it.
    bool const blob = random() % 16 == 0;
    std::string const sql = blob ? "INSERT INTO data VALUES (CAST(?1 AS BLOB), ?2, x'')"
                                 : "INSERT INTO data VALUES (?1, ?2, x'')";
    sqlite3_stmt* insert = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(Db(), sql.c_str(), -1, &insert, nullptr), SQLITE_OK);
    sqlite3_bind_text(insert, 1, path.data(), static_cast<int>(path.size()), SQLITE_STATIC);
    sqlite3_bind_int64(insert, 2, ++number);
    EXPECT_EQ(sqlite3_step(insert), SQLITE_DONE) << sqlite3_errmsg(Db());
    sqlite3_finalize(insert);
  }
  ASSERT_EQ(sqlite3_exec(Db(), "COMMIT", nullptr, nullptr, nullptr), SQLITE_OK);

  // Every stored path, and texts beside them: one byte changed (to a byte a path text may
  // hold), a level added or dropped.
  static std::string const pathBytes = KeyBytes() + "/";
  std::vector<std::string> prefixes(paths.begin(), paths.end());
  for (auto const& path : paths) {
    if (path.size() < 2) continue;
    std::string other = path;
    other[random() % (other.size() - 1)] = pathBytes[random() % pathBytes.size()];
    prefixes.push_back(other);
    prefixes.push_back(path + "x/");
    prefixes.push_back(path.substr(0, path.rfind('/', path.size() - 2) + 1));
  }
  for (auto const& prefix : prefixes) {
    if (prefix.back() != '/' && !prefix.empty()) continue;
    SCOPED_TRACE("prefix '" + Printable(prefix) + "'");
    bool const root = prefix.empty();
    ASSERT_EQ(Rows(Db(), root ? stmt::kSelectAll : stmt::kSelectSubtree, prefix),
              Rows(Db(), kLikeSelect, prefix));
    if (random() % 4 == 0 || root) {  // a delete reads the whole table back: some suffice
      ASSERT_EQ(DeleteAndRest(Db(), root ? stmt::kDeleteAll : stmt::kDeleteSubtree, prefix),
                DeleteAndRest(Db(), kLikeDelete, prefix));
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, RangeTest, ::testing::Values(1u, 2u, 3u));

TEST_F(RangeFixture, SubtreeStatementsSearchThePathIndex) {
  for (auto const sql : {stmt::kSelectSubtree, stmt::kDeleteSubtree}) {
    SCOPED_TRACE(std::string(sql));
    std::string const explain = "EXPLAIN QUERY PLAN" + std::string(sql);
    sqlite3_stmt* raw = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(Db(), explain.c_str(), -1, &raw, nullptr), SQLITE_OK);
    std::string plan;
    while (sqlite3_step(raw) == SQLITE_ROW)
      plan += reinterpret_cast<char const*>(sqlite3_column_text(raw, 3)) + std::string("\n");
    sqlite3_finalize(raw);
    EXPECT_THAT(plan, HasSubstr("SEARCH data USING"));
    EXPECT_THAT(plan, HasSubstr("INDEX sqlite_autoindex_data_1 (path>? AND path<?)"));
    EXPECT_THAT(plan, Not(HasSubstr("SCAN")));
    EXPECT_THAT(plan, Not(HasSubstr("TEMP B-TREE")));
  }
}

}  // namespace
}  // namespace store_test
