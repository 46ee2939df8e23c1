// The manager against a model of itself: random calls, and a bounded soak.

#include <malloc.h>

#include <algorithm>
#include <thread>

#include "reliability.h"
#include "support/fault_vfs.h"
#include "support/settings.h"
#include "support/temp_dir.h"

#if SM_RELIABILITY_SANITIZED
extern "C" std::size_t __sanitizer_get_current_allocated_bytes();
#define SM_ALLOCATED_BYTES() __sanitizer_get_current_allocated_bytes()
#else
#define SM_ALLOCATED_BYTES() (mallinfo2().uordblks + mallinfo2().hblkhd)
#endif

namespace reliability {
namespace {

// Whatever a random sequence of changes answers, after every one the tree in memory is the
// tree a fresh manager loads from the file, and a manager without a file, given the same
// changes, answers and looks the same.

TEST(Property, AfterEveryCallTheTreeInMemoryIsTheTreeAFreshManagerLoads) {
  auto const seed = TestSeed("Property");
  test_support::FaultVfs vfs;  // syncs skipped: durability is the power-cut suite's business
  test_support::TempDir dir;
  auto const db = dir.File("settings.db");
  std::size_t const steps = Scaled(2000, 150);
  Client file, memory;
  ASSERT_EQ(file.Open(db), 0);
  ASSERT_EQ(memory.Open(""), 0);
  Stream const stream{seed, 300};
  std::size_t step = 0, failures = 0;
  for (; step < steps; ++step) {
    Op op = stream.Make(step, file);
    SCOPED_TRACE("step " + std::to_string(step) + " " + Text(op.path));
    int const rc = Apply(op, file);
    ASSERT_EQ(rc, Apply(op, memory));
    failures += rc < 0;
    Setting const now = TreeOf(file);
    ASSERT_EQ(now, TreeOf(memory));
    ASSERT_EQ(now, Restarted(db));
  }
  Report("property", step, " random calls, ", failures, " refused, each checked by a restart");
}

// Load: client threads change, read, create and delete settings of a tree of more than 100
// 000 nodes while an observer of the root is told of every change, for a bounded time.
// After a warm-up the memory in use must stay flat, and the file must hold the tree. (That
// the observer misses nothing is the events suites' business.)
struct Counter : settings_manager::ISettingsUpdateObserver {
  void Update(uvc::Path const&, unsigned char) override { ++told; }
  std::atomic<std::size_t> told{0};
};

TEST(Soak, ClientsAndAnObserverOnAHundredThousandNodesKeepMemoryFlat) {
  auto const seed = TestSeed("Soak");
  test_support::TempDir dir;
  auto const db = dir.File("settings.db");
  Client client;
  ASSERT_EQ(client.Open(db), 0);
  test_support::Map dev, leaves;
  for (int k = 0; k < 400; ++k) leaves.emplace("k" + std::to_string(k), std::uint32_t(k));
  for (int g = 0; g < 250; ++g) dev.emplace("g" + std::to_string(g), leaves);  // 100 000 leaves
  ASSERT_EQ(client.creator->CreateSetting(P("dev"), Setting(std::move(dev))), 0);
  ASSERT_EQ(client.creator->CreateSetting(P("work"), test_support::Map()), 0);
  auto const root = std::make_shared<Counter>();
  settings_manager::SubscriptionId id{};
  ASSERT_EQ(client.subscriber->Subscribe(uvc::Path(), root, id), 0);
  std::atomic<std::size_t> changes{0}, failures{0};
  // Four clients for `ms`: value changes and reads of leaves; creates, replacements,
  // attribute changes and deletes of settings of their own.
  auto const phase = [&](std::size_t ms) {
    auto const until = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < 4; ++t)
      threads.emplace_back([&, t] {
        std::mt19937_64 random(seed + t);
        Values v{random};
        while (std::chrono::steady_clock::now() < until) {
          auto const roll = v.Below(100);
          auto const path =
              P(roll < 60 ? "dev/g" + std::to_string(v.Below(250)) + "/k" +
                                std::to_string(v.Below(400 + roll % 2 * 100))
                          : "work/t" + std::to_string(t) + std::to_string(v.Below(16)));
          Setting out;
          int const rc = roll < 50   ? client.valueSetter->SetValue(path, std::uint32_t(random()))
                         : roll < 60 ? client.getter->GetSetting(path, out)
                         : roll < 75 ? client.creator->CreateSetting(path, v.Tree(12))
                         : roll < 85 ? client.setter->SetSetting(path, v.Tree(12))
                         : roll < 92 ? client.setter->SetAttribute(path, {v.Chance(50)})
                                     : client.deleter->DeleteSetting(path);
          changes += rc == 0;
          // Only the expected refusals: missing or existing settings.
          failures += rc < 0 && rc != fdn::rc::kNotFound && rc != fdn::rc::kFound &&
                      rc != fdn::rc::kNotMatched;
        }
      });
    for (auto& thread : threads) thread.join();
  };
  phase(Scaled(2000, 1000));
  std::size_t const warm = SM_ALLOCATED_BYTES();
  phase(Scaled(6000, 2000));
  std::size_t const end = SM_ALLOCATED_BYTES();
  EXPECT_EQ(failures, 0u);
  // Flat: at most 4 MiB or 5 % over the warm level, whichever is more.
  EXPECT_LE(end, warm + std::max<std::size_t>(4u << 20, warm / 20)) << warm;
  ASSERT_EQ(client.subscriber->Unsubscribe(id), 0);
  Setting const last = TreeOf(client);
  client.Close();
  ASSERT_EQ(Restarted(db), last) << "the file differs from the tree after the soak";
  Report("soak", changes, " calls done by 4 threads, ", root->told, " told; heap ", warm / 1024,
         " KiB after warm-up, ", end / 1024, " KiB at the end");
}

}  // namespace
}  // namespace reliability
