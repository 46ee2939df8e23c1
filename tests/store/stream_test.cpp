// A subtree rebuilt from the store's rows as they are read gives what rebuilding it from
// all its rows read first gives: the same tree, or the same failure (code and message).
// Over random trees with long lists (whose gaps need the number of rows) and rows damaged
// so that reading fails, decoding fails, both (in either order) or neither.

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "raw_conversion.h"
#include "store_test_util.h"
#include "support/sqlite_file.h"
#include "support/temp_dir.h"
#include "uvc/tree.h"

namespace store_test {
namespace {

using settings_manager::Setting;
namespace ix = uvc::index;

struct Outcome {
  int code = 0;
  std::string message;
  Setting tree;
};

Outcome Failure() {
  auto const result = uvc::ProcessException();
  return {result.first, result.second, Setting()};
}

// Every row held before the first is decoded: what the store always did.
Outcome ReadFirst(SettingsDB const& db, std::string const& path) {
  try {
    auto const rows = db.Get(path);
    Outcome out{1, "no rows", Setting()};
    uvc::Path head;
    if (!rows.empty()) std::tie(out.code, out.message) = Deserialize(rows, head, out.tree);
    return out;
  } catch (...) {
    return Failure();
  }
}

Outcome Streamed(SettingsDB const& db, std::string const& path) {
  try {
    SettingsDB::Reader rows(db, path);
    Outcome out{1, "no rows", Setting()};
    uvc::Path head;
    if (!rows.Empty()) std::tie(out.code, out.message) = Deserialize(rows, head, out.tree);
    return out;
  } catch (...) {
    return Failure();
  }
}

Setting RandomTree(std::mt19937& random, int depth) {
  Setting node;
  auto& map = node.emplace<ix::kMap>();
  for (int k = 0, n = 1 + static_cast<int>(random() % 4); k < n; ++k) {
    std::string const key(1, static_cast<char>('a' + k));
    switch (random() % 3) {
      case 0: {
        // Lists long enough that element 10 comes before element 2.
        auto& list = map[key].emplace<ix::kList>();
        for (auto i = random() % 40; i > 0; --i) list.emplace_back(std::int32_t{7});
        break;
      }
      case 1:
        map[key] = depth > 0 ? RandomTree(random, depth - 1) : Setting(std::int32_t{1});
        break;
      default:
        map[key] = Setting(std::string("text"));
    }
  }
  return node;
}

// One damage of the rows, in SQL; a random row is picked by its position.
std::string Damage(std::mt19937& random, std::vector<Row> const& rows) {
  auto const pick = [&] { return "'" + rows[random() % rows.size()].path + "'"; };
  switch (random() % 6) {
    case 0:  // undecodable
      return "UPDATE data SET value = x'63000000000000000000000000000000' WHERE path = " + pick();
    case 1:  // unreadable: a column of another kind
      return "UPDATE data SET value = 'text' WHERE path = " + pick();
    case 2:  // both, at two rows
      return "UPDATE data SET attrib = x'00' WHERE path = " + pick() +
             "; UPDATE data SET path = CAST(path AS BLOB) WHERE path = " + pick();
    case 3:  // a gap, an orphan or a level jump
      return "DELETE FROM data WHERE path = " + pick();
    case 4:  // a gap wider than the rows
      return "INSERT INTO data SELECT path || '60000/', value, attrib FROM data WHERE path = " +
             pick();
    default:
      return "SELECT 1";
  }
}

TEST(StreamTest, RebuildsWhatReadingEveryRowFirstRebuilds) {
  test_support::TempDir dir;
  std::mt19937 random(20240518);
  int failures = 0;
  for (int trial = 0; trial < 60; ++trial) {
    auto const path = dir.File("s" + std::to_string(trial) + ".db");
    SettingsDB const db(path);
    std::vector<RawItem> items;
    ASSERT_GE(settings_manager::Serialize(uvc::Root(), RandomTree(random, 2), items).first, 0);
    auto const rows = ToRows(items);
    test_support::SqliteFile file(path);
    file.Exec("BEGIN");
    for (auto const& row : rows) file.InsertRow(row);
    auto const damage = Damage(random, rows);
    file.Exec(damage + "; COMMIT");
    for (auto const& at : {std::string(), rows[random() % rows.size()].path}) {
      SCOPED_TRACE("trial " + std::to_string(trial) + ", " + damage + ", at '" + at + "'");
      auto const first = ReadFirst(db, at);
      auto const streamed = Streamed(db, at);
      EXPECT_EQ(streamed.code, first.code);
      EXPECT_EQ(streamed.message, first.message);
      EXPECT_EQ(streamed.tree, first.tree);
      failures += first.code < 0;
    }
  }
  EXPECT_GT(failures, 20);  // the damage did reach both paths
}

}  // namespace
}  // namespace store_test
