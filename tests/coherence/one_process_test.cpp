// Two managers on one file in one process behave as one store: every change is decided
// against the file, observers hear the other manager's changes, and what changes behind
// the store's back stays as the single-manager rules say.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <thread>

#include "load.h"
#include "reliability_util.h"
#include "settings_manager/tree_access.h"
#include "support/sqlite_file.h"
#include "support/temp_dir.h"
#include "tree_diff.h"

namespace coherence {
namespace {

namespace ev = settings_manager::event;
using reliability::P;
using Event = Recorder::Event;

constexpr int kNotFound = static_cast<int>(0x8000004Cu);
constexpr int kFound = static_cast<int>(0x8000004Du);
constexpr int kProhibited = static_cast<int>(0x80000066u);
constexpr int kInvalidResult = static_cast<int>(0x80000071u);

std::string FileDump(std::string const& db) {
  Setting root;
  std::string error;
  if (!reliability::LoadFile(db, root, error)) return "unreadable: " + error;
  return Dump(root);
}

class TwoManagers : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(a.Open(db), 0);
    ASSERT_EQ(b.Open(db), 0);
    ASSERT_EQ(a.creator->CreateSetting(P("s"), Setting(Setting::Value(std::in_place_index<2>))), 0);
  }
  int Change(Client& who, char kind, std::string const& key, std::string const& value = "") {
    auto const path = P(key);
    switch (kind) {
      case 'c':
        return who.creator->CreateSetting(path, Setting(value));
      case 'v':
        return who.valueSetter->SetValue(path, Setting::Value(value));
      case 'a':
        return who.setter->SetAttribute(path, settings_manager::Attributes{value == "1"});
      case 's':
        return who.setter->SetSetting(path, Setting(value, {true}));
      default:
        return who.deleter->DeleteSetting(path);
    }
  }
  // Both managers and the file hold the same tree.
  void ExpectCoherent() {
    Sync(a);
    Sync(b);
    std::string const file = FileDump(db);
    EXPECT_EQ(Dump(a), file);
    EXPECT_EQ(Dump(b), file);
  }

  reliability::QuietLog quiet;
  test_support::TempDir dir;
  std::string const db = dir.File("settings.db");
  Client a, b;
};

// The answers of one store, although each manager last looked before the other changed
// the file (the lost updates and wrong answers of managers that trusted their own tree).
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
      {'a', 'v', "s/x", "5", kProhibited},
      {'a', 'c', "s/x", "1", kFound},
      {'b', 'a', "s/x", "0", 0},
      {'a', 'c', "s/x", "1", 1},
      {'b', 'c', "s/d/e", "4", 0},
      {'a', 'd', "s/d", "", 0},
      {'b', 'v', "s/d/e", "5", kNotFound},
      {'b', 'd', "s/d", "", 1},
  };
  for (auto const& step : steps) {
    SCOPED_TRACE(std::string(1, step.who) + " " + step.kind + " " + step.key + " " + step.value);
    EXPECT_EQ(Change(step.who == 'a' ? a : b, step.kind, step.key, step.value), step.rc);
  }
  ExpectCoherent();
  EXPECT_EQ(FileDump(db), "s/x=1\ns/y=3\ns={}\n");
}

// A read sees the other manager's change without any change of its own: the watcher
// marks the tree stale and the read takes the change in.
TEST_F(TwoManagers, ReadsSeeTheOtherManagersChanges) {
  ASSERT_EQ(Change(a, 'c', "s/x", "1"), 0);
  auto const seen = [&](char const* value, bool readOnly) {
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    for (;;) {
      Setting x;
      settings_manager::Attributes mark;
      if (b.getter->GetSetting(P("s/x"), x) == 0 && b.getter->GetAttribute(P("s/x"), mark) == 0 &&
          x == Setting(value, {readOnly}) && mark.readOnly == readOnly)
        return true;
      if (std::chrono::steady_clock::now() > deadline) return false;
      std::this_thread::yield();
    }
  };
  EXPECT_TRUE(seen("1", false));
  ASSERT_EQ(Change(a, 'v', "s/x", "2"), 0);
  EXPECT_TRUE(seen("2", false));
  ASSERT_EQ(Change(a, 'a', "s/x", "1"), 0);
  EXPECT_TRUE(seen("2", true));
}

// Every read of the tree, the whole-tree ones too, takes in the other manager's change
// by itself: nothing else reads or changes in between.
TEST_F(TwoManagers, EveryKindOfReadSeesTheOtherManagersChange) {
  using Read = std::function<bool(Client&)>;
  auto const hasX = [](Setting const& root) {
    auto const& s = std::get<uvc::index::kMap>(root).at("s");
    return std::get<uvc::index::kMap>(s).count("x") == 1;
  };
  struct Case {
    char const* name;
    Read sees;
  } const cases[] = {
      {"GetSetting",
       [](Client& c) {
         Setting x;
         return c.getter->GetSetting(P("s/x"), x) == 0;
       }},
      {"GetAttribute",
       [](Client& c) {
         settings_manager::Attributes mark;
         return c.getter->GetAttribute(P("s/x"), mark) == 0;
       }},
      {"GetTree",
       [&](Client& c) {
         Setting root;
         return settings_manager::GetTree(*c.manager, root) == 0 && hasX(root);
       }},
      {"ListChildren",
       [](Client& c) {
         std::vector<settings_manager::ChildInfo> children;
         return settings_manager::ListChildren(*c.manager, P("s"), children) == 0 &&
                children.size() == 1;
       }},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    Client reader;
    ASSERT_EQ(reader.Open(db), 0);
    ASSERT_FALSE(c.sees(reader));
    ASSERT_EQ(Change(a, 'c', "s/x", "1"), 0);
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    bool seen = false;
    while (!seen && std::chrono::steady_clock::now() < deadline) {
      seen = c.sees(reader);
      if (!seen) std::this_thread::yield();
    }
    EXPECT_TRUE(seen);
    ASSERT_EQ(Change(a, 'd', "s/x"), 0);
  }
}

// Managers that open a new file at the same moment each find, or make, its one schema.
TEST(NewFile, ManagersOpeningItTogetherAllSucceed) {
  reliability::QuietLog quiet;
  test_support::TempDir dir;
  for (int round = 0; round < 20; ++round) {
    std::string const db = dir.File("new" + std::to_string(round) + ".db");
    std::vector<int> results(6, -1);
    std::atomic<int> waiting{static_cast<int>(results.size())};
    std::vector<std::thread> openers;
    for (auto& result : results)
      openers.emplace_back([&] {
        for (--waiting; waiting > 0;) std::this_thread::yield();
        Client client;
        result = client.Open(db);
      });
    for (auto& opener : openers) opener.join();
    EXPECT_EQ(results, std::vector<int>(results.size(), 0)) << "round " << round;
  }
}

// While another connection holds the file's write lock (a long transaction may hold it
// for seconds), a read still takes in what is committed, without waiting for the lock.
TEST_F(TwoManagers, ReadsTakeInWhatIsCommittedWhileAWriterHoldsTheLock) {
  ASSERT_EQ(Change(a, 'c', "s/x", "1"), 0);
  ASSERT_EQ(Change(b, 'v', "s/x", "2"), 0);
  test_support::SqliteFile writer(db);
  writer.Exec("BEGIN IMMEDIATE;");
  Setting x;
  auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (std::chrono::steady_clock::now() < deadline && a.getter->GetSetting(P("s/x"), x) == 0 &&
         x != Setting(std::string("2")))
    std::this_thread::yield();
  EXPECT_EQ(x, Setting(std::string("2")));
  writer.Exec("ROLLBACK;");
}

// A subscriber hears the other manager's changes, with nobody reading, as the kinds a
// local change of the same effect gives; a new subtree is announced at its top node.
TEST_F(TwoManagers, ObserversHearTheOtherManagersChanges) {
  auto const observer = std::make_shared<Recorder>();
  settings_manager::SubscriptionId id{};
  ASSERT_EQ(a.subscriber->Subscribe(uvc::Path{}, observer, id), 0);
  struct Step {
    char kind;
    char const* key;
    char const* value;
    std::vector<Event> events;
  } const steps[] = {
      {'c', "s/n", "1", {{"s/n/", ev::kCreated}}},
      {'v', "s/n", "2", {{"s/n/", ev::kValue}}},
      {'a', "s/n", "1", {{"s/n/", ev::kAttributes}}},
      {'a', "s/n", "0", {{"s/n/", ev::kAttributes}}},
      {'s', "s/n", "3", {{"s/n/", ev::kSetting}}},
      {'c', "s/m/k/l", "1", {{"s/m/", ev::kCreated}}},
      {'d', "s/m", "", {{"s/m/", ev::kDeleted}}},
      {'d', "s/n", "", {{"s/n/", ev::kDeleted}}},
  };
  for (auto const& step : steps) {
    SCOPED_TRACE(std::string(1, step.kind) + " " + step.key);
    ASSERT_EQ(Change(b, step.kind, step.key, step.value), 0);
    EXPECT_EQ(observer->Next(step.events.size()), step.events);
  }
  ASSERT_EQ(a.subscriber->Unsubscribe(id), 0);
}

// Rows changed with the sqlite3 shell are met as a single manager meets them: the tree
// keeps what it had; the change log names only what managers changed.
TEST_F(TwoManagers, EditsBehindTheStoresBackAreNotTakenIn) {
  ASSERT_EQ(Change(a, 'c', "s/x", "1"), 0);
  ASSERT_EQ(Change(a, 'c', "s/z", "1"), 0);
  Sync(b);
  test_support::SqliteFile(db).Exec("DELETE FROM data WHERE path = 's/x/';");
  ASSERT_EQ(Change(b, 'v', "s/z", "2"), 0);  // the generation moves for s/z only
  Sync(a);
  EXPECT_EQ(Dump(a), "s/x=1\ns/z=2\ns={}\n");
  // As with one manager: the node goes, 0x80000069 says the file had no row for it.
  EXPECT_EQ(Change(a, 'd', "s/x"), static_cast<int>(0x80000069u));
}

// A manager whose change log no longer reaches back (pruned, or emptied by hand) loads
// the whole file.
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
  std::string const other = dir.File("other.db");
  {
    Client elsewhere;
    ASSERT_EQ(elsewhere.Open(other), 0);
  }
  // Until its watcher has seen the name change a change may still go to the old file;
  // these would write nothing (1) there.
  auto const refused = [](Client& who) {
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    int rc = 1;
    while (rc == 1 && std::chrono::steady_clock::now() < deadline)
      rc = who.valueSetter->SetValue(P("s/x"), Setting::Value(std::string("1")));
    return rc;
  };
  std::filesystem::rename(other, db);
  EXPECT_EQ(refused(a), kInvalidResult);
  std::filesystem::remove(db);
  EXPECT_EQ(refused(b), kInvalidResult);
  Setting x;
  ASSERT_EQ(a.getter->GetSetting(P("s/x"), x), 0);
  EXPECT_EQ(std::get<std::string>(x), "1");
}

// Threads of two managers on one file: whatever the interleaving, both end equal to the
// file, and every answer and the final state are those of one store.
TEST_F(TwoManagers, ThreadsOfTwoManagersLoseNothing) {
  std::size_t const perThread = reliability::Scaled(60, 20);
  std::vector<std::vector<Ack>> acks(4);
  std::vector<std::thread> threads;
  for (std::size_t t = 0; t < acks.size(); ++t)
    threads.emplace_back([&, t] {
      Load load("t" + std::to_string(t), reliability::TestSeed("TwoManagers") + t);
      for (std::size_t i = 0; i < perThread; ++i) acks[t].push_back(load.Next(t % 2 ? b : a));
    });
  for (auto& thread : threads) thread.join();
  ExpectCoherent();
  std::vector<Ack> all;
  for (auto const& part : acks) all.insert(all.end(), part.begin(), part.end());
  Setting root;
  std::string error;
  ASSERT_TRUE(reliability::LoadFile(db, root, error)) << error;
  EXPECT_EQ(Check(root, all), "");
}

// What a refresh reports for the difference of two trees.
TEST(TreeDiff, ReportsWhatALocalChangeOfTheSameEffectWould) {
  auto map = [](std::vector<std::pair<std::string, Setting>> entries) {
    Setting s;
    auto& m = s.emplace<uvc::index::kMap>();
    for (auto& [key, child] : entries) m.emplace(key, child);
    return s;
  };
  auto list = [](std::vector<Setting> elements) {
    Setting s;
    s.emplace<uvc::index::kList>(std::move(elements));
    return s;
  };
  Setting const one(std::int32_t{1}), two(std::int32_t{2}), oneRo(std::int32_t{1}, {true});
  Setting const nan(std::numeric_limits<double>::quiet_NaN());
  struct Case {
    char const* name;
    Setting before, after;
    std::vector<Event> events;
  } const cases[] = {
      {"same", map({{"a", one}}), map({{"a", one}}), {}},
      {"value", one, two, {{"r/", ev::kValue}}},
      {"mark", one, oneRo, {{"r/", ev::kAttributes}}},
      {"both", two, oneRo, {{"r/", ev::kSetting}}},
      {"type", one, Setting(std::string("1")), {{"r/", ev::kValue}}},
      {"NaN read again", nan, nan, {}},
      {"map children",
       map({{"a", one}, {"b", one}, {"c", map({{"d", one}})}}),
       map({{"b", two}, {"c", map({{"d", oneRo}})}, {"e", one}}),
       {{"r/a/", ev::kDeleted},
        {"r/b/", ev::kValue},
        {"r/c/d/", ev::kAttributes},
        {"r/e/", ev::kCreated}}},
      {"list of another length", list({one}), list({one, two}), {{"r/", ev::kValue}}},
      {"list element", list({one, one}), list({one, two}), {{"r/1/", ev::kValue}}},
      {"map for a list", list({}), map({}), {{"r/", ev::kValue}}},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<Event> events;
    uvc::Path path{"r"};
    settings_manager::DiffTrees(c.before, c.after, path,
                                [&](uvc::Path const& at, unsigned char kind) {
                                  events.emplace_back(reliability::Text(at), kind);
                                });
    EXPECT_EQ(events, c.events);
    EXPECT_EQ(path, uvc::Path{"r"});
  }
}

}  // namespace
}  // namespace coherence
