// A subtree rebuilt from the store's rows as they are read gives what rebuilding it from
// all its rows read first gives: the same tree, or the same failure (code and message).
// Over random trees with long lists (whose gaps need the number of rows) and rows damaged
// so that reading fails, decoding fails, both (in either order) or neither.

#include <random>

#include "raw_conversion.h"
#include "settings_db.h"
#include "support/settings.h"
#include "support/sqlite_file.h"
#include "support/temp_dir.h"

namespace test_support {
namespace {

using settings_db::SettingsDB;

template <typename Read>
std::tuple<int, std::string, Setting> Rebuild(Read const& read) {
  Setting tree;
  try {
    auto rows = read();
    uvc::Path head;
    if (rows.Empty()) return {1, "no rows", tree};
    auto const [code, text] = settings_manager::Deserialize(rows, head, tree);
    return {code, text, tree};
  } catch (...) {
    auto const [code, text] = uvc::ProcessException();
    return {code, text, Setting()};
  }
}
struct AllRows : SettingsDB::RawItems {
  bool Empty() const { return empty(); }
};

Setting RandomTree(std::mt19937& random, int depth) {
  Setting node = MapOf({});
  for (char key = 'a', last = static_cast<char>('a' + random() % 4); key <= last; ++key) {
    auto const kind = random() % 3;  // lists long enough that 10 comes before 2
    std::get<uvc::index::kMap>(node)[std::string(1, key)] =
        kind == 0                ? Setting(Setting::Value(List(random() % 40, Int(7))))
        : kind == 1 && depth > 0 ? RandomTree(random, depth - 1)
                                 : Str("text");
  }
  return node;
}

TEST(Stream, RebuildsWhatReadingEveryRowFirstRebuilds) {
  TempDir dir;
  std::mt19937 random(20240518);
  int failures = 0;
  for (int trial = 0; trial < 60; ++trial) {
    auto const path = dir.File("s" + std::to_string(trial) + ".db");
    SettingsDB const db(path);
    std::vector<settings_manager::impl::RawItem> items;
    ASSERT_EQ(settings_manager::Serialize(uvc::Root(), RandomTree(random, 2), items).first, 0);
    auto const pick = [&] { return "'" + items[random() % items.size()].path + "'"; };
    std::string const damage[] = {
        "UPDATE data SET value = x'63000000000000000000000000000000' WHERE path = " + pick(),
        "UPDATE data SET value = 'text' WHERE path = " + pick(),  // a column of another kind
        "UPDATE data SET attrib = x'00' WHERE path = " + pick() +
            "; UPDATE data SET path = CAST(path AS BLOB) WHERE path = " + pick(),
        "DELETE FROM data WHERE path = " + pick(),  // a gap, an orphan or a level jump
        "INSERT INTO data SELECT path || '60000/', value, attrib FROM data WHERE path = " + pick(),
        "SELECT 1"};
    SqliteFile file(path);
    file.Exec("BEGIN");
    for (auto const& item : items) file.InsertRow({item.path, item.value, item.attrib});
    file.Exec(damage[random() % 6] + "; COMMIT");
    for (auto const& at : {std::string(), items[random() % items.size()].path}) {
      auto const first = Rebuild([&] { return AllRows{db.Get(at)}; });
      EXPECT_EQ(Rebuild([&] { return SettingsDB::Reader(db, at); }), first) << trial << at;
      failures += std::get<0>(first) < 0;
    }
  }
  EXPECT_GT(failures, 20);  // the damage did reach both paths
}

}  // namespace
}  // namespace test_support
