// Hostile shapes and sizes: input too deep, files that would blow up memory or that SQLite
// would read differently, doubles that only their bits tell apart, a full disk, a lock
// held too long, a reader who may not write. Each is refused with its code and its
// reason (LastResult), or done exactly; a refusal changes neither the tree nor the file.

#include <grp.h>
#include <sqlite3.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
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
      {"read at a path far too deep",
       [&](Client& c, FaultVfs&, std::string const&) {
         Setting out;
         return c.getter->GetSetting(deepPath, out);
       },
       kOutOfRange, "Path too deep: " + hugeText + " levels, the limit is 256"},
      {"create at a path far too deep",
       [&](Client& c, FaultVfs&, std::string const&) {
         return c.creator->CreateSetting(deepPath, Setting(1.0));
       },
       kOutOfRange, "Path too deep"},
      {"create a value far too deep",
       [&](Client& c, FaultVfs&, std::string const&) {
         return c.creator->CreateSetting(P("n"), deep.value);
       },
       kOutOfRange, "Setting too deep: a path of 1 levels and more than 255 levels"},
      {"set a value far too deep",
       [&](Client& c, FaultVfs&, std::string const&) {
         return c.valueSetter->SetValue(P("a"), deep.value.value());
       },
       kOutOfRange, "Setting too deep"},
      {"replace with a setting far too deep",
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
  Report("hostile", "far too deep: " + hugeText + " levels");
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
      Report("hostile",
             std::string(call.name) + ": refused in " + std::to_string(Milliseconds(took)) + " ms");
    }
    EXPECT_TRUE(Same(TreeOf(*client.getter, kKeys), tree));
    EXPECT_EQ(SqliteFile(db).DataRows(), rows);
  }
  // The disk works again, and so does the manager. A delete that finds the disk full once
  // gets the log's room back and succeeds on its second try.
  EXPECT_EQ(client.valueSetter->SetValue(P("a"), 3.0), 0);
  vfs.Arm({FaultVfs::Call::kWrite, 1, false, SQLITE_FULL});
  EXPECT_EQ(client.deleter->DeleteSetting(P("m")), 0);
  EXPECT_EQ(vfs.Injected(), 1u);
  vfs.Disarm();
  Setting stored;
  std::string error;
  ASSERT_TRUE(LoadFile(db, stored, error)) << error;
  EXPECT_TRUE(Same(stored, TreeOf(*client.getter, kKeys)));
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
       kOutOfRange,
       "[RawSetting] list gap: 65535 elements missing before 'list0/65535/', gaps may not "
       "hold more than the 601 rows read"},
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

std::uintmax_t Size(std::string const& path) {
  std::error_code error;
  auto const size = fs::file_size(path, error);
  return error ? 0 : size;
}

// A long-lived manager on a small disk: the log stays bounded, so that hundreds of
// settings fit; once the disk is full to the last byte, what is stored can still be read,
// by the manager and by another program, and deleting settings makes room again.
TEST(Hostile, OnA256KiBDiskTheLogStaysBoundedAndDeletingMakesRoom) {
  test_support::TempDir dir;
  auto const disk = dir.File("small");
  fs::create_directory(disk);
  if (::mount("tmpfs", disk.c_str(), "tmpfs", 0, "size=256k") != 0)
    GTEST_SKIP() << "mounting a small tmpfs needs root: " << std::strerror(errno);
  struct Unmount {
    std::string path;
    ~Unmount() { ::umount2(path.c_str(), MNT_DETACH); }
  } const unmount{disk};
  QuietLog quiet(tern::logger::LogLevel::Fatal);
  auto const db = disk + "/settings.db";
  auto const key = [](std::size_t i) { return P("k" + std::to_string(i)); };
  Client keeper;
  ASSERT_EQ(keeper.Open(db), 0);
  std::size_t created = 0;
  std::uintmax_t largestLog = 0, largestFile = 0;
  int rc = 0;
  while ((rc = keeper.creator->CreateSetting(key(created), Setting(std::string(200, 'v')))) == 0) {
    ++created;
    largestLog = std::max(largestLog, Size(db + "-wal"));
    largestFile = std::max(largestFile, Size(db));
  }
  EXPECT_TRUE(Refused(rc, fdn::rc::kInvalidResult, "[SMDB] Set: commit: database or disk is full"));
  EXPECT_GT(created, 300u);
  // One transaction (a top-level create rewrites every row) on top of the limit.
  EXPECT_LE(largestLog, db_wrappers::sqlite::kLogLimitBytes + largestFile * 2);
  Report("hostile", "a manager on a 256 KiB disk created " + std::to_string(created) +
                        " settings of 200 bytes; largest log " + std::to_string(largestLog) +
                        " bytes, largest file " + std::to_string(largestFile) + " bytes");

  // The last byte taken by something else.
  {
    std::ofstream ballast(disk + "/ballast", std::ios::binary);
    std::string const block(512, 'b');
    while (ballast.write(block.data(), block.size()) && ballast.flush()) {
    }
  }
  Setting out;
  EXPECT_EQ(keeper.getter->GetSetting(key(1), out), 0);
  {
    Client tool;  // another program, as settingsctl
    ASSERT_EQ(tool.Open(db), 0);
    EXPECT_EQ(tool.getter->GetSetting(key(1), out), 0);
    EXPECT_EQ(tool.deleter->DeleteSetting(key(0)), 0);
  }
  for (std::size_t i = 1; i < 20; ++i) EXPECT_EQ(keeper.deleter->DeleteSetting(key(i)), 0) << i;
  // The pages the deletes freed take a value larger than before.
  EXPECT_EQ(keeper.valueSetter->SetValue(key(20), std::string(2000, 'w')), 0);

  // With no program running, and no room left for a log and its index, a new manager
  // still reads the file; its changes fail with the reason.
  keeper.Close();
  {
    std::ofstream ballast(disk + "/ballast2", std::ios::binary);
    std::string const block(512, 'b');
    while (ballast.write(block.data(), block.size()) && ballast.flush()) {
    }
  }
  Client late;
  ASSERT_EQ(late.Open(db), 0);
  EXPECT_EQ(late.getter->GetSetting(key(20), out), 0);
  EXPECT_EQ(out, Setting(std::string(2000, 'w')));
  EXPECT_TRUE(Refused(late.deleter->DeleteSetting(key(21)), fdn::rc::kMediaError,
                      "attempt to write a readonly database: the file is open read-only"));
}

// Runs `body` in a process of its own as the user and group `id`; its exit code.
int RunAs(uid_t id, std::function<int()> const& body) {
  pid_t const child = ::fork();
  if (child == 0) {
    if (::setgroups(0, nullptr) != 0 || ::setgid(id) != 0 || ::setuid(id) != 0) ::_exit(100);
    ::_exit(body());
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 101;
}

// In a child: 0 when `rc` is `code` and LastResult says `reason`, else `step`.
int Expect(int step, int rc, int code, char const* reason) {
  auto const last = LastResult();
  if (rc == code && (reason == nullptr || last.second.find(reason) != std::string::npos)) return 0;
  std::fprintf(stderr, "step %d: %x '%s'\n", step, static_cast<unsigned>(rc), last.second.c_str());
  return step;
}

// The files in `folder` that `id` owns.
std::vector<std::string> OwnedBy(std::string const& folder, uid_t id) {
  std::vector<std::string> names;
  for (auto const& entry : fs::directory_iterator(folder)) {
    struct stat status {};
    if (::stat(entry.path().c_str(), &status) == 0 && status.st_uid == id)
      names.push_back(entry.path().filename().string());
  }
  return names;
}

// A user who may only read the file reads it and leaves nothing that keeps its owner from
// writing: not while the owner's program runs, nor after it ended. Writes through the
// reader's manager, a file the user may not read, and a folder nobody may write all fail
// with their reason.
TEST(Hostile, AReaderWhoMayNotWriteLeavesNothingThatBlocksTheOwner) {
  if (::geteuid() != 0) GTEST_SKIP() << "running as other users needs root";
  constexpr uid_t kOwner = 1000, kReader = 65534;
  QuietLog quiet(tern::logger::LogLevel::Fatal);
  test_support::TempDir dir;
  auto const folder = dir.Path().string();
  ::chmod(folder.c_str(), 01777);
  auto const db = dir.File("settings.db");
  auto const reader = [&db](char const* reason) {
    return [&db, reason] {
      Client client;
      if (int const rc = client.Open(db); rc != 0) return Expect(1, rc, 0, nullptr);
      Setting out;
      if (int const e = Expect(2, client.getter->GetSetting(P("a"), out), 0, nullptr)) return e;
      if (out != Setting(std::int32_t{1})) return 3;
      return Expect(4, client.valueSetter->SetValue(P("a"), std::int32_t{2}), fdn::rc::kMediaError,
                    reason);
    };
  };
  char const* const readOnly =
      "attempt to write a readonly database: the file is open read-only, as this process may "
      "not write it or its folder";

  // The owner's program runs: its log and index are there, and the reader uses them.
  int ready[2], resume[2];
  ASSERT_EQ(::pipe(ready), 0);
  ASSERT_EQ(::pipe(resume), 0);
  pid_t const owner = ::fork();
  if (owner == 0) {
    ::_exit(RunAs(kOwner, [&] {
      Client client;
      int rc = client.Open(db);
      if (rc == 0) rc = client.creator->CreateSetting(P("a"), std::int32_t{1});
      char byte = 0;
      if (::write(ready[1], &byte, 1) != 1 || ::read(resume[0], &byte, 1) != 1) return 102;
      if (rc == 0) rc = client.valueSetter->SetValue(P("a"), std::int32_t{3});
      return Expect(5, rc, 0, nullptr);
    }));
  }
  char byte = 0;
  ASSERT_EQ(::read(ready[0], &byte, 1), 1);
  EXPECT_EQ(RunAs(kReader, reader(readOnly)), 0);
  EXPECT_EQ(OwnedBy(folder, kReader), std::vector<std::string>());
  ASSERT_EQ(::write(resume[1], &byte, 1), 1);
  int status = 0;
  ::waitpid(owner, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;

  // The owner's program has ended: only the file is left, and the reader reads it as it is.
  ASSERT_FALSE(fs::exists(db + "-wal"));
  auto const back = [&db](std::int32_t value) {
    return [&db, value] {
      Client client;
      if (int const rc = client.Open(db); rc != 0) return Expect(6, rc, 0, nullptr);
      return Expect(7, client.setter->SetSetting(P("a"), Setting(value)), 0, nullptr);
    };
  };
  EXPECT_EQ(RunAs(kOwner, back(1)), 0);
  EXPECT_EQ(RunAs(kReader, reader(readOnly)), 0);
  EXPECT_EQ(OwnedBy(folder, kReader), std::vector<std::string>());
  EXPECT_EQ(RunAs(kOwner, back(4)), 0);

  // A file the reader may not read; a folder in which not even the owner may make files.
  ::chmod(db.c_str(), 0600);
  EXPECT_EQ(RunAs(kReader,
                  [&db] {
                    Client client;
                    return Expect(8, client.Open(db), fdn::rc::kMediaError,
                                  "unable to open database file: Permission denied");
                  }),
            0);
  ::chmod(folder.c_str(), 0555);
  EXPECT_EQ(RunAs(kOwner,
                  [&db] {
                    Client client;
                    if (int const rc = client.Open(db); rc != 0) return Expect(9, rc, 0, nullptr);
                    return Expect(10, client.valueSetter->SetValue(P("a"), std::int32_t{5}),
                                  fdn::rc::kMediaError, "attempt to write a readonly database");
                  }),
            0);
  ::chmod(folder.c_str(), 0700);
}

}  // namespace
}  // namespace reliability
