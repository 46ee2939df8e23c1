// Load: client threads change, read, create and delete settings of a tree of more than
// 100 000 nodes while observers watch, for a bounded time. After a warm-up the memory in
// use must stay flat, and an observer of the root must have been told of every path
// that changed.

#include <malloc.h>

#include <condition_variable>
#include <cstdio>
#include <mutex>
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
constexpr std::size_t kGroups = 250, kLeaves = 400;  // 100 000 leaves under dev/
constexpr std::size_t kClients = 4, kSlots = 16;     // settings each client makes in work/
constexpr std::size_t kPaths = kGroups * kLeaves + kClients * kSlots;

std::size_t AllocatedBytes() {  // the allocator's own count
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  return __sanitizer_get_current_allocated_bytes();
#else
  return mallinfo2().uordblks + mallinfo2().hblkhd;
#endif
}

// Every path a client changes has a number below kPaths: dev/g<G>/k<K> is G * kLeaves + K,
// work/t<C>/n<S> comes after them. Storage of a fixed size keeps what changed.
uvc::Path PathOf(std::size_t number) {
  if (number < kGroups * kLeaves)
    return P("dev/g" + std::to_string(number / kLeaves) + "/k" + std::to_string(number % kLeaves));
  number -= kGroups * kLeaves;
  return P("work/t" + std::to_string(number / kSlots) + "/n" + std::to_string(number % kSlots));
}
std::size_t NumberOf(uvc::Path const& path) {
  std::size_t a = 0, b = 0;
  auto const text = Text(path);
  if (std::sscanf(text.c_str(), "dev/g%zu/k%zu", &a, &b) == 2) return a * kLeaves + b;
  if (std::sscanf(text.c_str(), "work/t%zu/n%zu", &a, &b) == 2)
    return kGroups * kLeaves + a * kSlots + b;
  return kPaths;
}

// Marks every path it is told of, and counts the others.
class Watcher : public settings_manager::ISettingsUpdateObserver {
 public:
  void Update(uvc::Path const& path, unsigned char) override {
    std::lock_guard<std::mutex> lock(lock_);
    auto const number = NumberOf(path);
    (number < kPaths ? told_[number] : others) = 1;
    changed_.notify_all();
  }
  // Waits, at most a minute, until every path marked in `changed` has been told; then
  // forgets them.
  bool WaitFor(std::vector<std::atomic<std::uint8_t>>& changed) {
    std::unique_lock<std::mutex> lock(lock_);
    bool const all = changed_.wait_for(lock, std::chrono::seconds(60), [&] {
      for (std::size_t i = 0; i < kPaths; ++i)
        if (changed[i] != 0 && told_[i] == 0) return false;
      return true;
    });
    told_.assign(kPaths, 0);
    for (auto& c : changed) c = 0;
    return all;
  }
  std::uint8_t others = 0;  // guarded by lock_

 private:
  std::mutex lock_;
  std::condition_variable changed_;
  std::vector<std::uint8_t> told_ = std::vector<std::uint8_t>(kPaths);  // guarded by lock_
};

// Told only of paths below dev/; reads the manager from inside Update, as it may.
struct Reader : settings_manager::ISettingsUpdateObserver {
  explicit Reader(std::shared_ptr<settings_manager::ISettingsGetter> g) : getter(std::move(g)) {}
  void Update(uvc::Path const& path, unsigned char) override {
    Setting value;
    outside += Text(path).rfind("dev/", 0) != 0;
    getter->GetSetting(path, value);
  }
  std::shared_ptr<settings_manager::ISettingsGetter> getter;
  std::atomic<std::size_t> outside{0};
};

TEST(Soak, ClientsAndObserversOnAHundredThousandNodesKeepMemoryFlatAndMissNoChange) {
  QuietLog quiet;
  auto const seed = TestSeed("Soak");
  test_support::TempDir dir;
  auto const db = dir.File("settings.db");
  Client client;
  ASSERT_EQ(client.Open(db), 0);
  Setting dev = test_support::MapOf({});
  for (std::size_t g = 0; g < kGroups; ++g) {
    Map leaves;
    for (std::size_t k = 0; k < kLeaves; ++k)
      leaves.emplace("k" + std::to_string(k), Setting(static_cast<std::uint32_t>(k)));
    std::get<Map>(dev).emplace("g" + std::to_string(g), Setting(std::move(leaves)));
  }
  ASSERT_EQ(client.creator->CreateSetting(P("dev"), dev), 0);
  for (std::size_t t = 0; t < kClients; ++t)
    ASSERT_EQ(client.creator->CreateSetting(P("work/t" + std::to_string(t)), Map()), 0);
  auto const root = std::make_shared<Watcher>();
  auto const reader = std::make_shared<Reader>(client.getter);
  settings_manager::SubscriptionId rootId{}, devId{};
  ASSERT_EQ(client.subscriber->Subscribe(uvc::Path(), root, rootId), 0);
  ASSERT_EQ(client.subscriber->Subscribe(P("dev"), reader, devId), 0);

  std::vector<std::atomic<std::uint8_t>> changed(kPaths);
  std::atomic<std::size_t> changes{0}, failures{0};
  // Four clients for `length`: value changes of leaves, reads of leaves and groups, and
  // creates, replacements, attribute changes and deletes of their own slots.
  auto const phase = [&](std::size_t length) {
    Deadline const until{std::chrono::milliseconds(length)};
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < kClients; ++t)
      threads.emplace_back([&, t] {
        std::mt19937_64 random(seed + t);
        Values values(random);
        while (!until.Passed()) {
          auto const roll = values.Below(100);
          auto const number = roll < 60 ? values.Below(kGroups * kLeaves)
                                        : kGroups * kLeaves + t * kSlots + values.Below(kSlots);
          auto path = PathOf(number);
          Setting out;
          int const rc = roll < 40   ? client.valueSetter->SetValue(path, std::uint32_t(random()))
                         : roll < 60 ? (path.resize(values.Chance(10) ? 2 : 3),
                                        client.getter->GetSetting(path, out) == 0 ? 1 : -1)
                         : roll < 75 ? client.creator->CreateSetting(path, values.Tree(12))
                         : roll < 85 ? client.setter->SetSetting(path, values.Tree(12))
                         : roll < 92 ? client.setter->SetAttribute(path, {values.Chance(50)})
                                     : client.deleter->DeleteSetting(path);
          if (rc == 0) changed[number] = 1;
          changes += rc == 0;
          // Only the expected refusals: missing or existing slots.
          failures += rc < 0 && rc != fdn::rc::kNotFound && rc != fdn::rc::kFound &&
                      rc != fdn::rc::kNotMatched;
        }
      });
    for (auto& thread : threads) thread.join();
    return root->WaitFor(changed);
  };
  // Warm-up, then wait for delivery to catch up: the root observer knows every change.
  ASSERT_TRUE(phase(Scaled(2000, 1000))) << "a changed path was never told";
  std::size_t const warm = AllocatedBytes();
  ASSERT_TRUE(phase(Scaled(6000, 2000))) << "a changed path was never told";
  std::size_t const end = AllocatedBytes();
  EXPECT_EQ(failures, 0u);
  EXPECT_EQ(root->others, 0u);
  EXPECT_EQ(reader->outside, 0u);
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
