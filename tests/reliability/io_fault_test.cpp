// A failing disk must never leave the tree and the file apart. For every operation, and
// for every read, write, sync, truncate and unlink it makes, the fault VFS fails that one
// call (or it and every later one; or reports a full disk): the operation must succeed or
// return a failure code, its tree must be the one before or after it, a manager opened on
// the file beside it must load that same tree, and the manager must go on working once the
// disk does.

#include <sqlite3.h>

#include <filesystem>
#include <fstream>
#include <functional>

#include "reliability.h"
#include "support/fault_vfs.h"
#include "support/settings.h"
#include "support/sqlite_file.h"
#include "support/temp_dir.h"

namespace reliability {
namespace {

using test_support::FaultVfs;
using test_support::MapOf;

// (A file in rollback-journal mode meets failing writes, syncs, truncates and deletes at
// every moment in the power-cut suite.)
TEST(IoFaults, EveryOperationFailsCleanlyAtEveryReadWriteSyncAndTruncate) {
  FaultVfs vfs;
  test_support::TempDir dir;
  auto const db = dir.File("settings.db");
  Setting const start =
      MapOf({{"sys", MapOf({{"a", test_support::Int(1, true)}, {"c", MapOf({{"d", MapOf({})}})}})},
             {"app", std::string(9000, 'a')}});
  // The start file, written through a manager and closed.
  {
    Client writer;
    ASSERT_EQ(writer.Open(db), 0);
    ASSERT_EQ(Seed(writer, start), 0);
  }
  std::string const startFile = ReadBytes(db);
  Setting const big = MapOf({{"u", std::string(6000, 'u')}}), subtree = MapOf({}, true);
  // No operation: the start-up itself, on the file or on a new one.
  std::pair<char const*, std::function<int(Client&)>> const scenarios[] = {
      {"start-up on the file", {}},
      {"start-up on a new file", {}},
      {"create", [&](Client& c) { return c.creator->CreateSetting(P("user/x"), big); }},
      {"set value", [&](Client& c) { return c.valueSetter->SetValue(P("app"), big.value()); }},
      {"replace subtree", [&](Client& c) { return c.setter->SetSetting(P("sys/c"), subtree); }},
      {"set attribute", [](Client& c) { return c.setter->SetAttribute(P("sys/a"), {false}); }},
      {"delete", [](Client& c) { return c.deleter->DeleteSetting(P("app")); }},
  };
  std::pair<FaultVfs::Call, int> const kinds[] = {
      {FaultVfs::kRead, 0}, {FaultVfs::kWrite, 0},    {FaultVfs::kWrite, SQLITE_FULL},
      {FaultVfs::kSync, 0}, {FaultVfs::kTruncate, 0}, {FaultVfs::kDelete, 0}};
  std::uint64_t const stride = kSanitizerBuild ? 2 : 1;  // sanitizer builds: every other point
  std::size_t points = 0, failed = 0;
  for (auto const& scenario : scenarios) {
    char const* const name = scenario.first;
    auto const& op = scenario.second;
    bool const newFile = std::string(name).find("new") != std::string::npos;
    Setting const before = newFile ? MapOf({}) : start;
    // Puts the start file in place, opens a manager (unless the operation is the
    // start-up), arms `fault`, and runs the operation: its answer, and in `hit` whether
    // the fault came.
    bool hit = false;
    auto const run = [&](Client& client, std::optional<FaultVfs::Fault> const& fault) {
      for (char const* suffix : {"", "-wal", "-shm", "-journal"})
        std::filesystem::remove(db + suffix);
      if (!newFile) std::ofstream(db, std::ios::binary) << startFile;
      if (op && client.Open(db) != 0) return -1;
      vfs.Arm(fault);
      int const rc = op ? op(client) : client.Open(db);
      hit = vfs.Injected() > 0;
      vfs.Arm(std::nullopt);
      return rc;
    };
    Client probe;  // a run without faults: the tree after it
    ASSERT_EQ(run(probe, std::nullopt), 0) << name;
    Setting const after = TreeOf(probe);
    probe.Close();
    for (auto const& [call, code] : kinds) {
      for (int persistent = 0; persistent <= 1; ++persistent) {
        // Each call of the kind in turn, up to one past the last: no fault at all.
        for (std::uint64_t nth = 1; nth == 1 || hit; nth += stride, ++points) {
          SCOPED_TRACE(::testing::Message() << name << ": call kind " << call << " #" << nth
                                            << " code " << code << (persistent ? "+" : ""));
          Client client;
          int const rc = run(client, FaultVfs::Fault{call, nth, persistent != 0, code});
          ASSERT_LE(rc, 0);
          failed += rc != 0;
          Setting const& expected = rc == 0 ? after : before;
          ASSERT_EQ(client.manager ? TreeOf(client) : expected, expected);
          ASSERT_EQ(Restarted(db), expected);  // a manager beside it
          if (!client.manager) continue;       // a refused start-up
          // The disk works again: so does the manager, and the file follows it.
          ASSERT_EQ(client.creator->CreateSetting(P("net/canary"), std::int8_t{1}), 0);
          Setting const last = TreeOf(client);
          client.Close();
          ASSERT_EQ(Restarted(db), last);
        }
      }
    }
  }
  Report("io-faults", points, " fault points, ", failed, " answered a failure code");
}

}  // namespace
}  // namespace reliability
