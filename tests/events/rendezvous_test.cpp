// Unsubscribe and the manager's end against an Update that is running: who waits for whom;
// then client threads changing, subscribing and unsubscribing while deliveries run (the
// case for ThreadSanitizer): no Unsubscribe returns while its observer runs or is still
// held, no two Updates overlap, and a steady observer hears each delivered event once.

#include <pthread.h>
#include <sched.h>

#include <cerrno>
#include <csignal>
#include <random>

#include "event_test_util.h"

namespace events_test {
namespace {

using ::testing::AnyOf;

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

TEST_F(EventsTest, EachUnsubscribeWaitsForTheCallOfItsOwnObserver) {
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
  for (char const* path : {"b", "c"}) Create({path});
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

TEST_F(EventsTest, ConcurrentChangesAndSubscriptionsKeepTheDeliveryPromises) {
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
      for (int n = 0; n < 200; ++n) {
        bool const whileCalled = n % 2 == 0;
        auto observer = std::make_shared<Checked>();
        auto const id = Subscribe(whileCalled ? (n % 4 ? uvc::Path{"pulse"} : uvc::Path{})
                                              : uvc::Path{"t" + std::to_string((n + c) % 5)},
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
  // Each event logged with its clients reached the root observer, in the same order.
  std::vector<std::string> events, calls;
  for (auto const& m : Records(LogLevel::Debug))
    if (m.find(" Update(zzz/)") == std::string::npos)
      events.push_back(m.substr(m.find(" Update("), m.find(") = ") - m.find(" Update(")));
  for (auto const& event : root->Events()) calls.push_back(" Update(" + event.first);
  EXPECT_GE(events.size(), 12u);
  EXPECT_EQ(calls, events);
  EXPECT_EQ(insideAtReturn, 0);
  EXPECT_EQ(stillHeld, 0);
  EXPECT_EQ(overlapping, 0);
}

}  // namespace
}  // namespace events_test
