// Nothing a file can hold crashes the library. Seeded damage to a real settings file, at
// the byte level (flipped bytes, a torn end, a zeroed page) and at the row level
// (undecodable records, orphans, stray rows, columns of the wrong type, a foreign schema
// version): a new manager either refuses the file with a failure code, or loads a tree
// and then answers every call with a code.

#include <filesystem>
#include <fstream>
#include <map>

#include "reliability_util.h"
#include "support/fault_vfs.h"
#include "support/sqlite_file.h"
#include "support/temp_dir.h"

namespace reliability {
namespace {

// An SQL blob of `size` random bytes; or of a plausible record: a small index, zeros,
// then a payload of mostly zeros.
std::string Blob(std::mt19937_64& random, std::size_t size, bool record = false) {
  std::string text = "X'";
  char digits[3];
  for (std::size_t i = 0; i < size; ++i) {
    auto b = random() & 0xFF;
    if (record) b = i == 0 ? b % 18 : i < 8 || random() % 4 != 0 ? 0 : b;
    std::snprintf(digits, sizeof digits, "%02X", static_cast<unsigned>(b));
    text += digits;
  }
  return text + "'";
}

// Damage at the level of rows: the file stays a sound SQLite database.
std::string RowDamage(std::mt19937_64& random, std::vector<std::string> const& paths) {
  std::string const at = " WHERE path = '" + paths[random() % paths.size()] + "'";
  std::string const record = Blob(random, 16, true);   // a plausible header, maybe a payload
  std::string stray = paths[random() % paths.size()];  // at a random depth below a row
  for (auto n = random() % 3; n > 0; --n)
    stray += random() % 2 ? "z/" : std::to_string(random() % 70000) + "/";
  std::string const statements[] = {
      "UPDATE data SET value = " + Blob(random, random() % 24) + at,
      "UPDATE data SET value = " + record + at,
      "UPDATE data SET attrib = " + Blob(random, random() % 20) + at,
      "DELETE FROM data" + at,  // orphans below it, or a gap
      "INSERT OR REPLACE INTO data VALUES ('" + stray + "', " + record +
          ", X'00000100000000000000000000000000')",
      "UPDATE data SET path = path || 'q/'" + at,
      "UPDATE data SET path = '0/'" + at,
      "UPDATE data SET path = 'a//b/'" + at,
      "UPDATE data SET value = 'text'" + at,  // a column of another kind
      "UPDATE data SET path = CAST(path AS BLOB)" + at,
      "UPDATE meta SET value = '2'",
      "DELETE FROM meta",
      "UPDATE data SET value = X'0100000000000000FFFFFFFF00000000'" + at,
  };
  return statements[random() % std::size(statements)];
}

TEST(BadInput, DamagedFilesAreRefusedWithACodeOrServedWithoutACrash) {
  QuietLog quiet;
  auto const seed = TestSeed("BadInput");
  std::mt19937_64 random(seed);
  Values values(random);
  test_support::FaultVfs vfs;  // no waiting for the disk: durability is not the point here
  test_support::TempDir dir;
  auto const db = dir.File("settings.db");
  Setting start;
  start.emplace<uvc::index::kMap>();
  for (auto const& key : TopKeys()) std::get<uvc::index::kMap>(start).emplace(key, values.Tree(60));
  {
    Client writer;
    ASSERT_EQ(writer.Open(db), 0);
    ASSERT_EQ(Seed(writer, start), 0);
  }
  std::string const good = ReadBytes(db);
  std::vector<std::string> paths;
  for (auto const& row : test_support::SqliteFile(db).DataRows()) paths.push_back(row.path);

  std::size_t const trials = Scaled(320, 80);
  std::map<int, std::size_t> refused;
  std::size_t loaded = 0;
  for (std::size_t trial = 0; trial < trials; ++trial) {
    std::string bytes = good, damage = "row damage";
    if (trial % 4 == 0) {
      for (auto flips = 1 + random() % 8; flips > 0; --flips)
        bytes[random() % bytes.size()] ^= static_cast<char>(1 + random() % 255);
      damage = "bytes flipped";
    } else if (trial % 4 == 1) {
      bytes.resize(random() % bytes.size());
      damage = "cut at " + std::to_string(bytes.size());
    } else if (trial % 4 == 2) {
      auto const page = random() % (bytes.size() / 4096);
      bytes.replace(page * 4096, 4096, 4096, '\0');
      damage = "page " + std::to_string(page) + " zeroed";
    }
    for (char const* suffix : {"-wal", "-shm", "-journal"}) std::filesystem::remove(db + suffix);
    std::ofstream(db, std::ios::binary | std::ios::trunc) << bytes;
    if (trial % 4 == 3) {
      damage = RowDamage(random, paths);
      try {
        test_support::SqliteFile(db).Exec(damage);
      } catch (std::exception const&) {
      }
    }
    SCOPED_TRACE("trial " + std::to_string(trial) + ": " + damage);
    Client client;
    if (int const rc = client.Open(db); rc != 0) {
      ASSERT_LT(rc, 0);
      ++refused[rc];
      continue;
    }
    // Served: every call answers. (A damaged file may load into a tree that places a
    // stray row by its depth alone, so tree and file are not compared here.)
    ++loaded;
    for (int i = 0; i < 6; ++i) {
      auto const p = P(paths[random() % paths.size()]);
      if (p.empty()) continue;
      Setting out;
      client.getter->GetSetting(p, out);
      client.valueSetter->SetValue(p, values.Scalar().value());
      client.setter->SetSetting(p, values.Tree(5));
      client.creator->CreateSetting(p, values.Tree(5));
      client.setter->SetAttribute(p, Attributes{values.Chance(50)});
      if (i % 3 == 2) client.deleter->DeleteSetting(p);
    }
  }
  std::string figures = std::to_string(trials) + " damaged files: " + std::to_string(loaded) +
                        " loaded and served calls without a crash, the rest refused:";
  for (auto const& [code, n] : refused)
    figures += " " + fdn::ResultCodeText(code) + " x" + std::to_string(n);
  Report("bad-input", figures);
}

}  // namespace
}  // namespace reliability
