// Client threads on one manager with a file and an observer reading back from the event
// thread: every call answers as if alone, no reader sees a counter go back, and the file
// ends equal to the tree.

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

#include "support/manager_fixture.h"

namespace test_support {
namespace {

// Reads every changed path back from inside Update; `done` is kept once "done/" is created.
struct ReadingObserver : settings_manager::ISettingsUpdateObserver {
  void Update(uvc::Path const& path, unsigned char kind) override {
    Setting current;
    int const rc = getter->GetSetting(path, current);  // gone again is fine, unreadable is not
    if (rc != 0 && rc != Code(0x8000004Cu) && rc != Code(0x8000004Au)) ++badReads;
    if (path == P("done") && kind == settings_manager::event::kCreated) done.set_value();
  }
  settings_manager::ISettingsGetter* getter = nullptr;
  std::atomic<int> badReads{0};
  std::promise<void> done;
};

class Concurrency : public ManagerTest {};

TEST_F(Concurrency, ReadersWritersAndTheEventThreadKeepTreeAndFileEqual) {
  constexpr int kWriters = 4, kReaders = 2;
  constexpr std::uint64_t kRounds = 60;
  for (int w = 0; w < kWriters; ++w)
    ASSERT_EQ(creator->CreateSetting(P("w" + std::to_string(w) + "/counter"), Setting(kRounds * 0)),
              0);
  ASSERT_EQ(creator->CreateSetting(P("shared"), Int(0)), 0);
  auto observer = std::make_shared<ReadingObserver>();
  observer->getter = getter.get();
  settings_manager::SubscriptionId id{};
  ASSERT_EQ(subscriber->Subscribe(uvc::Path(), observer, id), 0);
  std::atomic<int> unexpected{0}, writing{kWriters};
  auto check = [&](int rc, int a, int b) { unexpected += rc != a && rc != b; };
  std::vector<std::thread> threads;
  for (int w = 0; w < kWriters; ++w) {
    threads.emplace_back([&, w, base = "w" + std::to_string(w) + "/"] {
      for (std::uint64_t r = 1; r <= kRounds; ++r) {
        auto const item = P(base + "k" + std::to_string(r % 5));
        check(valueSetter->SetValue(P(base + "counter"), r), 0, 0);
        check(creator->CreateSetting(item, MapOf({{"v", Int(int(r))}})), 0, Code(0x8000004Du));
        check(setter->SetAttribute(item, Attributes{r % 2 == 0}), 0, 1);
        if (r % 3 == 0)
          check(deleter->DeleteSetting(P(base + "k" + std::to_string((r + 2) % 5))), 0, 1);
        check(setter->SetSetting(P("shared"), Int(w * 1000 + int(r))), 0, 0);
      }
      --writing;
    });
  }
  for (int reader = 0; reader < kReaders; ++reader) {
    threads.emplace_back([&] {
      std::vector<std::uint64_t> last(kWriters, 0);  // one writer per counter: never goes back
      while (writing > 0) {
        for (int w = 0; w < kWriters; ++w) {
          Setting counter;
          check(getter->GetSetting(P("w" + std::to_string(w) + "/counter"), counter), 0, 0);
          auto const value = std::get<std::uint64_t>(counter);
          unexpected += value < last[w];
          last[w] = value;
        }
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(unexpected, 0);
  ASSERT_EQ(creator->CreateSetting(P("done"), Setting(true)), 0);
  observer->done.get_future().wait();  // delivery still works, and every read in it was sound
  EXPECT_EQ(observer->badReads, 0);
  ASSERT_EQ(subscriber->Unsubscribe(id), 0);
  for (int w = 0; w < kWriters; ++w)
    EXPECT_EQ(Get("w" + std::to_string(w) + "/counter"), Setting(kRounds));
  auto const tree = Tree();
  Reopen();
  EXPECT_EQ(Tree(), tree);
  EXPECT_EQ(Rows().size(), CountNodes(tree));
}

}  // namespace
}  // namespace test_support
