// Nothing a file can hold crashes the library. Seeded damage to a real settings file,
// at the byte level (flipped bytes, a torn end, a zeroed page) and at the row level
// (undecodable records, orphans, stray rows, columns of the wrong type, a foreign schema
// version): a new manager either refuses the file with a failure code, or loads a tree
// and then answers every call with a code.

#include <sqlite3.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "fdn/result_codes.h"
#include "reliability_util.h"
#include "settings_manager/limits.h"
#include "support/fault_vfs.h"
#include "support/sqlite_file.h"
#include "support/temp_dir.h"

namespace reliability {
namespace {

namespace ix = uvc::index;
using Bytes = std::vector<char>;

Bytes ReadBytes(std::string const& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), {});
}

void WriteBytes(std::string const& path, Bytes const& bytes) {
  std::error_code ignored;
  for (char const* suffix : {"-wal", "-shm", "-journal"})
    std::filesystem::remove(path + suffix, ignored);
  std::ofstream(path, std::ios::binary | std::ios::trunc)
      .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::string Blob(std::mt19937_64& random, std::size_t size) {
  static char const hex[] = "0123456789ABCDEF";
  std::string text = "X'";
  for (std::size_t i = 0; i < size; ++i) {
    auto const b = random() & 0xFF;
    text += hex[b >> 4];
    text += hex[b & 15];
  }
  return text + "'";
}

// Damage at the level of rows: the file stays a sound SQLite database.
std::string RowDamage(std::mt19937_64& random, std::vector<std::string> const& paths) {
  auto const pick = [&] { return "'" + paths[random() % paths.size()] + "'"; };
  auto const short16 = [&] {
    // A plausible record: a header of 16 bytes (index 0..17), then maybe a payload.
    std::string text = "X'";
    char buffer[3];
    std::snprintf(buffer, sizeof buffer, "%02X", static_cast<unsigned>(random() % 18));
    text += buffer;
    text += "00000000000000";
    for (int i = 0; i < 8; ++i) {
      std::snprintf(buffer, sizeof buffer, "%02X",
                    static_cast<unsigned>(random() % 4 == 0 ? random() & 0xFF : 0));
      text += buffer;
    }
    return text + "'";
  };
  switch (random() % 12) {
    case 0:
      return "UPDATE data SET value = " + Blob(random, random() % 24) + " WHERE path = " + pick();
    case 1:
      return "UPDATE data SET value = " + short16() + " WHERE path = " + pick();
    case 2:
      return "UPDATE data SET attrib = " + Blob(random, random() % 20) + " WHERE path = " + pick();
    case 3:
      return "DELETE FROM data WHERE path = " + pick();  // orphans below it, or a gap
    case 4: {
      // A stray row at a random depth below a random row.
      std::string path = paths[random() % paths.size()];
      for (auto n = random() % 3; n > 0; --n)
        path += random() % 2 ? "z/" : std::to_string(random() % 70000) + "/";
      return "INSERT OR REPLACE INTO data VALUES ('" + path + "', " + short16() +
             ", X'00000100000000000000000000000000')";
    }
    case 5:
      return "UPDATE data SET path = path || 'q/' WHERE path = " + pick();
    case 6:
      return "UPDATE data SET path = " + std::string(random() % 2 ? "'0/'" : "'a//b/'") +
             " WHERE path = " + pick();
    case 7:
      return "UPDATE data SET value = 'text' WHERE path = " + pick();  // a column of another kind
    case 8:
      return "UPDATE data SET path = CAST(path AS BLOB) WHERE path = " + pick();
    case 9:
      return "UPDATE data SET attrib = NULL WHERE path = " + pick() + " AND 0";  // (NOT NULL)
    case 10:
      return random() % 2 ? "UPDATE meta SET value = '2'" : "DELETE FROM meta";
    default:
      return "UPDATE data SET value = X'0100000000000000FFFFFFFF00000000' WHERE path = " + pick();
  }
}

TEST(BadInput, DamagedFilesAreRefusedWithACodeOrServedWithoutACrash) {
  QuietLog quiet(tern::logger::LogLevel::Fatal);
  auto const seed = TestSeed("BadInput");
  std::mt19937_64 random(seed);
  Values values(random);
  test_support::FaultVfs vfs;  // no waiting for the disk: durability is not the point here
  test_support::TempDir dir;
  auto const db = dir.File("settings.db");

  Setting start;
  auto& map = start.emplace<ix::kMap>();
  for (auto const& key : TopKeys()) map.emplace(key, values.Tree(60));
  {
    Client writer;
    ASSERT_EQ(writer.Open(db), 0);
    ASSERT_EQ(Seed(writer, start), 0);
  }
  Bytes const good = ReadBytes(db);
  std::vector<std::string> paths;
  for (auto const& row : test_support::SqliteFile(db).DataRows()) paths.push_back(row.path);
  WriteBytes(db, good);

  std::size_t const trials = Scaled(320, 80);
  std::map<std::string, std::size_t> refused;
  std::size_t loaded = 0, calls = 0;
  for (std::size_t trial = 0; trial < trials; ++trial) {
    Bytes bytes = good;
    std::string damage;
    switch (trial % 4) {
      case 0: {
        auto const flips = 1 + random() % 8;
        for (std::size_t i = 0; i < flips; ++i)
          bytes[random() % bytes.size()] ^= static_cast<char>(1 + random() % 255);
        damage = std::to_string(flips) + " bytes flipped";
        break;
      }
      case 1:
        bytes.resize(random() % bytes.size());
        damage = "cut at " + std::to_string(bytes.size());
        break;
      case 2: {
        auto const page = random() % (bytes.size() / 4096);
        std::fill(bytes.begin() + static_cast<std::ptrdiff_t>(page * 4096),
                  bytes.begin() + static_cast<std::ptrdiff_t>(page * 4096 + 4096), 0);
        damage = "page " + std::to_string(page) + " zeroed";
        break;
      }
      default:
        break;
    }
    WriteBytes(db, bytes);
    if (trial % 4 == 3) {
      damage = RowDamage(random, paths);
      try {
        test_support::SqliteFile(db).Exec(damage);
      } catch (std::exception const&) {
      }
    }
    SCOPED_TRACE("trial " + std::to_string(trial) + ": " + damage);

    Client client;
    int const rc = client.Open(db);
    if (rc != 0) {
      ASSERT_LT(rc, 0);
      std::ostringstream code;
      code << std::hex << rc;
      ++refused[code.str()];
      continue;
    }
    ++loaded;
    // Served: every call answers. (A damaged file may load into a tree that places a
    // stray row by its depth alone, so tree and file are not compared here.)
    for (int i = 0; i < 6; ++i) {
      auto const& path = paths[random() % paths.size()];
      auto const p = P(path);
      if (p.empty()) continue;
      Setting out;
      client.getter->GetSetting(p, out);
      client.valueSetter->SetValue(p, values.Scalar().value());
      client.setter->SetSetting(p, values.Tree(5));
      client.creator->CreateSetting(p, values.Tree(5));
      client.setter->SetAttribute(p, Attributes{values.Chance(50)});
      if (i % 3 == 2) client.deleter->DeleteSetting(p);
      calls += 6;
    }
  }
  std::ostringstream figures;
  figures << trials << " damaged files: " << loaded << " loaded and served " << calls
          << " calls without a crash, the rest refused with a code:";
  for (auto const& [code, n] : refused) figures << " " << code << " x" << n;
  Report("bad-input", figures.str());
}

// A tree as deep as the limit: loaded, copied, changed and deleted.
TEST(BadInput, ATreeAsDeepAsTheLimitLoadsAndChanges) {
  QuietLog quiet(tern::logger::LogLevel::Fatal);
  test_support::FaultVfs vfs;
  test_support::TempDir dir;
  auto const db = dir.File("settings.db");
  std::size_t const depth = settings_manager::kMaxDepth - 1;
  {
    Client client;
    ASSERT_EQ(client.Open(db), 0);
  }
  {
    test_support::SqliteFile file(db);
    file.Exec("BEGIN");
    std::vector<std::uint8_t> const map(16, 0);
    std::vector<std::uint8_t> mapRecord = map;
    mapRecord[0] = 2;
    std::vector<std::uint8_t> attrib(16, 0);
    attrib[2] = 1;
    std::string path;
    file.InsertRow({path, mapRecord, attrib});
    for (std::size_t i = 0; i < depth; ++i) {
      path += "d/";
      file.InsertRow({path, mapRecord, attrib});
    }
    file.Exec("COMMIT");
  }
  Client client;
  ASSERT_EQ(client.Open(db), 0);
  Setting top;
  ASSERT_EQ(client.getter->GetSetting(P("d"), top), 0);
  EXPECT_EQ(CountNodes(top), depth);
  uvc::Path deep(depth + 1, uvc::Id("d"));
  ASSERT_EQ(client.creator->CreateSetting(deep, Setting(true)), 0);
  deep.pop_back();
  ASSERT_EQ(client.creator->CreateSetting(deep, Setting(true)), fdn::rc::kFound);
  ASSERT_EQ(client.deleter->DeleteSetting(P("d")), 0);
  client.Close();
  Setting found;
  ASSERT_TRUE(Restart(db, found));
  EXPECT_EQ(CountNodes(found), 1u);
}

}  // namespace
}  // namespace reliability
