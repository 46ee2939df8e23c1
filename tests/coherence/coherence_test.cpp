// Managers on one file, in one process and in several, behave as one store: every change
// is decided against the file, racing writers lose nothing (a killed one included), another
// process's changes are read and heard, and a change log edited by hand hides nothing.

#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <random>
#include <tuple>

#include "coherence.h"
#include "events/event_test_util.h"
#include "support/child_process.h"

namespace coherence {
namespace {

using namespace events_test;

class Coherence : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(a.Open(db) == 0 && b.Open(db) == 0 && a.Change('c', "s/keep", "0") == 0);
  }
  // The file's tree, once a and b have taken in every change and agree with it.
  std::string Coherent() {
    Client fresh;
    EXPECT_EQ(fresh.Open(db), 0);
    EXPECT_EQ(a.Sync().Dump() + " " + b.Sync().Dump(), fresh.Dump() + " " + fresh.Dump());
    return fresh.Dump();
  }
  std::unique_ptr<ChildProcess> Writer(std::string const& tag) {
    auto writer = std::make_unique<ChildProcess>(
        std::vector<std::string>{SM_COHERENCE_WRITER, db, tag, std::to_string(seed++)});
    EXPECT_EQ(writer->Line(), "ready");
    return writer;
  }
  // The answer to `command` after its "did" lines.
  static std::string Answer(ChildProcess& writer, std::string const& command) {
    if (!command.empty()) writer.Send(command);
    auto line = writer.Line();
    while (line.rfind("did ", 0) == 0) line = writer.Line();
    return line;
  }

  test_support::CapturedLog log;
  test_support::TempDir dir;
  std::string const db = dir.File("settings.db");
  std::uint64_t seed = std::random_device()();
  Client a, b;
};

// The answers of one store although each manager last looked before the other changed
// the file: no lost update, no answer from a stale tree.
TEST_F(Coherence, EveryChangeIsDecidedAgainstTheFileAsItIs) {
  std::tuple<char, char, char const*, char const*, int> const steps[] = {
      {'a', 'c', "s/x", "1", 0},
      {'b', 'c', "s/y", "2", 0},  // y must not erase x
      {'a', 'd', "s/y", "", 0},
      {'b', 'c', "s/y", "3", 0},  // b knows y is gone
      {'a', 'v', "s/y", "3", 1},
      {'b', 'v', "s/x", "9", 0},
      {'a', 'v', "s/x", "1", 0},
      {'b', 'a', "s/x", "1", 0},  // a's tree had x = 1
      {'a', 'v', "s/x", "5", Code(0x80000066u)},
      {'a', 'c', "s/x", "1", Code(0x8000004Du)},
      {'b', 'a', "s/x", "0", 0},
      {'a', 'c', "s/x", "1", 1},
      {'b', 'c', "s/d/e", "4", 0},
      {'a', 'd', "s/d", "", 0},
      {'b', 'v', "s/d/e", "5", Code(0x8000004Cu)},
  };
  for (auto const& [who, kind, key, value, rc] : steps)
    EXPECT_RC((who == 'a' ? a : b).Change(kind, key, value), rc) << who << kind << key << value;
  EXPECT_EQ(Coherent(), "s={};s/keep=0;s/x=1;s/y=3;");
  for (int i = 1; i < 1600; ++i) ASSERT_EQ(a.Change('v', "s/keep", std::to_string(i)), 0);
  // The log keeps the last 1024 changes and at most 256 more.
  EXPECT_LE(test_support::SqliteFile(db).QueryInt("SELECT count(*) FROM changes"), 1024 + 256);
}

// Four writer processes race on shared keys and keys of their own; in later rounds a fifth
// is killed in the middle of its changes: SQLite rolls its transaction back, each writer's
// own keys hold what it last did to them, and every view is the file's.
TEST_F(Coherence, RacingWritersLoseNothingAndAKilledOneLeavesEveryViewAgreeing) {
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::vector<std::unique_ptr<ChildProcess>> writers;
  for (int i = 0; i < 4; ++i) writers.push_back(Writer("w" + std::to_string(i)));
  std::mt19937_64 random(seed);
  for (int round = 0; round < 4; ++round) {
    for (auto& writer : writers) writer->Send(round == 0 ? "random 60" : "random 20");
    if (round > 0) {
      auto victim = Writer("k");
      victim->Send("random 400");
      for (auto n = random() % 40; n > 0; --n) ASSERT_EQ(victim->Line().rfind("did ", 0), 0u);
      victim->Kill();
    }
    std::vector<std::string> done;
    for (auto& writer : writers) done.push_back(Answer(*writer, ""));
    auto const file = Coherent();
    for (std::size_t i = 0; i < writers.size(); ++i) {
      std::string own = "done ", prefix = "s/w" + std::to_string(i) + "k";
      for (auto at = file.find(prefix); at != std::string::npos; at = file.find(prefix, at + 1))
        own += file.substr(at, file.find(';', at) + 1 - at);
      EXPECT_EQ(done[i], own);
      EXPECT_EQ(Answer(*writers[i], "sync"), file);
    }
  }
}

// Nobody reads here: the watcher takes the other process's changes in for the subscriber,
// with the kinds a local change of the same effect gives; a new subtree is told at its top.
TEST_F(Coherence, AnotherProcessesChangesAreHeardInOrderAndRead) {
  auto const observer = std::make_shared<Recorder>();
  settings_manager::SubscriptionId id{};
  ASSERT_EQ(a.subscriber->Subscribe(test_support::P("s"), observer, id), 0);
  auto writer = Writer("e");
  std::tuple<char const*, char const*, int, char const*> const steps[] = {
      {"c s/a 1", "s/a/", 0x01, "s/a=1;"},
      {"v s/a 2", "s/a/", 0x02, "s/a=2;"},
      {"s s/a 3", "s/a/", 0x06, "s/a=3!;"},
      {"a s/a 0", "s/a/", 0x04, "s/a=3;"},
      {"c s/b/c 1", "s/b/", 0x01, "s/a=3;s/b={};s/b/c=1;"},
      {"v s/b/c 2", "s/b/c/", 0x02, "s/a=3;s/b={};s/b/c=2;"},
      {"d s/b", "s/b/", 0x08, "s/a=3;"},
      {"d s/a", "s/a/", 0x08, ""},
  };
  Seen heard;
  for (auto const& [command, path, kind, tree] : steps) {
    ASSERT_EQ(Answer(*writer, command), "rc 0") << command;
    heard.emplace_back(path, kind);
    ASSERT_TRUE(observer->WaitFor(heard.size())) << command;
    EXPECT_EQ(observer->Events(), heard);
    EXPECT_EQ(a.Dump(), "s={};" + std::string(tree) + "s/keep=0;");
  }
}

// A log emptied or dropped with the sqlite3 shell must not give again the generation a
// lagging manager holds: after as many changes it would look caught up and miss them.
TEST(Generation, ALogEmptiedOrDroppedByHandHidesNoChangeFromALaggingManager) {
  for (char const* edit : {"DELETE FROM changes;", "DROP TABLE changes;"}) {
    SCOPED_TRACE(edit);
    test_support::TempDir dir;
    auto const db = dir.File("settings.db");
    Client a, b;
    ASSERT_TRUE(a.Open(db) == 0 && b.Open(db) == 0 && a.Change('c', "s", "0") == 0);
    for (char const* value : {"1", "2"}) ASSERT_EQ(a.Change('v', "s", value), 0);
    b.Sync();  // b has seen every change so far, then lags by as many
    auto const schema =
        "SELECT group_concat(name || ': ' || ifnull(sql, ''), '; ') FROM"
        " (SELECT name, sql FROM sqlite_master ORDER BY name)";
    auto const before = test_support::SqliteFile(db).QueryText(schema);
    test_support::SqliteFile(db).Exec(edit);
    for (char const* value : {"3", "4", "5"}) ASSERT_EQ(a.Change('v', "s", value), 0);
    EXPECT_EQ(b.Sync().Dump(), "s=5;");
    EXPECT_EQ(test_support::SqliteFile(db).QueryText(schema),
              before);  // data, meta and changes as they were made
  }
}

// In a process that may not write the file the library reads it without its log (SQLite's
// immutable=1); asked after another process changed it, it answers what its observer heard.
bool ReadAfterAnotherProcessWrote(std::string const& db, int ready) {
  constexpr uid_t kNobody = 65534;
  if (::geteuid() == 0 && (::setgroups(0, nullptr) || ::setgid(kNobody) || ::setuid(kNobody)))
    return false;
  Client reader;
  auto const observer = std::make_shared<Recorder>();
  settings_manager::SubscriptionId id{};
  return reader.Open(db) == 0 &&
         !reader.subscriber->Subscribe(test_support::P("s"), observer, id) &&
         !std::filesystem::exists(db + "-wal") && reader.Dump() == "s={};s/a=1;" &&
         ::write(ready, "", 1) == 1 && observer->WaitFor(1) &&
         observer->Events() == Seen{{"s/a/", 0x02}} && reader.Dump() == "s={};s/a=2;";
}

TEST(Generation, AReaderThatMayNotWriteTheFileSeesLaterChangesOfOtherProcesses) {
  test_support::TempDir dir;
  auto const db = dir.File("settings.db");
  ::chmod(dir.Path().c_str(), 0755);
  {
    Client owner;
    ASSERT_TRUE(owner.Open(db) == 0 && owner.Change('c', "s/a", "1") == 0);
  }
  ASSERT_FALSE(std::filesystem::exists(db + "-wal"));  // the last one to close removed it
  ::chmod(db.c_str(), 0444);                           // a reader that is not root may not write it
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  pid_t const child = ::fork();
  if (child == 0) ::_exit(ReadAfterAnotherProcessWrote(db, ready[1]) ? 0 : 1);
  ::close(ready[1]);  // a reader that failed early ends the read below
  char byte = 0;
  ASSERT_EQ(::read(ready[0], &byte, 1), 1);
  ::chmod(db.c_str(), 0644);
  Client writer;
  ASSERT_TRUE(writer.Open(db) == 0 && writer.Change('v', "s/a", "2") == 0);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "reader's status " << status;
}

}  // namespace
}  // namespace coherence
