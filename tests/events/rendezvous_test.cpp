// Unsubscribe and the manager's end against an Update that is running: who waits for whom.

#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "event_test_util.h"

namespace events_test {
namespace {

// Holds one thread wherever it is (inside a wait included) in a signal handler until Thaw.
class Freezer {
 public:
  Freezer() {
    EXPECT_EQ(pipe(held_), 0);
    EXPECT_EQ(pipe(thaw_), 0);
    struct sigaction action {};
    action.sa_handler = [](int) {
      int const saved = errno;
      char byte = 'h';
      if (Transfer(write, held_[1], &byte) == 1) Transfer(read, thaw_[0], &byte);
      errno = saved;
    };
    EXPECT_EQ(sigaction(SIGUSR2, &action, &previous_), 0);
  }
  ~Freezer() {
    Thaw();
    sigaction(SIGUSR2, &previous_, nullptr);
    for (int fd : {held_[0], held_[1], thaw_[0], thaw_[1]}) close(fd);
  }
  void Freeze(std::thread& thread) {  // returns once `thread` is held
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
  static inline int held_[2] = {-1, -1};
  static inline int thaw_[2] = {-1, -1};
  struct sigaction previous_ {};
  bool frozen_ = false;
};

// An observer that, for "a", says it has entered Update and stays there until let go.
struct Blocking {
  struct State {  // shared: the observer may outlive a test body an assertion ended
    Gate entered, leave;
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
  Blocking first, later;
  if (!CalledBefore(first.observer, later.observer)) std::swap(first, later);
  auto const firstId = Subscribe({}, first.observer);
  auto const laterId = Subscribe({}, later.observer);
  auto const returnedInside = std::make_shared<std::atomic<int>>(0);
  auto checkOut = [returnedInside](Blocking const& blocking) {
    return [returnedInside, state = blocking.state](int rc) {
      if (rc == 0 && state->inside) ++*returnedInside;
    };
  };
  Create({"a"});
  ASSERT_TRUE(first.state->entered.Wait());
  RacingUnsubscribe one(*subscriber, firstId, checkOut(first));
  ASSERT_TRUE(one.Refused());
  // The first waiter cannot take its wake-up until thawed; the second must still wait
  // for the call of its own observer.
  Freezer freezer;
  freezer.Freeze(one.Finder());
  first.state->leave.Open();
  ASSERT_TRUE(later.state->entered.Wait());
  RacingUnsubscribe two(*subscriber, laterId, checkOut(later));
  EXPECT_TRUE(two.Refused());
  freezer.Thaw();
  EXPECT_THAT(one.Join(), ElementsAre(Code(0x8000004Cu), 0));
  EXPECT_EQ(two.Codes().size(), 1u);
  later.state->leave.Open();
  EXPECT_THAT(two.Join(), ElementsAre(Code(0x8000004Cu), 0));
  EXPECT_EQ(*returnedInside, 0);
  SetValue({"a"}, 1);
  Drain();
  EXPECT_EQ(first.observer->Calls().size(), 1u);
  EXPECT_EQ(later.observer->Calls().size(), 1u);
}

// The first of two root observers, held by the manager alone, is inside its Update of "a"
// while "b" and "c" wait, when the last owner lets go: another thread, or the observer
// itself after promoting its weak pointer to the manager inside Update.
class DestructionTest : public EventsTest, public ::testing::WithParamInterface<bool> {};

TEST_P(DestructionTest, TheRunningUpdateFinishesAndTheRestIsDropped) {
  bool const observerIsLastOwner = GetParam();
  struct State {
    std::weak_ptr<settings_manager::ISettingsManager> manager;
    Gate entered, leave, released;
    std::atomic<int> calls{0};
    std::atomic<bool> returned{false};
    std::shared_ptr<Gate> threadEnded = std::make_shared<Gate>();
  };
  auto const state = std::make_shared<State>();
  state->manager = manager;
  auto hook = [state, observerIsLastOwner](uvc::Path const& path, unsigned char) {
    if (++state->calls != 1 || path != uvc::Path{"a"}) return;
    OpenWhenThisThreadEnds(state->threadEnded);
    auto owner = observerIsLastOwner ? state->manager.lock() : nullptr;
    state->entered.Open();
    EXPECT_TRUE(state->leave.Wait());
    owner.reset();
    state->returned = true;  // still inside the observer, which the manager alone held
  };
  Subscribe({}, std::make_shared<Recorder>(hook));
  Subscribe({}, std::make_shared<Recorder>(hook));
  Subscribe({"w"},
            std::make_shared<Recorder>(Recorder::Hook{}, [state] { state->released.Open(); }));
  Create({"a"});
  ASSERT_TRUE(state->entered.Wait());
  Create({"b"});
  Create({"c"});
  std::pair<Roles, std::shared_ptr<settings_manager::ISettingsManager>> owners{*this, manager};
  Reset();
  manager.reset();
  if (observerIsLastOwner) {
    owners = {};
    EXPECT_FALSE(state->manager.expired());
    state->leave.Open();
  } else {
    std::atomic<bool> finishedFirst{false};
    std::thread destroyer([&, owned = std::move(owners)]() mutable {
      owned = {};  // the last reference: the destructor runs here
      finishedFirst = state->returned.load();
    });
    // Nobody is called once the last owner has let go, so letting the Update return
    // after that orders it before the rest.
    while (!state->manager.expired()) std::this_thread::yield();
    state->leave.Open();
    destroyer.join();
    EXPECT_TRUE(finishedFirst);
  }
  ASSERT_TRUE(state->released.Wait());
  ASSERT_TRUE(state->threadEnded->Wait());
  EXPECT_EQ(state->calls, 1);
  EXPECT_TRUE(state->returned);
  for (auto const* function : {"~SettingsManager", "TakeEvents", "~EventThread"})
    EXPECT_THAT(log.ByFunction(function), IsEmpty()) << function;
}

INSTANTIATE_TEST_SUITE_P(ByAnotherThreadOrTheObserver, DestructionTest, ::testing::Bool());

}  // namespace
}  // namespace events_test
