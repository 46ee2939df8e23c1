// Managers on one file, in one process and in several, behave as one store: every change
// is decided against the file, racing writers lose nothing (a killed one included), another
// process's changes are read and heard, edits behind the store's back are met as one
// manager meets them.

#include <gtest/gtest.h>

#include <thread>

#include "coherence.h"
#include "support/child_process.h"
#include "support/sqlite_file.h"
#include "support/temp_dir.h"

namespace coherence {
namespace {

using test_support::ChildProcess;
using test_support::Code;

class Coherence : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(a.Open(db), 0);
    ASSERT_EQ(b.Open(db), 0);
    ASSERT_EQ(Change(a, 'c', "s/keep", "0"), 0);
  }
  std::string FileDump() {
    Client fresh;
    return fresh.Open(db) == 0 ? Dump(fresh) : "unreadable";
  }
  void ExpectCoherent() {
    Sync(a);
    Sync(b);
    EXPECT_EQ(Dump(a), FileDump());
    EXPECT_EQ(Dump(b), FileDump());
  }
  std::unique_ptr<ChildProcess> Writer(std::string const& tag) {
    auto writer = std::make_unique<ChildProcess>(
        std::vector<std::string>{SM_COHERENCE_WRITER, db, tag, std::to_string(seed++)});
    EXPECT_EQ(writer->Line(), "ready");
    return writer;
  }
  // The writer's tree after taking in every change.
  static std::string TreeOf(ChildProcess& writer) {
    writer.Send("sync");
    std::string tree;
    for (auto line = writer.Line(); line != "end" && line[0] != '('; line = writer.Line())
      tree += line + "\n";
    return tree;
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
  struct Step {
    char who, kind;
    char const* key;
    char const* value;
    int rc;
  } const steps[] = {
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
      {'b', 'd', "s/d", "", 1},
  };
  for (auto const& step : steps) {
    SCOPED_TRACE(std::string(1, step.who) + " " + step.kind + " " + step.key + " " + step.value);
    EXPECT_RC(Change(step.who == 'a' ? a : b, step.kind, step.key, step.value), step.rc);
  }
  ExpectCoherent();
  EXPECT_EQ(FileDump(), "s/keep=0\ns/x=1\ns/y=3\ns={}\n");
}

// Rows changed with sqlite3 are met as one manager meets them: the tree keeps what it had;
// the change log names only what managers changed.
TEST_F(Coherence, EditsBehindTheStoresBackAreNotTakenIn) {
  ASSERT_EQ(Change(a, 'c', "s/x", "1"), 0);
  ASSERT_EQ(Change(a, 'c', "s/z", "1"), 0);
  Sync(b);
  test_support::SqliteFile(db).Exec("DELETE FROM data WHERE path = 's/x/';");
  ASSERT_EQ(Change(b, 'v', "s/z", "2"), 0);
  Sync(a);
  EXPECT_EQ(Dump(a), "s/keep=0\ns/x=1\ns/z=2\ns={}\n");
  EXPECT_RC(Change(a, 'd', "s/x"), 0x80000069u);  // the file had no row for it
}

TEST_F(Coherence, ThreadsOfTwoManagersLoseNothing) {
  std::vector<std::vector<Ack>> acks(4);
  std::vector<std::thread> threads;
  for (std::size_t t = 0; t < acks.size(); ++t)
    threads.emplace_back([&, t] {
      std::mt19937_64 random(seed + 100 + t);
      for (int i = 0; i < 40; ++i)
        acks[t].push_back(RandomChange(t % 2 ? b : a, random, "t" + std::to_string(t)));
    });
  for (auto& thread : threads) thread.join();
  ExpectCoherent();
  std::vector<Ack> all;
  for (auto const& part : acks) all.insert(all.end(), part.begin(), part.end());
  EXPECT_EQ(Check(FileDump(), all), "") << "seed " << seed;
}

// Writers in four processes race on overlapping settings; then one is killed in the
// middle of its changes: SQLite rolls its transaction back and nobody keeps anything of it.
TEST_F(Coherence, WritersInProcessesLoseNothingAndAKilledOneLeavesEveryoneCoherent) {
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::vector<std::unique_ptr<ChildProcess>> writers;
  for (int i = 0; i < 4; ++i) writers.push_back(Writer("w" + std::to_string(i)));
  for (auto& writer : writers) writer->Send("random 60");
  std::vector<Ack> acks;
  for (auto& writer : writers)
    for (auto line = writer->Line(); line != "done"; line = writer->Line()) {
      auto ack = Parse(line);
      ASSERT_TRUE(ack) << line;
      acks.push_back(*ack);
    }
  ASSERT_EQ(acks.size(), 240u);
  EXPECT_EQ(Check(FileDump(), acks), "");
  std::mt19937_64 random(seed);
  for (int round = 0; round < 3; ++round) {
    auto victim = Writer("k" + std::to_string(round));
    victim->Send("random 400");
    for (auto n = random() % 40; n > 0; --n) ASSERT_EQ(victim->Line().rfind("ack ", 0), 0u);
    victim->Kill();
    writers[0]->Send("random 5");
    while (writers[0]->Line().rfind("ack ", 0) == 0) {
    }
    auto const file = FileDump();
    for (auto& writer : writers) EXPECT_EQ(TreeOf(*writer), file);
    ExpectCoherent();
  }
}

// Nobody reads here: the watcher takes the other process's changes in for the subscriber,
// with the kinds a local change of the same effect gives; a new subtree is told at its top.
TEST_F(Coherence, AnotherProcessesChangesAreHeardInOrderAndRead) {
  struct Heard : settings_manager::ISettingsUpdateObserver {
    void Update(uvc::Path const& path, unsigned char kind) override {
      std::lock_guard<std::mutex> lock(mutex);
      events.emplace_back(test_support::Text(path), kind);
      arrived.notify_all();
    }
    std::mutex mutex;
    std::condition_variable arrived;
    std::vector<std::pair<std::string, int>> events;
  };
  auto const observer = std::make_shared<Heard>();
  settings_manager::SubscriptionId id{};
  ASSERT_EQ(a.subscriber->Subscribe(test_support::P("s"), observer, id), 0);
  auto writer = Writer("e");
  struct Step {
    char const* command;
    char const* path;
    int kind;
    char const* tree;
  } const steps[] = {
      {"c s/a 1", "s/a/", 0x01, "s/a=1\n"},
      {"v s/a 2", "s/a/", 0x02, "s/a=2\n"},
      {"s s/a 3", "s/a/", 0x06, "s/a=3!\n"},
      {"a s/a 0", "s/a/", 0x04, "s/a=3\n"},
      {"c s/b/c 1", "s/b/", 0x01, "s/a=3\ns/b/c=1\ns/b={}\n"},
      {"v s/b/c 2", "s/b/c/", 0x02, "s/a=3\ns/b/c=2\ns/b={}\n"},
      {"d s/b", "s/b/", 0x08, "s/a=3\n"},
      {"d s/a", "s/a/", 0x08, ""},
  };
  for (auto const& step : steps) {
    SCOPED_TRACE(step.command);
    writer->Send(step.command);
    ASSERT_EQ(writer->Line(), "rc 0");
    std::unique_lock<std::mutex> lock(observer->mutex);
    ASSERT_TRUE(observer->arrived.wait_for(lock, std::chrono::minutes(1),
                                           [&] { return !observer->events.empty(); }));
    EXPECT_EQ(std::exchange(observer->events, {}),
              (std::vector<std::pair<std::string, int>>{{step.path, step.kind}}));
    lock.unlock();
    EXPECT_EQ(Dump(a), step.tree + std::string("s/keep=0\ns={}\n"));
  }
}

}  // namespace
}  // namespace coherence
