// Load: client threads change, read, create and delete settings of a tree of more than
// 100 000 nodes while an observer of the root watches, for a bounded time. After a
// warm-up the memory in use must stay flat, the observer must have been told of every
// path that changed, and the file must hold the tree.

#include <malloc.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <set>
#include <thread>

#include "reliability.h"
#include "support/settings.h"
#include "support/temp_dir.h"

#ifdef SM_RELIABILITY_SANITIZED
extern "C" std::size_t __sanitizer_get_current_allocated_bytes();
#define SM_ALLOCATED_BYTES() __sanitizer_get_current_allocated_bytes()
#else
#define SM_ALLOCATED_BYTES() (mallinfo2().uordblks + mallinfo2().hblkhd)
#endif

namespace reliability {
namespace {

using test_support::Map;

struct Watcher : settings_manager::ISettingsUpdateObserver {
  void Update(uvc::Path const& path, unsigned char) override {
    std::lock_guard<std::mutex> lock(mutex);
    told.insert(Text(path));
    news.notify_all();
  }
  std::mutex mutex;
  std::condition_variable news;
  std::set<std::string> told;  // guarded by mutex
};

TEST(Soak, ClientsAndAnObserverOnAHundredThousandNodesKeepMemoryFlatAndMissNoChange) {
  auto const seed = TestSeed("Soak");
  test_support::TempDir dir;
  auto const db = dir.File("settings.db");
  Client client;
  ASSERT_EQ(client.Open(db), 0);
  Map dev, leaves;
  for (int k = 0; k < 400; ++k) leaves.emplace("k" + std::to_string(k), std::uint32_t(k));
  for (int g = 0; g < 250; ++g) dev.emplace("g" + std::to_string(g), leaves);  // 100 000 leaves
  ASSERT_EQ(client.creator->CreateSetting(P("dev"), Setting(std::move(dev))), 0);
  ASSERT_EQ(client.creator->CreateSetting(P("work"), Map()), 0);
  auto const root = std::make_shared<Watcher>();
  settings_manager::SubscriptionId id{};
  ASSERT_EQ(client.subscriber->Subscribe(uvc::Path(), root, id), 0);
  std::atomic<std::size_t> changes{0}, failures{0};
  // Four clients for `ms`: value changes and reads of leaves; creates, replacements,
  // attribute changes and deletes of settings of their own. Then the wait for delivery
  // to catch up: the root observer must know every change.
  auto const phase = [&](std::size_t ms) {
    auto const timeUp = Within(ms);
    std::vector<std::set<std::string>> changed(4);
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < 4; ++t)
      threads.emplace_back([&, t] {
        std::mt19937_64 random(seed + t);
        Values v(random);
        while (!timeUp()) {
          auto const roll = v.Below(100);
          auto const path =
              P(roll < 60 ? "dev/g" + std::to_string(v.Below(250)) + "/k" +
                                std::to_string(v.Below(400 + roll % 2 * 100))
                          : "work/t" + std::to_string(t) + std::to_string(v.Below(16)));
          Setting out;
          int const rc = roll < 50 ? client.valueSetter->SetValue(path, std::uint32_t(random()))
                         : roll < 60
                             ? (client.getter->GetSetting(path, out) == 0 ? 1 : fdn::rc::kNotFound)
                         : roll < 75 ? client.creator->CreateSetting(path, v.Tree(12))
                         : roll < 85 ? client.setter->SetSetting(path, v.Tree(12))
                         : roll < 92 ? client.setter->SetAttribute(path, {v.Chance(50)})
                                     : client.deleter->DeleteSetting(path);
          if (rc == 0) changed[t].insert(Text(path)), ++changes;
          // Only the expected refusals: missing or existing settings.
          failures += rc < 0 && rc != fdn::rc::kNotFound && rc != fdn::rc::kFound &&
                      rc != fdn::rc::kNotMatched;
        }
      });
    for (auto& thread : threads) thread.join();
    std::unique_lock<std::mutex> lock(root->mutex);
    bool const all = root->news.wait_for(lock, std::chrono::seconds(60), [&] {
      return std::all_of(changed.begin(), changed.end(), [&](auto const& paths) {
        return std::includes(root->told.begin(), root->told.end(), paths.begin(), paths.end());
      });
    });
    root->told.clear();
    return all;
  };
  ASSERT_TRUE(phase(Scaled(2000, 1000))) << "a changed path was never told";
  std::size_t const warm = SM_ALLOCATED_BYTES();
  ASSERT_TRUE(phase(Scaled(6000, 2000))) << "a changed path was never told";
  std::size_t const end = SM_ALLOCATED_BYTES();
  EXPECT_EQ(failures, 0u);
  // Flat: at most 4 MiB or 5 % over the warm level, whichever is more.
  EXPECT_LE(end, warm + std::max<std::size_t>(4u << 20, warm / 20)) << warm;
  ASSERT_EQ(client.subscriber->Unsubscribe(id), 0);
  Setting const last = TreeOf(client);
  client.Close();
  Setting rows;
  std::string error;
  ASSERT_TRUE(LoadFile(db, rows, error)) << error;
  ASSERT_EQ(rows, last) << "the file differs from the tree after the soak";
  Report("soak", changes, " changes by 4 threads, none missed; heap ", warm / 1024,
         " KiB after warm-up, ", end / 1024, " KiB at the end");
}

}  // namespace
}  // namespace reliability
