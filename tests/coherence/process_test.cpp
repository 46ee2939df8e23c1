// Managers in several processes on one file behave as one store: writers that race on
// overlapping settings lose nothing, a subscriber hears another process's changes, and a
// writer killed mid-change leaves everyone coherent.

#include <gtest/gtest.h>

#include "load.h"
#include "reliability_util.h"
#include "support/child_process.h"
#include "support/temp_dir.h"

namespace coherence {
namespace {

namespace ev = settings_manager::event;
using reliability::P;
using test_support::ChildProcess;

class Processes : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(self.Open(db), 0);
    ASSERT_EQ(self.creator->CreateSetting(P("s"), Setting(Setting::Value(std::in_place_index<2>))),
              0);
  }
  std::unique_ptr<ChildProcess> Writer(std::string const& tag) {
    auto writer = std::make_unique<ChildProcess>(std::vector<std::string>{
        SM_COHERENCE_WRITER, db, tag, std::to_string(reliability::TestSeed("Processes"))});
    EXPECT_EQ(writer->Line(), "ready");
    return writer;
  }
  // What the writer's manager holds after taking in every change.
  static std::string TreeOf(ChildProcess& writer) {
    writer.Send("sync");
    std::string tree;
    for (auto line = writer.Line(); line.rfind("tree ", 0) == 0; line = writer.Line())
      tree += line.substr(5) + "\n";
    return tree;
  }
  Setting FileTree() const {
    Setting root;
    std::string error;
    EXPECT_TRUE(reliability::LoadFile(db, root, error)) << error;
    return root;
  }

  reliability::QuietLog quiet;
  test_support::TempDir dir;
  std::string const db = dir.File("settings.db");
  Client self;
};

TEST_F(Processes, WritersRacingOnOverlappingSettingsLoseNothing) {
  std::size_t const count = reliability::Scaled(80, 25);
  std::vector<std::unique_ptr<ChildProcess>> writers;
  for (int i = 0; i < 4; ++i) writers.push_back(Writer("w" + std::to_string(i)));
  for (auto& writer : writers) writer->Send("random " + std::to_string(count));
  std::vector<Ack> acks;
  for (auto& writer : writers)
    for (auto line = writer->Line(); line != "done"; line = writer->Line()) {
      auto ack = Parse(line);
      ASSERT_TRUE(ack) << line;
      acks.push_back(*ack);
    }
  ASSERT_EQ(acks.size(), 4 * count);
  auto const file = FileTree();
  EXPECT_EQ(Check(file, acks), "");
  for (auto& writer : writers) EXPECT_EQ(TreeOf(*writer), Dump(file));
  Sync(self);
  EXPECT_EQ(Dump(self), Dump(file));
}

// Nobody reads here: the watcher takes the other process's changes in for the subscriber.
TEST_F(Processes, SubscriberHearsAnotherProcessesChangesInOrder) {
  auto const observer = std::make_shared<Recorder>();
  settings_manager::SubscriptionId id{};
  ASSERT_EQ(self.subscriber->Subscribe(P("s"), observer, id), 0);
  auto writer = Writer("e");
  struct Step {
    char const* command;
    char const* path;
    int kind;
  } const steps[] = {
      {"create s/a 1", "s/a/", ev::kCreated},  {"set s/a 2", "s/a/", ev::kValue},
      {"attr s/a 1", "s/a/", ev::kAttributes}, {"create s/b/c 1", "s/b/", ev::kCreated},
      {"set s/b/c 2", "s/b/c/", ev::kValue},   {"delete s/b", "s/b/", ev::kDeleted},
      {"delete s/a", "s/a/", ev::kDeleted},
  };
  for (auto const& step : steps) {
    SCOPED_TRACE(step.command);
    writer->Send(step.command);
    ASSERT_EQ(writer->Line(), "rc 0");
    EXPECT_EQ(observer->Next(1), (std::vector<Recorder::Event>{{step.path, step.kind}}));
  }
  ASSERT_EQ(self.subscriber->Unsubscribe(id), 0);
}

// SQLite rolls a killed writer's transaction back; no other manager may keep anything of
// it, and the next writer carries on.
TEST_F(Processes, WriterKilledMidChangeLeavesEveryoneCoherent) {
  auto const seed = reliability::TestSeed("ProcessesKill");
  std::mt19937_64 random(seed);
  auto survivor = Writer("s");
  for (int round = 0; round < 5; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    auto victim = Writer("k" + std::to_string(round));
    victim->Send("random 400");
    for (auto n = random() % 40; n > 0; --n) ASSERT_EQ(victim->Line().rfind("ack ", 0), 0u);
    victim->Kill();
    victim->Wait();
    survivor->Send("random 5");
    while (survivor->Line().rfind("ack ", 0) == 0) {
    }
    auto const file = Dump(FileTree());
    EXPECT_EQ(TreeOf(*survivor), file);
    Sync(self);
    EXPECT_EQ(Dump(self), file);
  }
}

}  // namespace
}  // namespace coherence
