// Client threads changing, subscribing and unsubscribing while deliveries run (the case
// for ThreadSanitizer), then the manager's end in the middle of a burst.

#include <map>

#include "event_test_util.h"

namespace events_test {
namespace {

// What every observer of the test may rely on, whoever it is.
struct Watch {
  std::weak_ptr<settings_manager::ISettingsManager> manager;
  std::atomic<bool> destroyed{false};
  std::atomic<int> running{0}, overlapping{0}, afterDestruction{0};
  std::atomic<int> lateStarts{0};      // began after the last owner let go
  std::atomic<int> insideAtReturn{0};  // Unsubscribe returned while its observer ran
  std::atomic<int> stillHeld{0};       // ... or while the library still held it
};

class Checked : public Recorder {
 public:
  explicit Checked(std::shared_ptr<Watch> watch) : watch_(std::move(watch)) {}
  void Update(uvc::Path const& path, unsigned char kind) override {
    if (watch_->running++ != 0) ++watch_->overlapping;
    if (watch_->manager.expired()) ++watch_->lateStarts;
    if (watch_->destroyed) ++watch_->afterDestruction;
    inside = called = true;
    Recorder::Update(path, kind);
    std::this_thread::yield();  // lets an Unsubscribe come in during the call
    inside = false;
    --watch_->running;
  }
  std::atomic<bool> inside{false}, called{false};

 private:
  std::shared_ptr<Watch> const watch_;
};

uvc::Path const kPulse{"pulse"};  // changed over and over while the churners run

// Changes paths of its own in a fixed pseudo-random order.
void RunClient(Roles const& m, int c) {
  std::uint32_t seed = 12345u + static_cast<std::uint32_t>(c);
  for (int n = 0; n < 200; ++n) {
    seed = seed * 1103515245u + 12345u;
    uvc::Path const path{"t" + std::to_string(c), "k" + std::to_string((seed >> 8) % 3)};
    int const rc = (seed >> 16) % 3 == 0   ? m.deleter->DeleteSetting(path)
                   : (seed >> 16) % 3 == 1 ? m.creator->CreateSetting(path, Int(n))
                                           : m.setter->SetSetting(path, Int(n, n % 2));
    EXPECT_TRUE(rc == 0 || rc == 1 || rc == Code(0x8000004Du) || rc == Code(0x8000004Cu) ||
                rc == Code(0x8000004Au))
        << rc;
  }
}

// Subscribes short-lived observers and drops each as soon as its Unsubscribe returned.
// Every other one listens where the pulse is felt and goes while it is being called.
void RunChurner(Roles const& m, std::shared_ptr<Watch> const& watch, int c) {
  std::vector<uvc::Path> const places{{"t0"}, {"t1", "k1"}, {"t2"}, {"t3", "k2"}, {"none"}};
  auto const giveUp = std::chrono::steady_clock::now() + kPatience;
  for (int n = 0; n < 200; ++n) {
    bool const whileCalled = n % 2 == 0;
    auto observer = std::make_shared<Checked>(watch);
    SubscriptionId id{};
    auto const& at = whileCalled ? (n % 4 == 0 ? uvc::Path{} : kPulse) : places[(n + c) % 5];
    EXPECT_RC(m.subscriber->Subscribe(at, observer, id), 0);
    while (whileCalled && !observer->called && std::chrono::steady_clock::now() < giveUp)
      std::this_thread::yield();
    EXPECT_RC(m.subscriber->Unsubscribe(id), 0);
    if (observer->inside) ++watch->insideAtReturn;
    if (observer.use_count() != 1) ++watch->stillHeld;
  }
}

using StressTest = EventsTest;

TEST_F(StressTest, ConcurrentChangesAndSubscriptionsKeepTheDeliveryPromises) {
  auto const watch = std::make_shared<Watch>();
  watch->manager = manager;
  auto const root = std::make_shared<Checked>(watch);
  auto const dual = std::make_shared<Checked>(watch);  // at the root and at "t0"
  Subscribe({}, root);
  Subscribe({}, dual);
  Subscribe({"t0"}, dual);
  {
    // One pulse at a time, the next once the last is being delivered, so none merge.
    auto const pacer = std::make_shared<Recorder>();
    Subscribe(kPulse, pacer);
    Create(kPulse);
    ASSERT_TRUE(pacer->WaitFor(kPulse));
    std::atomic<int> churning{4};
    std::vector<std::thread> threads;
    for (int c = 0; c < 4; ++c) {
      threads.emplace_back([&, c] { RunClient(*this, c); });
      threads.emplace_back([&, c] {
        RunChurner(*this, watch, c);
        --churning;
      });
    }
    for (std::int32_t value = 1; churning != 0; ++value) {
      SetValue(kPulse, value);
      EXPECT_TRUE(pacer->WaitFor(kPulse, std::size_t(value) + 1));
    }
    for (auto& thread : threads) thread.join();
  }
  Drain();
  // Each event logged with its clients reached both root observers exactly once.
  std::map<std::string, int> events, rootCalls, dualCalls;
  for (auto const& message : UpdateRecords()) {
    auto const open = message.find(" Update(") + 8;
    ++events[message.substr(open, message.find(") = ", open) - open)];
  }
  for (auto const& call : root->Calls()) ++rootCalls[Text(call.path)];
  for (auto const& call : dual->Calls()) ++dualCalls[Text(call.path)];
  for (auto* counts : {&events, &rootCalls, &dualCalls}) counts->erase(Text(kSentinel));
  EXPECT_GE(events.size(), 12u);
  EXPECT_EQ(rootCalls, events);
  EXPECT_EQ(dualCalls, events);
  EXPECT_EQ(watch->insideAtReturn, 0);
  EXPECT_EQ(watch->stillHeld, 0);
  EXPECT_EQ(watch->overlapping, 0);

  // The end in the middle of a burst: an Update in progress finishes before the last
  // release returns; none starts after (but one starting right then).
  for (int n = 0; n < 50; ++n) Create({"burst" + std::to_string(n)});
  Reset();
  manager.reset();
  watch->destroyed = true;
  EXPECT_EQ(watch->running, 0);
  EXPECT_LE(watch->lateStarts, 1);
  EXPECT_EQ(watch->afterDestruction, 0);
}

}  // namespace
}  // namespace events_test
