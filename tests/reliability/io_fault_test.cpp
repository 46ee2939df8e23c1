// A failing disk must never leave the tree and the file apart. For every operation of the
// manager, and for every read, write, sync, lock and truncate it makes, the fault VFS
// fails that one call (or it and every later one; or reports a full disk): the operation
// must succeed or return a failure code, its tree must be the one before or the one after
// it, whole, a manager opened on the file beside it must load that same tree, and the
// manager must go on working once the disk does.

#include <sqlite3.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>

#include "db_wrappers/sqlite/database.h"
#include "fdn/result_codes.h"
#include "reliability_util.h"
#include "support/fault_vfs.h"
#include "support/temp_dir.h"

namespace reliability {
namespace {

namespace ix = uvc::index;
using test_support::FaultVfs;
using Bytes = std::vector<char>;

Setting MapOf(std::initializer_list<std::pair<std::string const, Setting>> entries) {
  Setting s;
  s.emplace<ix::kMap>(entries);
  return s;
}

Setting ListOf(std::initializer_list<Setting> elements) {
  Setting s;
  s.emplace<ix::kList>(elements);
  return s;
}

Setting ReadOnly(Setting s) {
  s.attributes.readOnly = true;
  return s;
}

void ClearReadOnly(Setting& s) {
  s.attributes.readOnly = false;
  if (auto* list = std::get_if<ix::kList>(&s))
    for (auto& child : *list) ClearReadOnly(child);
  if (auto* map = std::get_if<ix::kMap>(&s))
    for (auto& entry : *map) ClearReadOnly(entry.second);
}

// The tree every operation starts from: small settings and one big writable subtree.
Setting StartTree(std::uint64_t seed) {
  std::mt19937_64 random(seed);
  Values values(random);
  Setting big = MapOf({});
  auto& map = std::get<ix::kMap>(big);
  for (char c = 'a'; c <= 'h'; ++c) map.emplace(std::string(1, c), values.Tree(25));
  ClearReadOnly(big);
  return MapOf({
      {"sys", MapOf({{"a", Setting(std::uint16_t{8080})},
                     {"b", Setting(std::string("x"))},
                     {"c", MapOf({{"d", ListOf({Setting(1.0), Setting(2.0)})},
                                  {"e", Setting(std::vector<std::uint8_t>{1, 2})}})},
                     {"ro", ReadOnly(Setting(std::int32_t{-1}))}})},
      {"net", MapOf({{"dns", ListOf({Setting(std::string("192.0.2.1")),
                                     Setting(std::string("192.0.2.2"))})},
                     {"port", Setting(std::uint16_t{22})}})},
      {"app", std::move(big)},
  });
}

struct Scenario {
  std::string name;
  std::function<int(Client&)> op;  // empty: the operation is the start-up itself
  bool newFile = false;
  bool listIndexCreate = false;  // a failed create leaves a None placeholder in memory
};

std::vector<Scenario> Scenarios(std::uint64_t seed) {
  std::mt19937_64 random(seed + 1);
  Values values(random);
  Setting bigValue = MapOf({});
  for (char const* key : {"p", "q", "r", "s"})
    std::get<ix::kMap>(bigValue).emplace(key, values.Tree(30));
  Setting const subtree = ReadOnly(MapOf({{"k", Setting(true)}, {"l", ListOf({Setting()})}}));
  return {
      {"start-up on the file", {}, false, false},
      {"start-up on a new file", {}, true, false},
      {"create top-level (rewrites the whole tree)",
       [bigValue](Client& c) { return c.creator->CreateSetting(P("user"), bigValue); }},
      {"create nested",
       [subtree](Client& c) { return c.creator->CreateSetting(P("sys/c/new"), subtree); }},
      {"create with missing levels",
       [](Client& c) {
         return c.creator->CreateSetting(P("net/x/y/z"), Setting(std::int64_t{7}));
       }},
      {"create list element by index",
       [](Client& c) {
         return c.creator->CreateSetting(P("net/dns/3"), Setting(std::string("192.0.2.3")));
       },
       false, true},
      {"set value",
       [](Client& c) { return c.valueSetter->SetValue(P("sys/a"), std::uint16_t{9090}); }},
      {"set value of a big subtree",
       [bigValue](Client& c) { return c.valueSetter->SetValue(P("app"), bigValue.value()); }},
      {"replace subtree",
       [subtree](Client& c) { return c.setter->SetSetting(P("sys/c"), subtree); }},
      {"set attribute",
       [](Client& c) { return c.setter->SetAttribute(P("sys/b"), Attributes{true}); }},
      {"delete", [](Client& c) { return c.deleter->DeleteSetting(P("sys/c")); }},
      {"delete a big subtree", [](Client& c) { return c.deleter->DeleteSetting(P("app")); }},
  };
}

Bytes ReadBytes(std::string const& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), {});
}

// Puts the start file in place, without its log and shared-memory index.
void Restore(std::string const& path, Bytes const& bytes) {
  std::error_code ignored;
  for (char const* suffix : {"", "-wal", "-shm", "-journal"})
    std::filesystem::remove(path + suffix, ignored);
  if (!bytes.empty())
    std::ofstream(path, std::ios::binary)
        .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

struct Kind {
  FaultVfs::Call call;
  int code;
  bool persistentToo;
  char const* name;
};

enum class Journal { kWal, kRollback };

class IoFaults : public ::testing::TestWithParam<Journal> {};

TEST_P(IoFaults, EveryOperationFailsCleanlyAtEveryReadWriteSyncAndLock) {
  QuietLog quiet(tern::logger::LogLevel::Fatal);
  auto const seed = TestSeed("IoFaults");
  bool const rollback = GetParam() == Journal::kRollback;
  FaultVfs vfs;
  test_support::TempDir dir;
  auto const db = dir.File("settings.db");

  // The start file, written through a manager and closed (the log folded into it). A file
  // that exists keeps its journal mode: the rollback variant makes one in DELETE mode.
  Setting const start = StartTree(seed);
  if (rollback) MakeRollbackFile(db);
  {
    Client writer;
    ASSERT_EQ(writer.Open(db), 0);
    ASSERT_EQ(Seed(writer, start), 0);
  }
  Bytes const startFile = ReadBytes(db);
  ASSERT_FALSE(startFile.empty());

  Kind const kinds[] = {
      {FaultVfs::Call::kRead, 0, true, "read"},
      {FaultVfs::Call::kWrite, 0, true, "write"},
      {FaultVfs::Call::kWrite, SQLITE_FULL, true, "full disk"},
      {FaultVfs::Call::kSync, 0, true, "sync"},
      {FaultVfs::Call::kTruncate, 0, true, "truncate"},
      {FaultVfs::Call::kDelete, 0, true, "unlink"},
      {FaultVfs::Call::kOpen, 0, true, "open"},
      {FaultVfs::Call::kLock, 0, true, "lock"},
      {FaultVfs::Call::kLock, SQLITE_BUSY, false, "busy lock"},
  };
  // Sanitizer builds try every other point, and the rollback variant every other one
  // again: its commits make three times the calls.
  std::uint64_t const stride = (SanitizerBuild() ? 2 : 1) * (rollback ? 2 : 1);
  std::size_t points = 0, failed = 0, succeeded = 0;
  std::map<std::string, std::size_t> byKind;

  std::size_t operations = 0;
  for (auto const& scenario : Scenarios(seed)) {
    SCOPED_TRACE(scenario.name);
    if (rollback && scenario.newFile) continue;  // a new file is always made in WAL mode
    ++operations;
    bool const startUp = !scenario.op;
    Bytes const& file = scenario.newFile ? Bytes() : startFile;
    Setting const before = scenario.newFile ? MapOf({}) : start;

    // The expected answer and tree after it, from a manager in memory.
    int expected = 0;
    Setting after = before;
    if (!startUp) {
      Client oracle;
      ASSERT_EQ(oracle.Open(""), 0);
      ASSERT_EQ(Seed(oracle, before), 0);
      expected = scenario.op(oracle);
      ASSERT_EQ(expected, 0);
      after = TreeOf(*oracle.getter);
    }
    // The tree a failed create of a list element leaves in memory: a None placeholder.
    Setting placeholder = before;
    if (scenario.listIndexCreate) {
      auto& net = std::get<ix::kMap>(placeholder)["net"];
      auto& dns = std::get<ix::kList>(std::get<ix::kMap>(net)["dns"]);
      dns.resize(4);  // the gap before index 3, and index 3 reset
    }

    // A run without faults counts the calls of each kind the operation makes.
    Restore(db, file);
    FaultVfs::Counts counts{};
    {
      Client client;
      if (!startUp) {
        ASSERT_EQ(client.Open(db), 0);
      }
      vfs.ResetCalls();
      ASSERT_EQ(startUp ? client.Open(db) : scenario.op(client), expected);
      counts = vfs.Calls();
    }

    for (auto const& kind : kinds) {
      auto const calls = counts[static_cast<std::size_t>(kind.call)];
      for (int persistent = 0; persistent <= (kind.persistentToo ? 1 : 0); ++persistent) {
        for (std::uint64_t nth = 1; nth <= calls + 1; nth += stride) {
          std::ostringstream where;
          where << scenario.name << ": " << kind.name << " " << nth << " of " << calls
                << (persistent ? " and every later one" : "");
          Restore(db, file);
          Client client;
          if (!startUp) {
            ASSERT_EQ(client.Open(db), 0) << where.str();
          }
          vfs.Arm({kind.call, nth, persistent != 0, kind.code});
          int const rc = startUp ? client.Open(db) : scenario.op(client);
          vfs.Disarm();
          ++points;
          ++byKind[kind.name];
          ASSERT_TRUE(rc == expected || rc < 0) << where.str() << ": answered " << rc;
          (rc == expected ? succeeded : failed) += 1;

          if (startUp && rc != 0) {
            // Refused: the file must be as it was, and open now.
            Setting found;
            ASSERT_TRUE(Restart(db, found)) << where.str();
            ASSERT_TRUE(Same(found, before)) << where.str();
            continue;
          }
          Setting const memory = TreeOf(*client.getter);
          Setting const& want = rc == expected             ? after
                                : scenario.listIndexCreate ? placeholder
                                                           : before;
          // A create that failed before it grew the tree (its transaction could not
          // begin, or the file not be read) leaves no placeholder.
          bool const untouched = rc != expected && Same(memory, before);
          ASSERT_TRUE(Same(memory, want) || untouched)
              << where.str() << ": answered " << std::hex << rc << "\nmemory: " << Describe(memory);
          // What a manager opened beside it loads.
          {
            Client fresh;
            ASSERT_EQ(fresh.Open(db), 0) << where.str();
            Setting const& onFile = rc == expected ? after : before;
            ASSERT_TRUE(Same(TreeOf(*fresh.getter), onFile))
                << where.str() << ": answered " << std::hex << rc
                << "\nfile: " << Describe(TreeOf(*fresh.getter));
          }
          // The disk works again: so does the manager, and the file follows it.
          int const canary =
              client.creator->CreateSetting(P("net/canary"), Setting(std::int8_t{1}));
          ASSERT_EQ(canary, 0) << where.str() << ": the next change answered " << std::hex
                               << canary;
          Setting const last = TreeOf(*client.getter);
          client.Close();
          Setting found;
          ASSERT_TRUE(Restart(db, found)) << where.str();
          // (The canary's create rewrites all of net/, a placeholder too.)
          ASSERT_TRUE(Same(found, last))
              << where.str() << "\nfile: " << Describe(found) << "\nmemory: " << Describe(last);
        }
      }
    }
  }
  std::ostringstream figures;
  figures << points << " fault points tried over " << operations << " operations ("
          << (rollback ? "rollback journal" : "WAL") << "; ";
  for (auto const& [name, n] : byKind) figures << name << " " << n << ", ";
  figures << "once and from then on): " << failed << " answered a failure code, " << succeeded
          << " succeeded, every tree whole and equal to its file, nothing crashed";
  Report("io-faults", figures.str());
}

INSTANTIATE_TEST_SUITE_P(Journals, IoFaults, ::testing::Values(Journal::kWal, Journal::kRollback),
                         [](::testing::TestParamInfo<Journal> const& param) {
                           return param.param == Journal::kWal ? std::string("Wal")
                                                               : std::string("RollbackJournal");
                         });

// What durability costs: the syncs one change makes, in the mode of a new file (WAL)
// and in a file that keeps a rollback journal.
TEST(DurabilityCost, AChangeCostsOneSyncOfTheLogAndItsShareOfACheckpointInWalMode) {
  QuietLog quiet;
  FaultVfs vfs;
  test_support::TempDir dir;
  std::ostringstream figures;
  for (bool const rollback : {false, true}) {
    auto const db = dir.File(rollback ? "rollback.db" : "wal.db");
    if (rollback) MakeRollbackFile(db);
    Client client;
    ASSERT_EQ(client.Open(db), 0);
    ASSERT_EQ(client.creator->CreateSetting(P("net/port"), std::uint16_t{1}), 0);
    std::size_t const changes = 50;
    vfs.ResetCalls();
    for (std::size_t i = 0; i < changes; ++i)
      ASSERT_EQ(client.valueSetter->SetValue(P("net/port"), static_cast<std::uint16_t>(i + 2)), 0);
    double const syncs = static_cast<double>(vfs.Calls(FaultVfs::Call::kSync)) / changes;
    double const writes = static_cast<double>(vfs.Calls(FaultVfs::Call::kWrite)) / changes;
    if (!rollback) {
      // One sync of the log per change, and two (log and file) per checkpoint, which
      // comes each time the log has taken kCheckpointPages pages.
      EXPECT_GE(syncs, 1.0);
      EXPECT_LE(syncs, 1.0 + 2.0 * writes / db_wrappers::sqlite::kCheckpointPages);
    }
    figures << (rollback ? "; rollback journal: " : "WAL: ") << syncs << " syncs and " << writes
            << " writes per change";
  }
  Report("durability-cost", figures.str());
}

}  // namespace
}  // namespace reliability
