// Load: client threads change, read, create and delete settings of a tree of more than
// 100 000 nodes while observers watch, for a bounded time. After a warm-up the memory in
// use must stay flat, and an observer of the root must have been told of every path
// that changed.

#include <malloc.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <sstream>
#include <thread>

#include "fdn/result_codes.h"
#include "reliability_util.h"
#include "support/temp_dir.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
extern "C" std::size_t __sanitizer_get_current_allocated_bytes();
#endif

namespace reliability {
namespace {

namespace ix = uvc::index;
using settings_manager::ISettingsUpdateObserver;
using settings_manager::SubscriptionId;

constexpr std::size_t kGroups = 250;
constexpr std::size_t kLeaves = 400;  // 250 x 400 = 100 000 leaves under dev/
constexpr std::size_t kClients = 4;
constexpr std::size_t kSlots = 16;  // settings each client creates and deletes in work/
constexpr std::size_t kPaths = kGroups * kLeaves + kClients * kSlots;

// Bytes in use on the heap: the allocator's own count.
std::size_t AllocatedBytes() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  return __sanitizer_get_current_allocated_bytes();
#else
  auto const info = mallinfo2();
  return info.uordblks + info.hblkhd;
#endif
}

std::string Name(char prefix, std::size_t i) {
  char text[8];
  std::snprintf(text, sizeof text, "%c%03zu", prefix, i);
  return text;
}

// Every path the clients change has a number, so that what changed and what was told can
// be kept in storage of a fixed size.
std::size_t LeafIndex(std::size_t group, std::size_t leaf) { return group * kLeaves + leaf; }
std::size_t SlotIndex(std::size_t client, std::size_t slot) {
  return kGroups * kLeaves + client * kSlots + slot;
}
uvc::Path LeafPath(std::size_t group, std::size_t leaf) {
  return {uvc::Id("dev"), uvc::Id(Name('g', group)), uvc::Id(Name('k', leaf))};
}
uvc::Path SlotPath(std::size_t client, std::size_t slot) {
  return {uvc::Id("work"), uvc::Id(Name('t', client)), uvc::Id(Name('n', slot))};
}
// The number of a path, or kPaths for one no client changes.
std::size_t IndexOf(uvc::Path const& path) {
  if (path.size() != 3 || path[0].index() != 1 || path[1].index() != 1 || path[2].index() != 1)
    return kPaths;
  auto const& top = std::get<1>(path[0]);
  auto const& second = std::get<1>(path[1]);
  auto const& third = std::get<1>(path[2]);
  auto const number = [](std::string const& s) {
    return static_cast<std::size_t>(std::atoi(s.c_str() + 1));
  };
  if (top == "dev" && second[0] == 'g' && third[0] == 'k')
    return LeafIndex(number(second), number(third));
  if (top == "work" && second[0] == 't' && third[0] == 'n')
    return SlotIndex(number(second), number(third));
  return kPaths;
}

// Marks every path it is told of; storage fixed in advance.
class Watcher : public ISettingsUpdateObserver {
 public:
  Watcher() : told_(kPaths, 0) {}
  void Update(uvc::Path const& path, unsigned char) override {
    auto const index = IndexOf(path);
    std::lock_guard<std::mutex> lock(lock_);
    ++calls_;
    if (index < kPaths)
      told_[index] = 1;
    else
      ++others_;
    changed_.notify_all();
  }
  // Waits, at most `limit`, until every path marked in `changed` has been told.
  bool WaitFor(std::vector<std::atomic<std::uint8_t>> const& changed, std::chrono::seconds limit) {
    std::unique_lock<std::mutex> lock(lock_);
    return changed_.wait_for(lock, limit, [&] {
      for (std::size_t i = 0; i < kPaths; ++i)
        if (changed[i].load() != 0 && told_[i] == 0) return false;
      return true;
    });
  }
  std::size_t Missing(std::vector<std::atomic<std::uint8_t>> const& changed) {
    std::lock_guard<std::mutex> lock(lock_);
    std::size_t missing = 0;
    for (std::size_t i = 0; i < kPaths; ++i) missing += changed[i].load() != 0 && told_[i] == 0;
    return missing;
  }
  void Forget() {
    std::lock_guard<std::mutex> lock(lock_);
    std::fill(told_.begin(), told_.end(), 0);
  }
  std::size_t Calls() {
    std::lock_guard<std::mutex> lock(lock_);
    return calls_;
  }
  std::size_t Others() {
    std::lock_guard<std::mutex> lock(lock_);
    return others_;
  }

 private:
  std::mutex lock_;
  std::condition_variable changed_;
  std::vector<std::uint8_t> told_;  // guarded by lock_
  std::size_t calls_ = 0;           // guarded by lock_
  std::size_t others_ = 0;          // guarded by lock_
};

// Told only of paths below dev/; reads the manager from inside Update, as it may.
class Reader : public ISettingsUpdateObserver {
 public:
  explicit Reader(std::shared_ptr<settings_manager::ISettingsGetter> getter)
      : getter_(std::move(getter)) {}
  void Update(uvc::Path const& path, unsigned char) override {
    if (path.empty() || path[0] != uvc::Id("dev")) ++outside;
    Setting value;
    if (getter_->GetSetting(path, value) == 0) ++read;
  }
  std::atomic<std::size_t> outside{0};
  std::atomic<std::size_t> read{0};

 private:
  std::shared_ptr<settings_manager::ISettingsGetter> getter_;
};

struct Tally {
  std::atomic<std::size_t> changes{0};
  std::atomic<std::size_t> reads{0};
  std::atomic<std::size_t> failures{0};
};

void RunClient(Client& client, std::size_t id, std::uint64_t seed, Deadline const& until,
               std::vector<std::atomic<std::uint8_t>>& changed, Tally& tally) {
  std::mt19937_64 random(seed + id);
  Values values(random);
  while (!until.Passed()) {
    auto const roll = values.Below(100);
    int rc = 0;
    std::size_t index = kPaths;
    if (roll < 40) {
      auto const g = values.Below(kGroups), k = values.Below(kLeaves);
      index = LeafIndex(g, k);
      rc = client.valueSetter->SetValue(LeafPath(g, k), static_cast<std::uint32_t>(random()));
    } else if (roll < 60) {
      Setting out;
      auto path = LeafPath(values.Below(kGroups), values.Below(kLeaves));
      if (values.Chance(10)) path.pop_back();  // a whole group of 400
      rc = client.getter->GetSetting(path, out) == 0 ? 1 : -1;
      ++tally.reads;
    } else {
      auto const slot = values.Below(kSlots);
      index = SlotIndex(id, slot);
      auto const path = SlotPath(id, slot);
      if (roll < 75)
        rc = client.creator->CreateSetting(path, values.Tree(12));
      else if (roll < 85)
        rc = client.setter->SetSetting(path, values.Tree(12));
      else if (roll < 92)
        rc = client.setter->SetAttribute(path, Attributes{values.Chance(50)});
      else
        rc = client.deleter->DeleteSetting(path);
    }
    if (rc == 0 && index < kPaths) {
      changed[index] = 1;
      ++tally.changes;
    } else if (rc < 0) {
      // Only the expected refusals: missing or existing slots.
      if (rc != fdn::rc::kNotFound && rc != fdn::rc::kFound && rc != fdn::rc::kNotMatched)
        ++tally.failures;
    }
  }
}

TEST(Soak, ClientsAndObserversOnAHundredThousandNodesKeepMemoryFlatAndMissNoChange) {
  QuietLog quiet(tern::logger::LogLevel::Fatal);
  auto const seed = TestSeed("Soak");
  test_support::TempDir dir;
  auto const db = dir.File("settings.db");
  auto const warmUp = std::chrono::milliseconds(Scaled(2000, 1000));
  auto const run = std::chrono::milliseconds(Scaled(6000, 2000));

  Client client;
  ASSERT_EQ(client.Open(db), 0);
  {
    Setting dev;
    auto& groups = dev.emplace<ix::kMap>();
    for (std::size_t g = 0; g < kGroups; ++g) {
      Setting group;
      auto& leaves = group.emplace<ix::kMap>();
      for (std::size_t k = 0; k < kLeaves; ++k)
        leaves.emplace(Name('k', k), Setting(static_cast<std::uint32_t>(g * kLeaves + k)));
      groups.emplace(Name('g', g), std::move(group));
    }
    ASSERT_EQ(client.creator->CreateSetting(P("dev"), dev), 0);
    for (std::size_t t = 0; t < kClients; ++t)
      ASSERT_EQ(
          client.creator->CreateSetting({uvc::Id("work"), uvc::Id(Name('t', t))},
                                        Setting(std::map<std::string, Setting, std::less<>>())),
          0);
  }
  auto const root = std::make_shared<Watcher>();
  auto const reader = std::make_shared<Reader>(client.getter);
  SubscriptionId rootId{}, devId{};
  ASSERT_EQ(client.subscriber->Subscribe(uvc::Path(), root, rootId), 0);
  ASSERT_EQ(client.subscriber->Subscribe(P("dev"), reader, devId), 0);

  std::vector<std::atomic<std::uint8_t>> changed(kPaths);
  Tally tally;
  auto phase = [&](std::chrono::milliseconds length) {
    Deadline const until(length);
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < kClients; ++t)
      threads.emplace_back([&, t] { RunClient(client, t, seed, until, changed, tally); });
    for (auto& thread : threads) thread.join();
  };

  // Warm-up, then wait for delivery to catch up: the root observer knows every change.
  phase(warmUp);
  ASSERT_TRUE(root->WaitFor(changed, std::chrono::seconds(60)))
      << root->Missing(changed) << " paths never told";
  std::size_t const warm = AllocatedBytes();
  std::size_t const warmChanges = tally.changes;
  for (auto& c : changed) c = 0;
  root->Forget();

  phase(run);
  ASSERT_TRUE(root->WaitFor(changed, std::chrono::seconds(60)))
      << root->Missing(changed) << " paths never told";
  std::size_t const end = AllocatedBytes();

  EXPECT_EQ(tally.failures.load(), 0u);
  EXPECT_EQ(root->Others(), 0u);
  EXPECT_EQ(reader->outside.load(), 0u);
  // Flat: at most 4 MiB or 5 % over the warm level, whichever is more.
  std::size_t const allowance = std::max<std::size_t>(4u << 20, warm / 20);
  EXPECT_LE(end, warm + allowance) << "warm " << warm << " bytes, end " << end;

  ASSERT_EQ(client.subscriber->Unsubscribe(rootId), 0);
  ASSERT_EQ(client.subscriber->Unsubscribe(devId), 0);
  Setting const last = TreeOf(*client.getter, {"dev", "work"});
  client.Close();
  std::string error;
  Setting rows;
  ASSERT_TRUE(LoadFile(db, rows, error)) << error;
  ASSERT_TRUE(Same(rows, last)) << "the file differs from the tree after the soak";

  std::ostringstream figures;
  figures << kClients << " client threads for " << (warmUp + run).count() << " ms on "
          << CountNodes(last) << " nodes: " << tally.changes << " changes (" << warmChanges
          << " in the warm-up), " << tally.reads << " reads, " << root->Calls()
          << " root observer calls, no changed path missed; heap " << warm / 1024
          << " KiB after warm-up, " << end / 1024 << " KiB at the end";
  Report("soak", figures.str());
}

}  // namespace
}  // namespace reliability
