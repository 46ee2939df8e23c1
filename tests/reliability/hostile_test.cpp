// Hostile shapes and sizes: input too deep, files that would blow up memory or that SQLite
// would read differently, doubles that only their bits tell apart, a full disk, a lock
// held too long, a reader who may not write. Each is refused with its code and its
// reason (LastResult), or done exactly; a refusal changes neither the tree nor the file.

#include <sqlite3.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>

#include "db_wrappers/sqlite/database.h"
#include "fdn/result_codes.h"
#include "reliability_util.h"
#include "settings_manager/last_result.h"
#include "settings_manager/limits.h"
#include "support/fault_vfs.h"
#include "support/sqlite_file.h"
#include "support/temp_dir.h"

namespace reliability {
namespace {

namespace fs = std::filesystem;
namespace ix = uvc::index;
using settings_manager::kMaxDepth;
using settings_manager::LastResult;
using test_support::FaultVfs;
using test_support::SqliteFile;

constexpr int kOutOfRange = fdn::rc::kOutOfRange;
std::vector<std::string> const kKeys = {"a", "l", "m"};

double Milliseconds(std::chrono::steady_clock::duration d) {
  return std::chrono::duration<double, std::milli>(d).count();
}

std::string ReadBytes(std::string const& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// A value `levels` deep (one-element lists down to a bool), made and unmade without
// recursion, as a client must for a value this deep.
struct Chain {
  explicit Chain(std::size_t levels) : value(true) {
    for (std::size_t i = 0; i < levels; ++i) {
      Setting outer;
      outer.emplace<ix::kList>().push_back(std::move(value));
      value = std::move(outer);
    }
  }
  ~Chain() {
    for (auto* list = std::get_if<ix::kList>(&value); list != nullptr && !list->empty();
         list = std::get_if<ix::kList>(&value)) {
      Setting inner = std::move(list->back());
      value = std::move(inner);
    }
  }
  Setting value;
};

// `rc` is `code`, and the calling thread's LastResult has that code and says `reason`.
::testing::AssertionResult Refused(int rc, int code, std::string const& reason) {
  auto const last = LastResult();
  if (rc == code && last.first == code && last.second.find(reason) != std::string::npos)
    return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure()
         << std::hex << "got " << rc << ", last result " << last.first << " '" << last.second
         << "'; expected " << code << " '" << reason << "'";
}

Setting StartTree() {
  Setting root;
  auto& map = root.emplace<ix::kMap>();
  map.emplace("a", Setting(0.0));
  map["l"].emplace<ix::kList>(std::vector<Setting>{Setting(std::int32_t{1}), Setting(false)});
  map["m"].emplace<ix::kMap>().emplace("x", Setting(std::string("y")));
  return root;
}

struct Call {
  char const* name;
  std::function<int(Client&, FaultVfs&, std::string const& db)> run;
  int code;
  std::string reason;
};

TEST(Hostile, CallsTooDeepOrMetByAFullDiskOrALockAreRefusedWithTheirReason) {
  QuietLog quiet(tern::logger::LogLevel::Fatal);
  FaultVfs vfs;
  test_support::TempDir dir;
  auto const db = dir.File("settings.db");
  Client client;
  ASSERT_EQ(client.Open(db), 0);
  ASSERT_EQ(Seed(client, StartTree()), 0);

  std::size_t const huge = Scaled(1'000'000, 100'000);
  auto const hugeText = std::to_string(huge);
  uvc::Path const deepPath(huge, uvc::Id(std::in_place_index<1>, "d"));
  uvc::Path const atLimit(kMaxDepth, uvc::Id(std::in_place_index<1>, "d"));
  Chain const deep(huge);
  auto const full = [](FaultVfs& v) { v.Arm({FaultVfs::Call::kWrite, 1, true, SQLITE_FULL}); };
  std::vector<Call> const calls = {
      {"read at a path a million levels deep",
       [&](Client& c, FaultVfs&, std::string const&) {
         Setting out;
         return c.getter->GetSetting(deepPath, out);
       },
       kOutOfRange, "Path too deep: " + hugeText + " levels, the limit is 256"},
      {"create at a path a million levels deep",
       [&](Client& c, FaultVfs&, std::string const&) {
         return c.creator->CreateSetting(deepPath, Setting(1.0));
       },
       kOutOfRange, "Path too deep"},
      {"create a value a million levels deep",
       [&](Client& c, FaultVfs&, std::string const&) {
         return c.creator->CreateSetting(P("n"), deep.value);
       },
       kOutOfRange, "Setting too deep: a path of 1 levels and more than 255 levels"},
      {"set a value a million levels deep",
       [&](Client& c, FaultVfs&, std::string const&) {
         return c.valueSetter->SetValue(P("a"), deep.value.value());
       },
       kOutOfRange, "Setting too deep"},
      {"replace with a setting a million levels deep",
       [&](Client& c, FaultVfs&, std::string const&) {
         return c.setter->SetSetting(P("m"), deep.value);
       },
       kOutOfRange, "Setting too deep"},
      {"create one level past the limit",
       [&](Client& c, FaultVfs&, std::string const&) {
         Setting map;
         map.emplace<ix::kMap>().emplace("x", Setting(1.0));
         return c.creator->CreateSetting(atLimit, map);
       },
       kOutOfRange, "Setting too deep: a path of 256 levels and more than 0 levels"},
      {"create on a full disk",
       [&](Client& c, FaultVfs& v, std::string const&) {
         full(v);
         return c.creator->CreateSetting(P("n"), Setting(1.0));
       },
       fdn::rc::kInvalidResult, "[SMDB] Set: commit: database or disk is full"},
      {"delete on a full disk",
       [&](Client& c, FaultVfs& v, std::string const&) {
         full(v);
         return c.deleter->DeleteSetting(P("m"));
       },
       fdn::rc::kMediaError, "/ 'database or disk is full'"},
      {"change on a failing disk",
       [&](Client& c, FaultVfs& v, std::string const&) {
         v.Arm({FaultVfs::Call::kWrite, 1, true, 0});
         return c.valueSetter->SetValue(P("a"), 2.0);
       },
       fdn::rc::kInvalidResult, "[SMDB] Set: commit: disk I/O error"},
      {"change while another process holds the lock",
       [&](Client& c, FaultVfs&, std::string const& file) {
         SqliteFile other(file);
         other.Exec("BEGIN IMMEDIATE");
         return c.valueSetter->SetValue(P("a"), 2.0);
       },
       fdn::rc::kInvalidResult,
       "[SMDB] Set: begin transaction: database is locked by another connection for longer "
       "than the busy timeout of 5000 ms"},
  };
  auto const tree = TreeOf(*client.getter, kKeys);
  auto const rows = SqliteFile(db).DataRows();
  for (auto const& call : calls) {
    SCOPED_TRACE(call.name);
    auto const start = std::chrono::steady_clock::now();
    int const rc = call.run(client, vfs, db);
    auto const took = std::chrono::steady_clock::now() - start;
    vfs.Disarm();
    EXPECT_TRUE(Refused(rc, call.code, call.reason));
    if (call.code == kOutOfRange) {
      EXPECT_LT(Milliseconds(took), 500.0);
    }
    if (call.name == calls.front().name)
      Report("hostile", "a path " + hugeText + " levels deep refused in " +
                            std::to_string(Milliseconds(took)) + " ms");
    EXPECT_TRUE(Same(TreeOf(*client.getter, kKeys), tree));
    EXPECT_EQ(SqliteFile(db).DataRows(), rows);
  }
  // The disk works again, and so does the manager.
  EXPECT_EQ(client.valueSetter->SetValue(P("a"), 3.0), 0);
}

// A file of its own for each case, refused at start-up with nothing changed beside it.
struct BadFile {
  char const* name;
  std::function<void(std::string const&)> make;
  int code;
  char const* reason;
};

void InsertMap(SqliteFile& file, std::string const& path, std::uint8_t index = 2,
               std::uint8_t word = 0) {
  auto value = test_support::Bytes({index, 0, 0, 0, 0, 0, 0, 0, word, 0, 0, 0, 0, 0, 0, 0});
  file.InsertRow(
      {path, value, test_support::Bytes({0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0})});
}

void MakeEmptyStore(std::string const& path) {
  Client client;
  ASSERT_EQ(client.Open(path), 0);
}

TEST(Hostile, FilesThatWouldBeMisreadOrBlowUpAreRefusedAtOpen) {
  QuietLog quiet(tern::logger::LogLevel::Fatal);
  std::vector<BadFile> const files = {
      {"not a database", [](std::string const& p) { std::ofstream(p) << std::string(8192, 'x'); },
       fdn::rc::kMediaError, "file is not a database"},
      {"a newer schema version",
       [](std::string const& p) {
         MakeEmptyStore(p);
         SqliteFile(p).Exec("UPDATE meta SET value = '2'");
       },
       fdn::rc::kInvalidResult, "[SMDB] Unexpected schema version: '2'"},
      {"text in UTF-16",
       [](std::string const& p) {
         SqliteFile file(p);
         file.Exec(
             "PRAGMA encoding = 'UTF-16le'; CREATE TABLE data (path TEXT NOT NULL UNIQUE, "
             "value BLOB NOT NULL, attrib BLOB NOT NULL); CREATE TABLE meta (key TEXT NOT "
             "NULL UNIQUE, value TEXT NOT NULL); INSERT INTO meta VALUES ('ver', '1');");
       },
       fdn::rc::kNotSupported, "[SMDB] Unsupported text encoding: 'UTF-16le'"},
      {"rows deeper than the limit",
       [](std::string const& p) {
         MakeEmptyStore(p);
         SqliteFile file(p);
         std::string path;
         for (std::size_t i = 0; i <= kMaxDepth + 1; ++i, path += "d/") InsertMap(file, path);
       },
       kOutOfRange, "[RawSetting] path too deep: 257 levels, the limit is 256"},
      {"lists of one element each, at index 65535",
       [](std::string const& p) {
         MakeEmptyStore(p);
         SqliteFile file(p);
         file.Exec("BEGIN");
         InsertMap(file, "");
         for (int i = 0; i < 300; ++i) {
           auto const list = "list" + std::to_string(i) + "/";
           InsertMap(file, list, 1, 1);
           InsertMap(file, list + "65535/", 0);
         }
         file.Exec("COMMIT");
       },
       kOutOfRange, "[RawSetting] list gap: 65535 elements missing before 'list0/65535/', only"},
  };
  for (auto const& bad : files) {
    SCOPED_TRACE(bad.name);
    test_support::TempDir dir;
    auto const db = dir.File("settings.db");
    bad.make(db);
    auto const bytes = ReadBytes(db);
    std::shared_ptr<settings_manager::ISettingsManager> manager;
    auto const start = std::chrono::steady_clock::now();
    int const rc = settings_manager::CreateSettingsManager({db}, manager);
    auto const took = std::chrono::steady_clock::now() - start;
    EXPECT_TRUE(Refused(rc, bad.code, bad.reason));
    EXPECT_EQ(manager, nullptr);
    EXPECT_EQ(ReadBytes(db), bytes);
    EXPECT_FALSE(fs::exists(db + "-wal") && fs::file_size(db + "-wal") > 0);
    if (bad.code == kOutOfRange)
      Report("hostile", std::string(bad.name) + ": a file of " + std::to_string(bytes.size()) +
                            " bytes refused in " + std::to_string(Milliseconds(took)) + " ms");
  }
}

std::uint64_t Bits(double d) {
  std::uint64_t bits = 0;
  std::memcpy(&bits, &d, sizeof bits);
  return bits;
}

// The word of the value record stored for `path`.
std::uint64_t StoredWord(std::string const& db, std::string const& path) {
  for (auto const& row : SqliteFile(db).DataRows())
    if (row.path == path) {
      std::uint64_t word = 0;
      for (int i = 0; i < 8; ++i) word |= std::uint64_t{row.value[8 + i]} << (8 * i);
      return word;
    }
  return 0xDEAD;
}

TEST(Hostile, DoublesCompareByTheirBits) {
  QuietLog quiet(tern::logger::LogLevel::Fatal);
  test_support::TempDir dir;
  auto const db = dir.File("settings.db");
  Client client;
  ASSERT_EQ(client.Open(db), 0);
  ASSERT_EQ(client.creator->CreateSetting(P("d"), Setting(0.0)), 0);
  double const nan1 = std::nan("1"), nan2 = std::nan("2");
  struct Step {
    double value;
    int code;
  };
  // Each value is set over the one before it.
  for (auto const& [value, code] : std::vector<Step>{
           {-0.0, 0}, {-0.0, 1}, {0.0, 0}, {nan1, 0}, {nan1, 1}, {nan2, 0}, {-nan2, 0}}) {
    SCOPED_TRACE(Bits(value));
    EXPECT_EQ(client.valueSetter->SetValue(P("d"), value), code);
    EXPECT_EQ(StoredWord(db, "d/"), Bits(value));
    Setting out;
    ASSERT_EQ(client.getter->GetSetting(P("d"), out), 0);
    EXPECT_EQ(Bits(std::get<double>(out)), Bits(value));
    EXPECT_EQ(client.setter->SetSetting(P("d"), Setting(value)), 1);
    EXPECT_EQ(client.creator->CreateSetting(P("d"), Setting(value)), 1);
    EXPECT_EQ(client.creator->CreateSetting(P("d"), Setting(value == 0 ? -value : 1.0)),
              fdn::rc::kFound);
  }
  client.Close();
  ASSERT_EQ(client.Open(db), 0);
  Setting reloaded;
  ASSERT_EQ(client.getter->GetSetting(P("d"), reloaded), 0);
  EXPECT_EQ(Bits(std::get<double>(reloaded)), Bits(-nan2));
}

}  // namespace
}  // namespace reliability
