// Unsubscribe and the manager's end against an Update that is running: who waits for whom.

#include <pthread.h>
#include <sched.h>

#include <cerrno>
#include <csignal>

#include "event_test_util.h"

namespace events_test {
namespace {

// Holds a thread wherever it is (inside a wait included) in a signal handler until it is
// set to 2.
std::atomic<int> frozen{0};
void Freeze(std::thread& thread) {
  struct sigaction action {};
  action.sa_handler = [](int) {
    int const saved = errno;
    for (frozen = 1; frozen != 2;) sched_yield();
    errno = saved;
  };
  ASSERT_EQ(sigaction(SIGUSR2, &action, nullptr), 0);
  ASSERT_EQ(pthread_kill(thread.native_handle(), SIGUSR2), 0);
  while (frozen != 1) std::this_thread::yield();
}

// Unsubscribes one id from two threads at once. The refused call (0x8000004C) proves the
// other has taken the subscription out and waits, if it must; a call that gave 0 while its
// observer was still inside is noted as -1.
struct Racing {
  Racing(settings_manager::ISettingsUpdateSubscriber& s, SubscriptionId id, Blocking const& b) {
    for (int i = 0; i < 2; ++i)
      threads[i] = std::thread([this, &s, id, i, state = b.state] {
        int const rc = s.Unsubscribe(id);
        std::lock_guard<std::mutex> hold(lock);
        codes.push_back(rc == 0 && state->inside ? -1 : rc);
        if (rc == Code(0x8000004Cu)) finder = &threads[1 - i], refused.Open();
      });
  }
  ~Racing() { Codes(true); }
  // True once a call was refused, if the other had not returned by then.
  bool Refused() { return refused.Wait() && Codes().size() == 1; }
  std::vector<int> Codes(bool join = false) {  // in the order the calls returned
    for (auto& thread : threads)
      if (join && thread.joinable()) thread.join();
    std::lock_guard<std::mutex> hold(lock);
    return codes;
  }

  std::mutex lock;
  std::vector<int> codes;
  Gate refused;
  std::thread* finder = nullptr;
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
  ASSERT_TRUE(first->entered.Wait());
  Racing one(*subscriber, firstId, first);
  ASSERT_TRUE(one.Refused());
  // The first waiter cannot take its wake-up until thawed; the second must still wait
  // for the call of its own observer.
  Freeze(*one.finder);
  first->leave.Open();
  ASSERT_TRUE(later->entered.Wait());
  Racing two(*subscriber, laterId, later);
  EXPECT_TRUE(two.Refused());
  frozen = 2;
  EXPECT_THAT(one.Codes(true), ElementsAre(Code(0x8000004Cu), 0));
  EXPECT_EQ(two.Codes().size(), 1u);
  later->leave.Open();
  EXPECT_THAT(two.Codes(true), ElementsAre(Code(0x8000004Cu), 0));
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
  for (int n = 0; n < 2; ++n)
    Subscribe({}, std::make_shared<Recorder>(hook, [state] { state->released.Open(); }));
  Create({"a"});
  ASSERT_TRUE(state->entered.Wait());
  Create({"b"});
  Create({"c"});
  Reset();
  std::atomic<bool> finishedFirst{false};
  std::thread destroyer([&, last = std::move(manager)]() mutable {
    last.reset();  // the last reference, unless the observer took one
    finishedFirst = state->returned.load();
  });
  if (observerIsLastOwner) {
    destroyer.join();
    EXPECT_FALSE(state->manager.expired());
  }
  // Nobody is called once the last owner has let go, so letting the Update return after
  // that orders it before the rest.
  while (!state->manager.expired() && !observerIsLastOwner) std::this_thread::yield();
  state->leave.Open();
  if (destroyer.joinable()) destroyer.join();
  EXPECT_EQ(finishedFirst, !observerIsLastOwner);
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
