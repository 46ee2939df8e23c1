// Unsubscribe and the manager's end against an Update that is running: who waits for whom.

#include <pthread.h>
#include <sched.h>

#include <cerrno>
#include <csignal>

#include "event_test_util.h"

namespace events_test {
namespace {

// Holds a thread wherever it is (inside a wait included) in a signal handler until Thaw.
struct Freezer {
  static inline std::atomic<int> state{0};  // 1 once held, 2 once thawed
  Freezer() {
    struct sigaction action {};
    action.sa_handler = [](int) {
      int const saved = errno;
      for (state = 1; state != 2;) sched_yield();
      errno = saved;
    };
    EXPECT_EQ(sigaction(SIGUSR2, &action, &previous), 0);
  }
  ~Freezer() {
    state = 2;
    sigaction(SIGUSR2, &previous, nullptr);
  }
  void Freeze(std::thread& thread) {
    state = 0;
    ASSERT_EQ(pthread_kill(thread.native_handle(), SIGUSR2), 0);
    while (state != 1) std::this_thread::yield();
  }
  struct sigaction previous {};
};

// An observer that, for "a", says it has entered Update and stays there until let go.
struct Blocking {
  struct State {  // shared: the observer may outlive a test body an assertion ended
    Gate entered, leave;
    std::atomic<bool> inside{false};
  };
  std::shared_ptr<State> state = std::make_shared<State>();
  std::shared_ptr<Recorder> observer =
      std::make_shared<Recorder>([state = state](std::string const& path) {
        if (path != "a/") return;
        state->inside = true;
        state->entered.Open();
        EXPECT_TRUE(state->leave.Wait());
        state->inside = false;
      });
};

// Unsubscribes one id from two threads at once. The refused call (0x8000004C) proves the
// other has taken the subscription out and decided whether to wait (and waits, if it
// must). A call that gave 0 while its observer was still inside is noted as -1.
struct Racing {
  Racing(settings_manager::ISettingsUpdateSubscriber& s, SubscriptionId id, Blocking const& b) {
    for (int i = 0; i < 2; ++i)
      threads[i] = std::thread([this, &s, id, i, state = b.state] {
        int const rc = s.Unsubscribe(id);
        bool const early = rc == 0 && state->inside;
        std::lock_guard<std::mutex> hold(lock);
        codes.push_back(early ? -1 : rc);
        if (rc == Code(0x8000004Cu)) finder = 1 - i, refused.Open();
      });
  }
  ~Racing() { Join(); }
  // Blocks until one call was refused; true if the other had not returned by then.
  bool Refused() { return refused.Wait() && Codes().size() == 1; }
  std::vector<int> Codes() {
    std::lock_guard<std::mutex> hold(lock);
    return codes;
  }
  std::vector<int> Join() {  // both results in the order the calls returned
    for (auto& thread : threads)
      if (thread.joinable()) thread.join();
    return Codes();
  }

  std::mutex lock;
  std::vector<int> codes;
  Gate refused;
  int finder = 0;
  std::thread threads[2];
};

using RendezvousTest = EventsTest;

TEST_F(RendezvousTest, EachUnsubscribeWaitsForTheCallOfItsOwnObserver) {
  // Both listen at the root: for "a", `first` is called, then `later`.
  Blocking first, later;
  if (std::less<ISettingsUpdateObserver*>()(later.observer.get(), first.observer.get()))
    std::swap(first, later);
  auto const firstId = Subscribe({}, first.observer), laterId = Subscribe({}, later.observer);
  Create({"a"});
  ASSERT_TRUE(first.state->entered.Wait());
  Racing one(*subscriber, firstId, first);
  ASSERT_TRUE(one.Refused());
  // The first waiter cannot take its wake-up until thawed; the second must still wait
  // for the call of its own observer.
  auto freezer = std::make_unique<Freezer>();
  freezer->Freeze(one.threads[one.finder]);
  first.state->leave.Open();
  ASSERT_TRUE(later.state->entered.Wait());
  Racing two(*subscriber, laterId, later);
  EXPECT_TRUE(two.Refused());
  freezer.reset();
  EXPECT_THAT(one.Join(), ElementsAre(Code(0x8000004Cu), 0));
  EXPECT_EQ(two.Codes().size(), 1u);
  later.state->leave.Open();
  EXPECT_THAT(two.Join(), ElementsAre(Code(0x8000004Cu), 0));
  ASSERT_RC(valueSetter->SetValue({"a"}, uvc::TValue<Setting>(1)), 0);
  Drain();
  EXPECT_EQ(first.observer->Events().size(), 1u);
  EXPECT_EQ(later.observer->Events().size(), 1u);
}

// The first of two root observers, held by the manager alone, is inside its Update of "a"
// while "b" and "c" wait, when the last owner lets go: another thread, or the observer
// itself after promoting its weak pointer to the manager inside Update.
class DestructionTest : public EventsTest, public ::testing::WithParamInterface<bool> {};

TEST_P(DestructionTest, TheRunningUpdateFinishesAndTheRestIsDropped) {
  bool const observerIsLastOwner = GetParam();
  struct State {
    std::weak_ptr<settings_manager::ISettingsManager> manager;
    Gate entered, leave, released, threadEnded;
    std::atomic<int> calls{0};
    std::atomic<bool> returned{false};
  };
  auto const state = std::make_shared<State>();
  state->manager = manager;
  auto hook = [state, observerIsLastOwner](std::string const&) {
    if (++state->calls != 1) return;
    thread_local struct Ends {  // opens `threadEnded` once the event thread has returned
      std::shared_ptr<State> state;
      ~Ends() { state->threadEnded.Open(); }
    } ends{state};
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
  ASSERT_TRUE(state->threadEnded.Wait());
  EXPECT_EQ(state->calls, 1);
  EXPECT_TRUE(state->returned);
  for (auto const* function : {"~SettingsManager", "TakeEvents", "~EventThread"})
    EXPECT_THAT(log.ByFunction(function), IsEmpty()) << function;
}

INSTANTIATE_TEST_SUITE_P(ByAnotherThreadOrTheObserver, DestructionTest, ::testing::Bool());

}  // namespace
}  // namespace events_test
