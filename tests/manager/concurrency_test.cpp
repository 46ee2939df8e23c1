// Many client threads on one manager with a file, with an observer reading back from
// the event thread: every call answers as if alone, and the file ends equal to the tree.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "fdn/result_codes.h"
#include "manager_test_util.h"

namespace manager_test {
namespace {

// Reads every changed path back from inside Update, and lets the test wait for one path.
class ReadingObserver : public settings_manager::ISettingsUpdateObserver {
 public:
  explicit ReadingObserver(settings_manager::ISettingsGetter* getter) : getter_(getter) {}

  void Update(uvc::Path const& path, unsigned char kind) override {
    Setting current;
    int const code = getter_->GetSetting(path, current);
    // A node may be gone again by the time its event arrives, but never unreadable.
    if (code != 0 && code != fdn::rc::kNotFound && code != fdn::rc::kNotMatched) ++badReads;
    std::lock_guard<std::mutex> lock(mutex_);
    ++updates_;
    if (path == P("done") && kind == settings_manager::event::kCreated) done_ = true;
    arrived_.notify_all();
  }
  std::size_t WaitForDone() {
    std::unique_lock<std::mutex> lock(mutex_);
    arrived_.wait(lock, [&] { return done_; });
    return updates_;
  }

  std::atomic<int> badReads{0};

 private:
  settings_manager::ISettingsGetter* const getter_;
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::size_t updates_ = 0;
  bool done_ = false;
};

class Concurrency : public ManagerTest {};

TEST_F(Concurrency, ReadersWritersAndTheEventThreadKeepTreeAndFileEqual) {
  constexpr int kWriters = 4;
  constexpr int kReaders = 3;
  constexpr std::uint64_t kRounds = 60;
  constexpr int kReadRounds = 1500;
  auto const own = [](int writer) { return "w" + std::to_string(writer); };
  for (int w = 0; w < kWriters; ++w)
    ASSERT_EQ(creator->CreateSetting(P(own(w) + "/counter"), Setting(std::uint64_t{0})), 0);
  ASSERT_EQ(creator->CreateSetting(P("shared"), Setting(std::int32_t{-1})), 0);
  auto observer = std::make_shared<ReadingObserver>(getter.get());
  settings_manager::SubscriptionId id{};
  ASSERT_EQ(subscriber->Subscribe(uvc::Path(), observer, id), 0);

  std::atomic<int> unexpected{0};
  auto check = [&unexpected](int result, std::initializer_list<int> allowed) {
    if (std::find(allowed.begin(), allowed.end(), result) == allowed.end()) ++unexpected;
  };
  std::atomic<bool> go{false};
  std::vector<std::thread> threads;
  for (int w = 0; w < kWriters; ++w) {
    threads.emplace_back([&, w] {
      auto const base = own(w);
      while (!go) std::this_thread::yield();
      for (std::uint64_t r = 1; r <= kRounds; ++r) {
        auto const item = P(base + "/k" + std::to_string(r % 5));
        check(valueSetter->SetValue(P(base + "/counter"), r), {0});
        check(creator->CreateSetting(item, Map({{"v", Setting(std::int32_t(r))}})),
              {0, fdn::rc::kFound});
        check(setter->SetAttribute(item, Attributes{r % 2 == 0}), {0, 1});
        if (r % 3 == 0)
          check(deleter->DeleteSetting(P(base + "/k" + std::to_string((r + 2) % 5))), {0, 1});
        check(setter->SetSetting(P("shared"), Setting(std::int32_t(w * 1000 + r))), {0});
      }
    });
  }
  for (int reader = 0; reader < kReaders; ++reader) {
    threads.emplace_back([&] {
      std::vector<std::uint64_t> last(kWriters, 0);
      while (!go) std::this_thread::yield();
      // Each counter has one writer, so a reader may never see one go back.
      for (int round = 0; round < kReadRounds; ++round) {
        for (int w = 0; w < kWriters; ++w) {
          Setting node;
          check(getter->GetSetting(P(own(w)), node), {0});
          auto const* map = std::get_if<uvc::index::kMap>(&node);
          if (map == nullptr || map->count("counter") == 0) {
            ++unexpected;
            continue;
          }
          auto const counter = std::get<std::uint64_t>(map->at("counter"));
          if (counter < last[w]) ++unexpected;
          last[w] = counter;
        }
        Attributes attributes;
        check(getter->GetAttribute(P("shared"), attributes), {0});
      }
    });
  }
  go = true;
  for (auto& t : threads) t.join();
  EXPECT_EQ(unexpected, 0);

  // Delivery still works after the storm, and every read from inside it was sound.
  ASSERT_EQ(creator->CreateSetting(P("done"), Setting(true)), 0);
  EXPECT_GT(observer->WaitForDone(), 0u);
  EXPECT_EQ(observer->badReads, 0);
  ASSERT_EQ(subscriber->Unsubscribe(id), 0);

  std::vector<std::string> keys = {"done", "shared"};
  for (int w = 0; w < kWriters; ++w) keys.push_back(own(w));
  std::vector<Setting> before;
  std::size_t nodes = 1;
  for (auto const& key : keys) {
    before.push_back(Get(key));
    nodes += CountNodes(before.back());
  }
  for (int w = 0; w < kWriters; ++w)
    EXPECT_EQ(std::get<std::uint64_t>(Get(own(w) + "/counter")), kRounds);
  Reopen();
  for (std::size_t i = 0; i < keys.size(); ++i) EXPECT_EQ(Get(keys[i]), before[i]) << keys[i];
  EXPECT_EQ(startup.back(), prefix + " OK: " + std::to_string(nodes) + " node(s)");
}

}  // namespace
}  // namespace manager_test
