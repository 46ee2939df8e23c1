#pragma once

// What the change-notification tests share: a latch, a recording and a blocking observer,
// and an in-memory manager whose deliveries can be awaited.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <functional>
#include <future>
#include <mutex>
#include <thread>

#include "support/manager_fixture.h"

namespace events_test {

using namespace test_support;
using settings_manager::ISettingsUpdateObserver;
using settings_manager::SubscriptionId;
using Seen = std::vector<std::pair<std::string, int>>;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

// A latch; the minute is only a safety net against a hang.
struct Gate {
  void Open() {
    std::call_once(once, [this] { promise.set_value(); });
  }
  bool Wait() { return opened.wait_for(std::chrono::minutes(1)) == std::future_status::ready; }
  std::once_flag once;
  std::promise<void> promise;
  std::shared_future<void> opened = promise.get_future().share();
};

// Records each Update as ("path/", kind), then runs the hook (which may block, throw or
// call the manager); runs `atEnd` when destroyed.
struct Recorder : ISettingsUpdateObserver {
  using Hook = std::function<void(std::string const& path)>;
  explicit Recorder(Hook onUpdate = {}, std::function<void()> onEnd = {})
      : hook(std::move(onUpdate)), atEnd(std::move(onEnd)) {}
  ~Recorder() override {
    if (atEnd) atEnd();
  }
  void Update(uvc::Path const& path, unsigned char kind) override {
    std::unique_lock<std::mutex> hold(lock);
    ++calls;
    if (Text(path) != "hold/" && Text(path) != "zzz/") seen.emplace_back(Text(path), kind);
    changed.notify_all();
    hold.unlock();
    if (hook) hook(Text(path));
  }
  Seen Events() {  // all it heard but the "hold" and "zzz" markers
    std::lock_guard<std::mutex> hold(lock);
    return seen;
  }
  bool WaitFor(std::size_t count) {  // until it has heard `count` events in all
    std::unique_lock<std::mutex> hold(lock);
    return changed.wait_for(hold, std::chrono::minutes(1), [&] { return calls >= count; });
  }

  Hook const hook;
  std::function<void()> const atEnd;
  std::mutex lock;
  std::condition_variable changed;
  Seen seen;
  std::size_t calls = 0;
};

// An observer that, when called, opens `entered` and stays inside until `leave` opens.
struct Blocking {
  struct State {  // shared: the observer may outlive a test body an assertion ended
    Gate entered, leave;
    std::atomic<bool> inside{false};
  };
  State* operator->() const { return state.get(); }
  std::shared_ptr<State> state = std::make_shared<State>();
  std::shared_ptr<Recorder> observer =
      std::make_shared<Recorder>([state = state](std::string const&) {
        state->inside = true;
        state->entered.Open();
        EXPECT_TRUE(state->leave.Wait());
        state->inside = false;
      });
};

class EventsTest : public ::testing::Test, protected Roles {
 protected:
  void SetUp() override {
    ASSERT_RC(settings_manager::CreateSettingsManager({}, manager), 0);
    ASSERT_TRUE(From(*manager));
  }
  ~EventsTest() override { Reset(); }

  SubscriptionId Subscribe(uvc::Path const& path, std::shared_ptr<ISettingsUpdateObserver> o) {
    SubscriptionId id{};
    EXPECT_RC(subscriber->Subscribe(path, std::move(o), id), 0) << Text(path);
    return id;
  }
  void Create(uvc::Path const& path) { ASSERT_RC(creator->CreateSetting(path, Int(0)), 0); }
  // Returns once every change made so far has been delivered: "zzz" sorts after them all.
  void Drain() {
    auto const probe = std::make_shared<Recorder>();
    auto const id = Subscribe({"zzz"}, probe);
    Create({"zzz"});
    ASSERT_TRUE(probe->WaitFor(1));
    ASSERT_RC(subscriber->Unsubscribe(id), 0);
    ASSERT_RC(deleter->DeleteSetting({"zzz"}), 0);
  }
  // NotifyEvent's records: at Debug one per delivered event that had an observer.
  std::vector<std::string> Records(LogLevel level) const {
    std::vector<std::string> out;
    for (auto const& r : log.ByFunction("NotifyEvent"))
      if (r.level == level) out.push_back(r.message);
    return out;
  }

  CapturedLog log;
  std::shared_ptr<settings_manager::ISettingsManager> manager;
};

}  // namespace events_test
