// Managers in several processes on one file behave as one store: racing writers lose
// nothing, another process's changes are read and heard, a writer killed mid-change leaves
// everyone coherent.

#include <gtest/gtest.h>

#include "coherence.h"
#include "support/child_process.h"
#include "support/temp_dir.h"

namespace coherence {
namespace {

using test_support::ChildProcess;

class Processes : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(self.Open(db), 0);
    ASSERT_EQ(Change(self, 'c', "s/keep", "0"), 0);
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
  std::string FileDump() {
    Client fresh;
    return fresh.Open(db) == 0 ? Dump(fresh) : "unreadable";
  }

  test_support::CapturedLog log;
  test_support::TempDir dir;
  std::string const db = dir.File("settings.db");
  std::uint64_t seed = std::random_device()();
  Client self;
};

TEST_F(Processes, WritersRacingOnOverlappingSettingsLoseNothing) {
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
  auto const file = FileDump();
  EXPECT_EQ(Check(file, acks), "");
  for (auto& writer : writers) EXPECT_EQ(TreeOf(*writer), file);
  Sync(self);
  EXPECT_EQ(Dump(self), file);
}

// Nobody reads here: the watcher takes the other process's changes in for the subscriber,
// with the kinds a local change of the same effect gives; a new subtree is told at its top.
TEST_F(Processes, AnotherProcessesChangesAreHeardInOrderAndRead) {
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
  ASSERT_EQ(self.subscriber->Subscribe(test_support::P("s"), observer, id), 0);
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
    EXPECT_EQ(Dump(self), step.tree + std::string("s/keep=0\ns={}\n"));
  }
}

// SQLite rolls a killed writer's transaction back; no other manager keeps anything of it.
TEST_F(Processes, WriterKilledMidChangeLeavesEveryoneCoherent) {
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937_64 random(seed);
  auto survivor = Writer("s");
  for (int round = 0; round < 4; ++round) {
    auto victim = Writer("k" + std::to_string(round));
    victim->Send("random 400");
    for (auto n = random() % 40; n > 0; --n) ASSERT_EQ(victim->Line().rfind("ack ", 0), 0u);
    victim->Kill();
    victim->Wait();
    survivor->Send("random 5");
    while (survivor->Line().rfind("ack ", 0) == 0) {
    }
    auto const file = FileDump();
    EXPECT_EQ(TreeOf(*survivor), file);
    Sync(self);
    EXPECT_EQ(Dump(self), file);
  }
}

}  // namespace
}  // namespace coherence
