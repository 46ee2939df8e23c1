// Unsubscribe and destruction against an Update that is running: who waits for whom.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "event_test_util.h"

namespace events_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

// Keeps a thread from running on, wherever it is (inside a wait included), by holding it
// in a signal handler until Thaw.
class Freezer {
 public:
  Freezer() {
    EXPECT_EQ(pipe(held_), 0);
    EXPECT_EQ(pipe(thaw_), 0);
    struct sigaction action {};
    action.sa_handler = &Hold;
    sigemptyset(&action.sa_mask);
    EXPECT_EQ(sigaction(SIGUSR2, &action, &previous_), 0);
  }
  ~Freezer() {
    Thaw();
    sigaction(SIGUSR2, &previous_, nullptr);
    for (int fd : {held_[0], held_[1], thaw_[0], thaw_[1]}) close(fd);
  }
  Freezer(Freezer const&) = delete;
  Freezer& operator=(Freezer const&) = delete;

  // Returns once `thread` is held.
  void Freeze(std::thread& thread) {
    ASSERT_EQ(pthread_kill(thread.native_handle(), SIGUSR2), 0);
    char byte = 0;
    ASSERT_EQ(Transfer(read, held_[0], &byte), 1);
    frozen_ = true;
  }
  void Thaw() {
    char byte = 't';
    if (std::exchange(frozen_, false)) {
      EXPECT_EQ(Transfer(write, thaw_[1], &byte), 1);
    }
  }

 private:
  template <typename Io>
  static ssize_t Transfer(Io io, int fd, char* byte) {
    ssize_t done;
    while ((done = io(fd, byte, 1)) < 0 && errno == EINTR) {
    }
    return done;
  }
  static void Hold(int) {
    int const saved = errno;
    char byte = 'h';
    if (Transfer(write, held_[1], &byte) == 1) Transfer(read, thaw_[0], &byte);
    errno = saved;
  }

  static inline int held_[2] = {-1, -1};
  static inline int thaw_[2] = {-1, -1};
  struct sigaction previous_ {};
  bool frozen_ = false;
};

// An observer that, for "a", says it has entered Update and stays there until let go.
struct Blocking {
  // Shared with the observer, which may outlive the test body if an assertion ends it.
  struct State {
    Gate entered;
    Gate leave;
    std::atomic<bool> inside{false};
  };
  std::shared_ptr<State> state = std::make_shared<State>();
  std::shared_ptr<Recorder> observer =
      std::make_shared<Recorder>([state = state](uvc::Path const& path, unsigned char) {
        if (path != uvc::Path{"a"}) return;
        state->inside = true;
        state->entered.Open();
        EXPECT_TRUE(state->leave.Wait());
        state->inside = false;
      });
};

using RendezvousTest = EventsTest;

TEST_F(RendezvousTest, EachUnsubscribeWaitsForTheCallOfItsOwnObserver) {
  // Both listen at the root: for "a", `first` is called, then `later`.
  Blocking first;
  Blocking later;
  if (!CalledBefore(first.observer, later.observer)) std::swap(first, later);
  auto const firstId = Subscribe({}, first.observer);
  auto const laterId = Subscribe({}, later.observer);
  // Checked the moment a call returns: its observer must be out of Update.
  auto const returnedInside = std::make_shared<std::atomic<int>>(0);
  auto checkOut = [returnedInside](Blocking const& blocking) {
    return [returnedInside, state = blocking.state](int rc) {
      if (rc == kOk && state->inside) ++*returnedInside;
    };
  };

  Create({"a"});
  ASSERT_TRUE(first.state->entered.Wait());
  RacingUnsubscribe one(*m.subscriber, firstId, checkOut(first));
  ASSERT_TRUE(one.Refused());
  // The first waiter cannot take its wake-up until thawed; the second must still wait
  // for the call of its own observer.
  Freezer freezer;
  freezer.Freeze(one.Finder());
  first.state->leave.Open();
  ASSERT_TRUE(later.state->entered.Wait());
  RacingUnsubscribe two(*m.subscriber, laterId, checkOut(later));
  EXPECT_TRUE(two.Refused());
  freezer.Thaw();
  EXPECT_THAT(one.Join(), ElementsAre(kNotFound, kOk));
  EXPECT_FALSE(two.FinderReturned());
  later.state->leave.Open();
  EXPECT_THAT(two.Join(), ElementsAre(kNotFound, kOk));
  EXPECT_EQ(*returnedInside, 0);

  // Neither is called again.
  SetValue({"a"}, 1);
  Drain();
  EXPECT_EQ(first.observer->Calls().size(), 1u);
  EXPECT_EQ(later.observer->Calls().size(), 1u);
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
  // The wait is coarse: it lasts until the callback in progress (the first's) returns.
  RacingUnsubscribe racing(*m.subscriber, laterId);
  EXPECT_TRUE(racing.Refused());
  gate->Open();
  EXPECT_THAT(racing.Join(), ElementsAre(kNotFound, kOk));

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

// Opens its gate when destroyed: held by the manager alone, it tells that the manager
// has let go of its observers.
class Witness : public ISettingsUpdateObserver {
 public:
  explicit Witness(std::shared_ptr<Gate> gate) : gate_(std::move(gate)) {}
  ~Witness() override { gate_->Open(); }
  void Update(uvc::Path const&, unsigned char) override {}

 private:
  std::shared_ptr<Gate> const gate_;
};

class DestructionTest : public EventsTest {
 protected:
  // The first of two root observers, which only the manager holds, is inside its Update
  // of "a" while "b" and "c" wait when the last owner lets go: another thread, or that
  // observer itself, which has promoted its weak pointer to the manager inside Update.
  void ExpectTheRunningUpdateFinishesAndTheRestIsDropped(bool observerIsLastOwner) {
    // Shared with the observers, which may outlive this body if an assertion ends it.
    struct State {
      std::weak_ptr<settings_manager::ISettingsManager> manager;
      bool promote = false;
      Gate entered;
      Gate leave;
      std::atomic<int> calls{0};
      std::atomic<bool> blocked{false};
      std::atomic<bool> returned{false};
      std::shared_ptr<Gate> threadEnded = std::make_shared<Gate>();
    };
    auto const state = std::make_shared<State>();
    state->manager = m.manager;
    state->promote = observerIsLastOwner;
    auto hook = [state](uvc::Path const& path, unsigned char) {
      ++state->calls;
      if (path != uvc::Path{"a"} || state->blocked.exchange(true)) return;
      OpenWhenThisThreadEnds(state->threadEnded);
      auto owner = state->promote ? state->manager.lock() : nullptr;
      state->entered.Open();
      EXPECT_TRUE(state->leave.Wait());
      owner.reset();
      // Still inside the observer, which the manager alone held.
      state->returned = true;
    };
    Subscribe({}, std::make_shared<Recorder>(hook));
    Subscribe({}, std::make_shared<Recorder>(hook));
    auto const released = std::make_shared<Gate>();
    Subscribe({"w"}, std::make_shared<Witness>(released));
    Create({"a"});
    ASSERT_TRUE(state->entered.Wait());
    Create({"b"});
    Create({"c"});

    std::weak_ptr<settings_manager::ISettingsManager> const alive = m.manager;
    if (observerIsLastOwner) {
      TakeOwners();
      EXPECT_FALSE(alive.expired());
      state->leave.Open();
    } else {
      std::atomic<bool> finishedFirst{false};
      std::thread destroyer([&, owners = TakeOwners()]() mutable {
        owners = Owners{};  // the last reference: the destructor runs here
        finishedFirst = state->returned.load();
      });
      // The event thread calls nobody once the last owner has let go, so letting the
      // Update return after that is enough to order it before the rest.
      while (!alive.expired()) std::this_thread::yield();
      state->leave.Open();
      destroyer.join();
      EXPECT_TRUE(finishedFirst);
    }
    ASSERT_TRUE(released->Wait());
    ASSERT_TRUE(state->threadEnded->Wait());

    // Neither the rest of the event in progress nor the pending ones were delivered.
    EXPECT_EQ(state->calls, 1);
    EXPECT_TRUE(state->returned);
    for (auto const* function : {"~SettingsManager", "TakeEvents", "~EventThread"})
      EXPECT_THAT(log.ByFunction(function), IsEmpty()) << function;
  }
};

TEST_F(DestructionTest, OnAnotherThreadLetsTheRunningUpdateFinishAndDropsTheRest) {
  ExpectTheRunningUpdateFinishesAndTheRestIsDropped(false);
}

TEST_F(DestructionTest, ByTheObserverInsideUpdateLeavesTheProcessRunning) {
  ExpectTheRunningUpdateFinishesAndTheRestIsDropped(true);
}

}  // namespace
}  // namespace events_test
