// Client threads changing, subscribing and unsubscribing while deliveries run (the case
// for ThreadSanitizer): no Unsubscribe returns while its observer runs or is still held,
// no two Updates overlap, and a steady observer hears each delivered event once.

#include <map>
#include <random>

#include "event_test_util.h"

namespace events_test {
namespace {

using ::testing::AnyOf;

// Counted across every observer of the test (it runs once a process).
std::atomic<int> running{0}, overlapping{0}, insideAtReturn{0}, stillHeld{0};

struct Checked : Recorder {
  void Update(uvc::Path const& path, unsigned char kind) override {
    if (running++ != 0) ++overlapping;
    inside = called = true;
    Recorder::Update(path, kind);
    std::this_thread::yield();  // lets an Unsubscribe come in during the call
    inside = false;
    --running;
  }
  std::atomic<bool> inside{false}, called{false};
};

using StressTest = EventsTest;

TEST_F(StressTest, ConcurrentChangesAndSubscriptionsKeepTheDeliveryPromises) {
  auto const root = std::make_shared<Checked>(), pacer = std::make_shared<Checked>();
  Subscribe({}, root);
  Subscribe({"pulse"}, pacer);  // one change of "pulse" at a time, each once delivered
  Create({"pulse"});
  ASSERT_TRUE(pacer->WaitFor(1));
  std::atomic<int> churning{4};
  std::vector<std::thread> threads;
  for (int c = 0; c < 4; ++c) {
    threads.emplace_back([&, c] {  // changes paths of its own
      std::minstd_rand random(c + 1);
      for (int n = 0; n < 200; ++n) {
        uvc::Path const path{"t" + std::to_string(c), "k" + std::to_string(random() % 3)};
        auto const op = random() % 3;
        int const rc = op == 0   ? deleter->DeleteSetting(path)
                       : op == 1 ? creator->CreateSetting(path, Int(n))
                                 : setter->SetSetting(path, Int(n, n % 2));
        EXPECT_THAT(rc, AnyOf(0, 1, Code(0x8000004Du), Code(0x8000004Cu), Code(0x8000004Au)));
      }
    });
    // Short-lived observers, each dropped once its Unsubscribe returned; every other one
    // listens where the pulse is felt and goes while it is being called.
    threads.emplace_back([&, c] {
      std::vector<uvc::Path> const places{{"t0"}, {"t1", "k1"}, {"t2"}, {"t3", "k2"}, {"none"}};
      for (int n = 0; n < 200; ++n) {
        bool const whileCalled = n % 2 == 0;
        auto observer = std::make_shared<Checked>();
        auto const id = Subscribe(
            whileCalled ? (n % 4 ? uvc::Path{"pulse"} : uvc::Path{}) : places[(n + c) % 5],
            observer);
        while (whileCalled && !observer->called) std::this_thread::yield();
        EXPECT_RC(subscriber->Unsubscribe(id), 0);
        if (observer->inside) ++insideAtReturn;
        if (observer.use_count() != 1) ++stillHeld;
      }
      --churning;
    });
  }
  for (std::size_t pulses = 2; churning != 0; ++pulses) {
    EXPECT_RC(valueSetter->SetValue({"pulse"}, uvc::TValue<Setting>(int(pulses))), 0);
    EXPECT_TRUE(pacer->WaitFor(pulses));
  }
  for (auto& thread : threads) thread.join();
  Drain();
  // Each event logged with its clients reached the root observer exactly once.
  std::map<std::string, int> events, calls;
  for (auto const& message : Records(LogLevel::Debug)) {
    auto const open = message.find(" Update(") + 8;
    ++events[message.substr(open, message.find(") = ", open) - open)];
  }
  for (auto const& event : root->Events()) ++calls[event.first];
  events.erase("zzz/");
  EXPECT_GE(events.size(), 12u);
  EXPECT_EQ(calls, events);
  EXPECT_EQ(insideAtReturn, 0);
  EXPECT_EQ(stillHeld, 0);
  EXPECT_EQ(overlapping, 0);
}

}  // namespace
}  // namespace events_test
