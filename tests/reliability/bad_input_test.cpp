// Nothing a file can hold crashes the library. Seeded damage to a real settings file, at
// the byte level (flipped bytes, a torn end, a zeroed page) and at the row level
// (undecodable records, orphans, stray rows, columns of the wrong type, a foreign schema
// version): a new manager either refuses the file with a failure code, or loads a tree
// and then answers every call with a code.

#include <filesystem>
#include <fstream>
#include <map>

#include "reliability.h"
#include "support/fault_vfs.h"
#include "support/sqlite_file.h"
#include "support/temp_dir.h"

namespace reliability {
namespace {

TEST(BadInput, DamagedFilesAreRefusedWithACodeOrServedWithoutACrash) {
  auto const seed = TestSeed("BadInput");
  std::mt19937_64 random(seed);
  Values values(random);
  test_support::FaultVfs vfs;  // no waiting for the disk: durability is not the point here
  test_support::TempDir dir;
  auto const db = dir.File("settings.db");
  {
    Client writer;
    ASSERT_EQ(writer.Open(db), 0);
    for (auto const& key : TopKeys())
      ASSERT_EQ(writer.creator->CreateSetting({uvc::Id(key)}, values.Tree(60)), 0);
  }
  std::string const good = ReadBytes(db);
  std::vector<std::string> paths;
  for (auto const& row : test_support::SqliteFile(db).DataRows()) paths.push_back(row.path);
  auto const blob = [&](std::size_t size) {
    std::string text = "X'";
    for (std::size_t i = 0; i < size; ++i) text += "0123456789ABCDEF"[random() % 16];
    return text + (size % 2 == 0 ? "'" : "0'");
  };
  std::size_t const trials = Scaled(320, 80);
  std::map<int, std::size_t> refused;
  for (std::size_t trial = 0; trial < trials; ++trial) {
    std::string bytes = good, damage = "bytes flipped";
    std::string const at = " WHERE path = '" + paths[random() % paths.size()] + "'";
    if (trial % 4 == 0) {
      for (auto flips = 1 + random() % 8; flips > 0; --flips)
        bytes[random() % bytes.size()] ^= static_cast<char>(1 + random() % 255);
    } else if (trial % 4 == 1) {
      bytes.resize(random() % bytes.size());
      damage = "cut at " + std::to_string(bytes.size());
    } else if (trial % 4 == 2) {
      damage = "page " + std::to_string(random() % (bytes.size() / 4096)) + " zeroed";
      bytes.replace(std::stoul(damage.substr(5)) * 4096, 4096, 4096, '\0');
    } else {  // damage to rows: the file stays a sound SQLite database
      std::string const statements[] = {
          "UPDATE data SET value = " + blob(random() % 48) + at,
          "UPDATE data SET value = X'0" + std::to_string(random() % 10) + "00000000000000'" + at,
          "UPDATE data SET attrib = " + blob(random() % 40) + at,
          "DELETE FROM data" + at,  // orphans below it, or a gap
          "INSERT OR REPLACE INTO data VALUES ('" + paths[random() % paths.size()] + "z/" +
              std::to_string(random() % 70000) + "/', X'0100000000000000', X'00000100')",
          "UPDATE data SET path = path || 'q/'" + at,
          "UPDATE data SET path = 'a//b/'" + at,
          "UPDATE data SET value = 'text'" + at,  // a column of another kind
          "UPDATE data SET path = CAST(path AS BLOB)" + at,
          "UPDATE meta SET value = '2'",
      };
      damage = statements[random() % std::size(statements)];
    }
    for (char const* suffix : {"-wal", "-shm", "-journal"}) std::filesystem::remove(db + suffix);
    std::ofstream(db, std::ios::binary | std::ios::trunc) << bytes;
    if (trial % 4 == 3) test_support::SqliteFile(db).Exec(damage);
    SCOPED_TRACE("trial " + std::to_string(trial) + ": " + damage);
    Client client;
    if (int const rc = client.Open(db); rc != 0) {
      ASSERT_LT(rc, 0);
      ++refused[rc];
      continue;
    }
    // Served: every call answers. (A damaged file may load into a tree that places a
    // stray row by its depth alone, so tree and file are not compared here.)
    for (int i = 0; i < 6; ++i) {
      auto const [p, state] = uvc::FromString(paths[random() % paths.size()],
                                              settings_manager::meta::GetIdSpecification());
      Setting out;
      client.getter->GetSetting(p, out);
      client.valueSetter->SetValue(p, values.Scalar().value());
      client.setter->SetSetting(p, values.Tree(5));
      client.creator->CreateSetting(p, values.Tree(5));
      client.setter->SetAttribute(p, Attributes{values.Chance(50)});
      if (i % 3 == 2) client.deleter->DeleteSetting(p);
    }
  }
  std::string figures = std::to_string(trials) + " damaged files, refused:";
  for (auto const& [code, n] : refused)
    figures += " " + fdn::ResultCodeText(code) + " x" + std::to_string(n);
  Report("bad-input", figures);
}

}  // namespace
}  // namespace reliability
