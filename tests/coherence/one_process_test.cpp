// Managers on one file in one process behave as one store: every change is decided
// against the file, reads take in the others' changes, edits behind the store's back are
// met as a single manager meets them.

#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

#include "coherence.h"
#include "settings_manager/tree_access.h"
#include "support/sqlite_file.h"
#include "support/temp_dir.h"

namespace coherence {
namespace {

using test_support::Code;

// True once `seen` holds, trying for at most 20 s: the other manager's change reaches a
// reader through its file watcher.
template <typename Seen>
bool Eventually(Seen seen) {
  auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!seen())
    if (std::chrono::steady_clock::now() > deadline) return false;
  return true;
}

class TwoManagers : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(a.Open(db), 0);
    ASSERT_EQ(b.Open(db), 0);
    ASSERT_EQ(a.creator->CreateSetting(test_support::P("s"), test_support::MapOf({})), 0);
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

  test_support::CapturedLog log;
  test_support::TempDir dir;
  std::string const db = dir.File("settings.db");
  Client a, b;
};

// The answers of one store although each manager last looked before the other changed
// the file: no lost update, no answer from a stale tree.
TEST_F(TwoManagers, EveryChangeIsDecidedAgainstTheFileAsItIs) {
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
  EXPECT_EQ(FileDump(), "s/x=1\ns/y=3\ns={}\n");
}

// Every read, the whole-tree ones too, takes in the other manager's change by itself.
TEST_F(TwoManagers, EveryKindOfReadSeesTheOtherManagersChange) {
  std::function<bool(Client&)> const reads[] = {
      [](Client& c) {
        Setting x;
        return c.getter->GetSetting(test_support::P("s/x"), x) == 0 && x == Setting("2", {true});
      },
      [](Client& c) {
        settings_manager::Attributes mark;
        return c.getter->GetAttribute(test_support::P("s/x"), mark) == 0 && mark.readOnly;
      },
      [](Client& c) {
        Setting root;
        return settings_manager::GetTree(*c.manager, root) == 0 &&
               std::get<uvc::index::kMap>(std::get<uvc::index::kMap>(root).at("s")).count("x");
      },
      [](Client& c) {
        std::vector<settings_manager::ChildInfo> children;
        return settings_manager::ListChildren(*c.manager, test_support::P("s"), children) == 0 &&
               children.size() == 1;
      },
  };
  for (auto const& sees : reads) {
    Client reader;
    ASSERT_EQ(reader.Open(db), 0);
    ASSERT_FALSE(sees(reader));
    ASSERT_EQ(Change(a, 'c', "s/x", "2"), 0);
    ASSERT_EQ(Change(a, 'a', "s/x", "1"), 0);
    EXPECT_TRUE(Eventually([&] { return sees(reader); }));
    ASSERT_EQ(Change(a, 'd', "s/x"), 0);
  }
}

TEST(NewFile, ManagersOpeningItTogetherAllSucceed) {
  test_support::CapturedLog log;
  test_support::TempDir dir;
  for (int round = 0; round < 10; ++round) {
    std::vector<int> results(6, -1);
    std::atomic<int> waiting{6};
    std::vector<std::thread> openers;
    for (auto& result : results)
      openers.emplace_back([&] {
        for (--waiting; waiting > 0;) std::this_thread::yield();
        result = Client().Open(dir.File(std::to_string(round)));
      });
    for (auto& opener : openers) opener.join();
    EXPECT_EQ(results, std::vector<int>(6, 0)) << "round " << round;
  }
}

// While another connection holds the write lock, a read still takes in what is committed.
TEST_F(TwoManagers, ReadsTakeInWhatIsCommittedWhileAWriterHoldsTheLock) {
  ASSERT_EQ(Change(a, 'c', "s/x", "1"), 0);
  ASSERT_EQ(Change(b, 'v', "s/x", "2"), 0);
  test_support::SqliteFile writer(db);
  writer.Exec("BEGIN IMMEDIATE;");
  Setting x;
  EXPECT_TRUE(Eventually(
      [&] { return a.getter->GetSetting(test_support::P("s/x"), x) == 0 && x == Setting("2"); }));
  writer.Exec("ROLLBACK;");
}

// Rows changed with sqlite3 are met as one manager meets them: the tree keeps what it had;
// the change log names only what managers changed.
TEST_F(TwoManagers, EditsBehindTheStoresBackAreNotTakenIn) {
  ASSERT_EQ(Change(a, 'c', "s/x", "1"), 0);
  ASSERT_EQ(Change(a, 'c', "s/z", "1"), 0);
  Sync(b);
  test_support::SqliteFile(db).Exec("DELETE FROM data WHERE path = 's/x/';");
  ASSERT_EQ(Change(b, 'v', "s/z", "2"), 0);
  Sync(a);
  EXPECT_EQ(Dump(a), "s/x=1\ns/z=2\ns={}\n");
  EXPECT_RC(Change(a, 'd', "s/x"), 0x80000069u);  // the file had no row for it
}

// A change log that no longer reaches back (pruned, or emptied by hand) reloads the file.
TEST_F(TwoManagers, LogThatNoLongerReachesBackReloadsEverything) {
  ASSERT_EQ(Change(a, 'c', "s/x", "1"), 0);
  Sync(b);
  ASSERT_EQ(Change(b, 'v', "s/x", "2"), 0);
  ASSERT_EQ(Change(b, 'c', "s/y", "3"), 0);
  test_support::SqliteFile file(db);
  EXPECT_EQ(file.QueryText("SELECT group_concat(generation || ':' || path, ' ') FROM changes"),
            "1: 2:s/ 3:s/x/ 4:s/");
  file.Exec("DELETE FROM changes WHERE generation <= 3;");
  ExpectCoherent();
}

TEST_F(TwoManagers, FileReplacedOrDeletedFailsTheNextChangeAndKeepsTheTree) {
  ASSERT_EQ(Change(a, 'c', "s/x", "1"), 0);
  ASSERT_EQ(Client().Open(dir.File("other.db")), 0);
  // Until the watcher has seen the name change, a change may still go to the old file.
  auto const refused = [](Client& who) {
    int rc = 1;
    Eventually([&] { return (rc = Change(who, 'v', "s/x", "1")) != 1; });
    return rc;
  };
  std::filesystem::rename(dir.File("other.db"), db);
  EXPECT_RC(refused(a), 0x80000071u);
  std::filesystem::remove(db);
  EXPECT_RC(refused(b), 0x80000071u);
  EXPECT_EQ(Dump(a), "s/x=1\ns={}\n");
}

TEST_F(TwoManagers, ThreadsOfTwoManagersLoseNothing) {
  std::vector<std::vector<Ack>> acks(4);
  std::vector<std::thread> threads;
  auto const seed = std::random_device()();
  for (std::size_t t = 0; t < acks.size(); ++t)
    threads.emplace_back([&, t] {
      std::mt19937_64 random(seed + t);
      for (int i = 0; i < 40; ++i)
        acks[t].push_back(RandomChange(t % 2 ? b : a, random, "t" + std::to_string(t)));
    });
  for (auto& thread : threads) thread.join();
  ExpectCoherent();
  std::vector<Ack> all;
  for (auto const& part : acks) all.insert(all.end(), part.begin(), part.end());
  EXPECT_EQ(Check(FileDump(), all), "") << "seed " << seed;
}

}  // namespace
}  // namespace coherence
