// Unsubscribe and destruction against an Update that is running: who waits for whom.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "event_test_util.h"

namespace events_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;

using RendezvousTest = EventsTest;

TEST_F(RendezvousTest, UnsubscribeReturnsOnlyAfterTheRunningUpdateHasReturned) {
  auto hold = HoldEventThread();
  std::atomic<bool> openedWhileWaiting{false};
  std::atomic<bool> updateHadReturned{false};
  auto const twice = UnsubscribeTwice(
      hold.id,
      [&] {
        openedWhileWaiting = !*hold.returned;
        hold.gate->Open();
      },
      [&](int rc) {
        if (rc == kOk) updateHadReturned = hold.returned->load();
      });
  EXPECT_TRUE(openedWhileWaiting);
  EXPECT_TRUE(twice.refusedFirst);
  EXPECT_THAT(twice.codes, ElementsAre(kNotFound, kOk));
  EXPECT_TRUE(updateHadReturned);

  // Never called again.
  SetValue(kHold, 1);
  Drain();
  EXPECT_EQ(hold.observer->Calls().size(), 1u);
}

TEST_F(RendezvousTest, UnsubscribeTakesAnObserverStillQueuedOutOfTheDelivery) {
  auto gate = std::make_shared<Gate>();
  auto hook = [gate](uvc::Path const& path, unsigned char) {
    if (path == uvc::Path{"a"}) {
      EXPECT_TRUE(gate->Wait());
    }
  };
  auto const x = std::make_shared<Recorder>(hook);
  auto const y = std::make_shared<Recorder>(hook);
  auto const& first = CalledBefore(x, y) ? x : y;
  auto const& later = CalledBefore(x, y) ? y : x;
  Subscribe({}, first);
  auto const laterId = Subscribe({}, later);

  Create({"a"});
  ASSERT_TRUE(first->WaitFor({"a"}));
  auto const twice = UnsubscribeTwice(laterId, [&] { gate->Open(); });
  // The wait is coarse: it lasts until the callback in progress (the first's) returns.
  EXPECT_TRUE(twice.refusedFirst);
  EXPECT_THAT(twice.codes, ElementsAre(kNotFound, kOk));

  Create({"b"});
  Drain();
  EXPECT_THAT(later->Calls(), IsEmpty());
  EXPECT_THAT(first->Seen(), ElementsAre(Pair("a/", 0x01), Pair("b/", 0x01)));
}

TEST_F(RendezvousTest, UpdateMayUseTheRegistryForObserversOutsideItsDelivery) {
  auto const bystander = std::make_shared<Recorder>();
  auto const bystanderId = Subscribe({"b"}, bystander);
  auto const newcomer = std::make_shared<Recorder>();
  auto* const subscriber = m.subscriber.get();
  std::vector<int> codes;
  auto const caller =
      std::make_shared<Recorder>([&, subscriber](uvc::Path const& path, unsigned char) {
        if (path != uvc::Path{"a"}) return;
        // Not in this delivery: returns at once although called from inside it.
        codes.push_back(subscriber->Unsubscribe(bystanderId));
        SubscriptionId id{};
        codes.push_back(subscriber->Subscribe({}, newcomer, id));
      });
  Subscribe({"a"}, caller);

  Create({"a"});
  Drain();
  EXPECT_THAT(codes, ElementsAre(kOk, kOk));
  Create({"b"});
  Drain();
  // The new subscription did not join the delivery that made it.
  EXPECT_THAT(newcomer->Seen(), ElementsAre(Pair("b/", 0x01)));
  EXPECT_THAT(bystander->Calls(), IsEmpty());
}

TEST_F(RendezvousTest, DestructionLetsTheRunningUpdateFinishAndDropsTheRest) {
  // Shared with the observers, which may outlive this body if an assertion ends it.
  struct State {
    Gate gate;
    std::atomic<bool> blocked{false};
    std::atomic<bool> returned{false};
    std::atomic<bool> destroyed{false};
    std::atomic<int> afterDestruction{0};
  };
  auto const state = std::make_shared<State>();
  auto hook = [state](uvc::Path const& path, unsigned char) {
    if (state->destroyed) ++state->afterDestruction;
    if (path == uvc::Path{"a"} && !state->blocked.exchange(true)) {
      EXPECT_TRUE(state->gate.Wait());
      state->returned = true;
    }
  };
  auto const x = std::make_shared<Recorder>(hook);
  auto const y = std::make_shared<Recorder>(hook);
  auto const& first = CalledBefore(x, y) ? x : y;
  auto const& later = CalledBefore(x, y) ? y : x;
  Subscribe({}, x);
  Subscribe({}, y);
  Create({"a"});
  ASSERT_TRUE(first->WaitFor({"a"}));
  Create({"b"});
  Create({"c"});

  std::weak_ptr<settings_manager::ISettingsManager> const alive = m.manager;
  std::atomic<bool> finishedFirst{false};
  std::thread destroyer([&, owners = TakeOwners()]() mutable {
    owners = Owners{};  // the last reference: the destructor runs here
    finishedFirst = state->returned.load();
    state->destroyed = true;
  });
  // Not a timed wait: it only orders the gate after the destructor has started, and the
  // destructor sets its stop flag before anything else.
  while (!alive.expired()) std::this_thread::yield();
  state->gate.Open();
  destroyer.join();

  EXPECT_TRUE(finishedFirst);
  EXPECT_THAT(first->Seen(), ElementsAre(Pair("a/", 0x01)));
  // Neither the rest of the event in progress nor the pending ones were delivered.
  EXPECT_THAT(later->Calls(), IsEmpty());
  EXPECT_EQ(state->afterDestruction, 0);
  for (auto const* function : {"~SettingsManager", "TakeEvents", "~EventThread"})
    EXPECT_THAT(log.ByFunction(function), IsEmpty()) << function;
}

}  // namespace
}  // namespace events_test
