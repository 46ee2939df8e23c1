// Load: client threads change, read, create and delete settings of a tree of more than
// 100 000 nodes while observers watch, for a bounded time. After a warm-up the memory in
// use must stay flat, and an observer of the root must have been told of every path
// that changed.

#include <malloc.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <set>
#include <thread>

#include "reliability_util.h"
#include "support/settings.h"
#include "support/temp_dir.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
extern "C" std::size_t __sanitizer_get_current_allocated_bytes();
#endif

namespace reliability {
namespace {

using test_support::Map;

std::size_t AllocatedBytes() {  // the allocator's own count
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  return __sanitizer_get_current_allocated_bytes();
#else
  return mallinfo2().uordblks + mallinfo2().hblkhd;
#endif
}

// The paths it is told of (below dev/ and work/ only: `outside` counts the others). A
// subscriber to dev/ reads the manager from inside Update, as it may.
struct Watcher : settings_manager::ISettingsUpdateObserver {
  explicit Watcher(std::shared_ptr<settings_manager::ISettingsGetter> g) : getter(std::move(g)) {}
  void Update(uvc::Path const& path, unsigned char) override {
    Setting value;
    if (getter != nullptr) getter->GetSetting(path, value);
    std::lock_guard<std::mutex> lock(mutex);
    auto const text = Text(path);
    outside += text.rfind(getter != nullptr ? "dev/" : "", 0) != 0 || path.size() != 3;
    if (getter == nullptr) told.insert(text);
    news.notify_all();
  }
  std::shared_ptr<settings_manager::ISettingsGetter> getter;
  std::mutex mutex;
  std::condition_variable news;
  std::set<std::string> told;  // guarded by mutex
  std::size_t outside = 0;     // guarded by mutex
};

TEST(Soak, ClientsAndObserversOnAHundredThousandNodesKeepMemoryFlatAndMissNoChange) {
  QuietLog quiet;
  auto const seed = TestSeed("Soak");
  test_support::TempDir dir;
  auto const db = dir.File("settings.db");
  Client client;
  ASSERT_EQ(client.Open(db), 0);
  constexpr std::size_t kClients = 4;
  Setting dev = test_support::MapOf({});
  for (int g = 0; g < 250; ++g) {  // 250 x 400 leaves
    Map leaves;
    for (int k = 0; k < 400; ++k)
      leaves.emplace("k" + std::to_string(k), Setting(std::uint32_t(k)));
    std::get<Map>(dev).emplace("g" + std::to_string(g), Setting(std::move(leaves)));
  }
  ASSERT_EQ(client.creator->CreateSetting(P("dev"), dev), 0);
  for (std::size_t t = 0; t < kClients; ++t)
    ASSERT_EQ(client.creator->CreateSetting(P("work/t" + std::to_string(t)), Map()), 0);
  auto const root = std::make_shared<Watcher>(nullptr);
  auto const reader = std::make_shared<Watcher>(client.getter);
  settings_manager::SubscriptionId rootId{}, devId{};
  ASSERT_EQ(client.subscriber->Subscribe(uvc::Path(), root, rootId), 0);
  ASSERT_EQ(client.subscriber->Subscribe(P("dev"), reader, devId), 0);

  std::mutex mutex;
  std::set<std::string> changed;  // guarded by mutex
  std::atomic<std::size_t> changes{0}, failures{0};
  // Four clients for `ms`: value changes of leaves, reads of leaves and groups, and
  // creates, replacements, attribute changes and deletes of settings of their own. Then
  // the wait for delivery to catch up: the root observer must know every change.
  auto const phase = [&](std::size_t ms) {
    auto const until = Within(ms);
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < kClients; ++t)
      threads.emplace_back([&, t] {
        std::mt19937_64 random(seed + t);
        Values values(random);
        while (!until.Passed()) {
          auto const roll = values.Below(100);
          auto const text =
              roll < 60 ? "dev/g" + std::to_string(values.Below(250)) + "/k" +
                              std::to_string(values.Below(400))
                        : "work/t" + std::to_string(t) + "/n" + std::to_string(values.Below(16));
          auto path = P(text);
          Setting out;
          int const rc = roll < 40   ? client.valueSetter->SetValue(path, std::uint32_t(random()))
                         : roll < 60 ? (path.resize(values.Chance(10) ? 2 : 3),
                                        client.getter->GetSetting(path, out) == 0 ? 1 : -1)
                         : roll < 75 ? client.creator->CreateSetting(path, values.Tree(12))
                         : roll < 85 ? client.setter->SetSetting(path, values.Tree(12))
                         : roll < 92 ? client.setter->SetAttribute(path, {values.Chance(50)})
                                     : client.deleter->DeleteSetting(path);
          changes += rc == 0;
          // Only the expected refusals: missing or existing settings.
          failures += rc < 0 && rc != fdn::rc::kNotFound && rc != fdn::rc::kFound &&
                      rc != fdn::rc::kNotMatched;
          std::lock_guard<std::mutex> lock(mutex);
          if (rc == 0) changed.insert(Text(path));
        }
      });
    for (auto& thread : threads) thread.join();
    std::unique_lock<std::mutex> lock(root->mutex);
    bool const all = root->news.wait_for(lock, std::chrono::seconds(60), [&] {
      return std::includes(root->told.begin(), root->told.end(), changed.begin(), changed.end());
    });
    root->told.clear();
    changed.clear();
    return all;
  };
  ASSERT_TRUE(phase(Scaled(2000, 1000))) << "a changed path was never told";
  std::size_t const warm = AllocatedBytes();
  ASSERT_TRUE(phase(Scaled(6000, 2000))) << "a changed path was never told";
  std::size_t const end = AllocatedBytes();
  EXPECT_EQ(failures, 0u);
  EXPECT_EQ(root->outside + reader->outside, 0u);
  // Flat: at most 4 MiB or 5 % over the warm level, whichever is more.
  EXPECT_LE(end, warm + std::max<std::size_t>(4u << 20, warm / 20)) << warm;
  ASSERT_EQ(client.subscriber->Unsubscribe(rootId), 0);
  ASSERT_EQ(client.subscriber->Unsubscribe(devId), 0);
  Setting const last = TreeOf(*client.getter, {"dev", "work"});
  client.Close();
  std::string error;
  Setting rows;
  ASSERT_TRUE(LoadFile(db, rows, error)) << error;
  ASSERT_EQ(rows, last) << "the file differs from the tree after the soak";
  Report("soak", std::to_string(changes) + " changes by " + std::to_string(kClients) +
                     " threads on " + std::to_string(test_support::CountNodes(last)) +
                     " nodes, none missed; heap " + std::to_string(warm / 1024) +
                     " KiB after warm-up, " + std::to_string(end / 1024) + " KiB at the end");
}

}  // namespace
}  // namespace reliability
