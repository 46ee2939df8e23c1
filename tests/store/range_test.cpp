// The store takes a subtree through an index range on path. This proves it takes exactly
// the rows the prefix match `path LIKE $path || '%'` (the wrapper's exact-bytes LIKE)
// takes, over random tables whose keys use every byte the id rules allow, and that the
// range is an index search, not a scan.

#include <gmock/gmock.h>
#include <sqlite3.h>

#include <random>
#include <set>

#include "settings_db.h"
#include "support/temp_dir.h"

namespace {

namespace stmt = settings_db::statements;
using Statement = std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt*)>;

Statement Prepare(sqlite3* db, std::string_view sql) {
  sqlite3_stmt* raw = nullptr;
  EXPECT_EQ(sqlite3_prepare_v2(db, sql.data(), static_cast<int>(sql.size()), &raw, nullptr),
            SQLITE_OK)
      << sql;
  return Statement(raw, sqlite3_finalize);
}

// Each row as its path's type and bytes and its number, in the order the statement gave
// them; for a delete, the count and then every row left.
std::vector<std::string> Rows(sqlite3* db, std::string_view sql, std::string const& path) {
  bool const del = sql.find("DELETE") != std::string_view::npos;
  if (del) sqlite3_exec(db, "SAVEPOINT probe", nullptr, nullptr, nullptr);
  auto const statement = Prepare(db, sql);
  std::string const end = path.empty() ? std::string() : stmt::SubtreeEnd(path);
  for (int i : {1, 2}) {
    auto const& text = i == 1 ? path : end;
    sqlite3_bind_text(statement.get(), i, text.data(), static_cast<int>(text.size()), nullptr);
  }
  std::vector<std::string> rows;
  int step;
  while ((step = sqlite3_step(statement.get())) == SQLITE_ROW) {
    auto const* bytes = static_cast<char const*>(sqlite3_column_blob(statement.get(), 0));
    rows.push_back(std::to_string(sqlite3_column_type(statement.get(), 0)) + ":" +
                   std::string(bytes ? bytes : "", sqlite3_column_bytes(statement.get(), 0)) + "=" +
                   std::to_string(sqlite3_column_int64(statement.get(), 1)));
  }
  EXPECT_EQ(step, SQLITE_DONE) << sqlite3_errmsg(db);
  if (!del) return rows;
  rows.push_back("deleted " + std::to_string(sqlite3_changes(db)));
  auto rest = Rows(db, "SELECT path, value FROM data ORDER BY path", "");
  rows.insert(rows.end(), rest.begin(), rest.end());
  sqlite3_exec(db, "ROLLBACK TO probe; RELEASE probe", nullptr, nullptr, nullptr);
  return rows;
}

class Range : public ::testing::TestWithParam<unsigned> {
 protected:
  void SetUp() override {
    settings_db::SettingsDB const schema(path_);
    ASSERT_EQ(db_wrappers::sqlite::Wrapper().Open(path_, db_), 0);  // registers our LIKE
  }
  test_support::TempDir dir_;
  std::string const path_ = dir_.File("settings.db");
  std::unique_ptr<db_wrappers::sqlite::IDatabase> db_;
};

TEST_P(Range, SelectsAndDeletesExactlyTheRowsOfThePrefixMatchThroughTheIndex) {
  sqlite3* const db = db_->Handle();
  // Every byte a key may hold (all but the barred ones), and a few neighbouring bytes, so
  // that texts share long prefixes.
  std::string all, near("aAbB0\x80\xff\x7f\x2e\x30\x00", 11);
  for (int c = 0; c < 256; ++c)
    if (std::string_view("/\\\"'`%_ ").find(static_cast<char>(c)) == std::string::npos)
      all += static_cast<char>(c);
  std::mt19937 random(GetParam());
  std::set<std::string> paths{""};  // a random tree: keys of one to three bytes, indices
  while (paths.size() < 250) {
    auto parent = std::next(paths.begin(), static_cast<long>(random() % paths.size()));
    std::string key = std::to_string(random() % 12);
    if (random() % 5 != 0 || parent->empty()) {
      std::string const& from = random() % 2 ? near : all;
      for (key.clear(); key.size() < 1 + random() % 3;) key += from[random() % from.size()];
      if (key[0] >= '0' && key[0] <= '9') key[0] = 'k';
    }
    paths.insert(*parent + key + "/");
  }
  sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr);
  std::int64_t number = 0;
  for (auto const& path : paths) {  // now and then a path stored as a blob, as by a hand edit
    auto const insert =
        Prepare(db, random() % 16 ? "INSERT INTO data VALUES (?1, ?2, x'')"
                                  : "INSERT INTO data VALUES (CAST(?1 AS BLOB), ?2, x'')");
    sqlite3_bind_text(insert.get(), 1, path.data(), static_cast<int>(path.size()), nullptr);
    sqlite3_bind_int64(insert.get(), 2, ++number);
    ASSERT_EQ(sqlite3_step(insert.get()), SQLITE_DONE) << sqlite3_errmsg(db);
  }
  sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);

  // Every stored path, and texts beside them: one byte changed, a level added or dropped.
  std::vector<std::string> prefixes(paths.begin(), paths.end());
  for (auto const& path : paths) {
    if (path.size() < 2) continue;
    std::string other = path;
    other[random() % (other.size() - 1)] = (all + "/")[random() % (all.size() + 1)];
    prefixes.insert(prefixes.end(),
                    {other, path + "x/", path.substr(0, path.rfind('/', path.size() - 2) + 1)});
  }
  for (auto const& prefix : prefixes) {
    if (!prefix.empty() && prefix.back() != '/') continue;
    bool const root = prefix.empty();
    ASSERT_EQ(
        Rows(db, root ? stmt::kSelectAll : stmt::kSelectSubtree, prefix),
        Rows(db, "SELECT path, value FROM data WHERE path LIKE ?1 || '%' ORDER BY path", prefix))
        << prefix;
    if (random() % 4 == 0 || root) {  // a delete reads the whole table back: some suffice
      ASSERT_EQ(Rows(db, root ? stmt::kDeleteAll : stmt::kDeleteSubtree, prefix),
                Rows(db, "DELETE FROM data WHERE path LIKE ?1 || '%'", prefix))
          << prefix;
    }
  }
  for (auto const sql : {stmt::kSelectSubtree, stmt::kDeleteSubtree}) {
    auto const explain = Prepare(db, "EXPLAIN QUERY PLAN" + std::string(sql));
    std::string plan;
    while (sqlite3_step(explain.get()) == SQLITE_ROW)
      plan +=
          reinterpret_cast<char const*>(sqlite3_column_text(explain.get(), 3)) + std::string("\n");
    EXPECT_THAT(plan, ::testing::AllOf(
                          ::testing::HasSubstr("SEARCH data USING"),
                          ::testing::HasSubstr("INDEX sqlite_autoindex_data_1 (path>? AND path<?)"),
                          ::testing::Not(::testing::ContainsRegex("SCAN|TEMP B-TREE"))));
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, Range, ::testing::Values(1u, 2u, 3u));

}  // namespace
