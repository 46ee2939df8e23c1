#pragma once

// What only the change-notification tests need: a gate, a recording observer, two
// Unsubscribes of one id racing, and an in-memory manager whose event thread can be held.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "support/captured_log.h"
#include "support/manager_fixture.h"
#include "support/settings.h"

namespace events_test {

using namespace test_support;
using settings_manager::ISettingsUpdateObserver;
using settings_manager::SubscriptionId;
using Seen = std::vector<std::pair<std::string, int>>;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

// Only a safety net against a hang: no test depends on how long anything takes.
constexpr auto kPatience = std::chrono::seconds(60);
// "hold" keeps the event thread busy; "zzz" sorts after every other path, so once it is
// delivered everything changed before it has been.
inline uvc::Path const kHold{"hold"};
inline uvc::Path const kSentinel{"zzz"};

class Gate {
 public:
  void Open() {
    std::lock_guard<std::mutex> lock(lock_);
    open_ = true;
    changed_.notify_all();
  }
  bool Wait() {
    std::unique_lock<std::mutex> lock(lock_);
    return changed_.wait_for(lock, kPatience, [this] { return open_; });
  }

 private:
  std::mutex lock_;
  std::condition_variable changed_;
  bool open_ = false;  // guarded by lock_
};

// `gate` opens once the calling thread has returned from its function.
inline void OpenWhenThisThreadEnds(std::shared_ptr<Gate> gate) {
  thread_local struct Ends {
    std::vector<std::shared_ptr<Gate>> gates;
    ~Ends() {
      for (auto const& g : gates) g->Open();
    }
  } ends;
  ends.gates.push_back(std::move(gate));
}

struct Call {
  uvc::Path path;
  unsigned char kind;
  std::thread::id thread;
};

// Records every Update, then runs the hook (which may block, throw or call the manager);
// runs `atEnd` when destroyed.
class Recorder : public ISettingsUpdateObserver {
 public:
  using Hook = std::function<void(uvc::Path const&, unsigned char)>;
  explicit Recorder(Hook hook = {}, std::function<void()> atEnd = {})
      : hook_(std::move(hook)), atEnd_(std::move(atEnd)) {}
  ~Recorder() override {
    if (atEnd_) atEnd_();
  }
  void Update(uvc::Path const& path, unsigned char kind) override {
    {
      std::lock_guard<std::mutex> lock(lock_);
      calls_.push_back({path, kind, std::this_thread::get_id()});
      changed_.notify_all();
    }
    if (hook_) hook_(path, kind);
  }
  std::vector<Call> Calls() const {
    std::lock_guard<std::mutex> lock(lock_);
    return calls_;
  }
  // Every call but those of the markers.
  Seen Events() const {
    Seen seen;
    for (auto const& c : Calls())
      if (c.path != kHold && c.path != kSentinel) seen.emplace_back(Text(c.path), c.kind);
    return seen;
  }
  bool WaitFor(uvc::Path const& path, std::size_t count = 1) {
    std::unique_lock<std::mutex> lock(lock_);
    return changed_.wait_for(lock, kPatience, [&] {
      return std::count_if(calls_.begin(), calls_.end(), [&](Call const& c) {
               return c.path == path;
             }) >= static_cast<long>(count);
    });
  }

 private:
  Hook const hook_;
  std::function<void()> const atEnd_;
  mutable std::mutex lock_;
  std::condition_variable changed_;
  std::vector<Call> calls_;  // guarded by lock_
};

// One delivery calls its observers in pointer order.
inline bool CalledBefore(std::shared_ptr<Recorder> const& a, std::shared_ptr<Recorder> const& b) {
  return std::less<ISettingsUpdateObserver*>()(a.get(), b.get());
}

// Unsubscribes one id from two threads at once. The refused one (0x8000004C) proves the
// other has taken the subscription out and decided whether to wait (and waits, if it
// must). `returned` runs on each thread as soon as its call returns.
class RacingUnsubscribe {
 public:
  RacingUnsubscribe(
      settings_manager::ISettingsUpdateSubscriber& subscriber, SubscriptionId id,
      std::function<void(int)> returned = [](int) {}) {
    for (auto& thread : threads_)
      thread = std::thread([this, &subscriber, id, returned] {
        int const rc = subscriber.Unsubscribe(id);
        returned(rc);
        std::lock_guard<std::mutex> lock(lock_);
        codes_.push_back(rc);
        if (rc == Code(0x8000004Cu)) refusedBy_ = std::this_thread::get_id();
        changed_.notify_all();
      });
  }
  ~RacingUnsubscribe() { Join(); }
  // Blocks until one call was refused; true if the other had not returned by then.
  bool Refused() {
    std::unique_lock<std::mutex> lock(lock_);
    return changed_.wait_for(lock, kPatience, [this] { return refusedBy_ != std::thread::id(); }) &&
           codes_.size() == 1;
  }
  std::thread& Finder() {
    std::lock_guard<std::mutex> lock(lock_);
    return threads_[threads_[0].get_id() == refusedBy_ ? 1 : 0];
  }
  std::vector<int> Codes() const {
    std::lock_guard<std::mutex> lock(lock_);
    return codes_;
  }
  // Both results in the order the calls returned.
  std::vector<int> Join() {
    for (auto& thread : threads_)
      if (thread.joinable()) thread.join();
    return Codes();
  }

 private:
  mutable std::mutex lock_;
  std::condition_variable changed_;
  std::vector<int> codes_;       // guarded by lock_
  std::thread::id refusedBy_{};  // guarded by lock_
  std::thread threads_[2];
};

// An in-memory manager with its roles; the log is captured from before it exists.
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
  void SetValue(uvc::Path const& path, std::int32_t v) {
    ASSERT_RC(valueSetter->SetValue(path, uvc::TValue<Setting>(v)), 0) << Text(path);
  }
  // Returns once every change made so far has been delivered.
  void Drain() {
    auto const probe = std::make_shared<Recorder>();
    auto const id = Subscribe(kSentinel, probe);
    Create(kSentinel);
    ASSERT_TRUE(probe->WaitFor(kSentinel));
    ASSERT_RC(subscriber->Unsubscribe(id), 0);
    ASSERT_RC(deleter->DeleteSetting(kSentinel), 0);
  }
  // The event thread blocked in an Update of "hold" until `gate` opens, so that the
  // changes made meanwhile wait together.
  struct Hold {
    std::shared_ptr<Gate> gate = std::make_shared<Gate>();
    std::shared_ptr<Gate> threadEnded = std::make_shared<Gate>();
    SubscriptionId id{};
  };
  Hold HoldEventThread() {
    Hold hold;
    auto const observer = std::make_shared<Recorder>([hold](uvc::Path const& path, unsigned char) {
      if (path != kHold) return;
      OpenWhenThisThreadEnds(hold.threadEnded);
      EXPECT_TRUE(hold.gate->Wait());
    });
    hold.id = Subscribe(kHold, observer);
    Create(kHold);
    EXPECT_TRUE(observer->WaitFor(kHold));
    return hold;
  }
  // Debug NotifyEvent records: one per delivered event that had an observer.
  std::vector<std::string> UpdateRecords() const {
    std::vector<std::string> out;
    for (auto const& r : log.ByFunction("NotifyEvent"))
      if (r.level == LogLevel::Debug) out.push_back(r.message);
    return out;
  }

  CapturedLog log;
  std::shared_ptr<settings_manager::ISettingsManager> manager;
};

}  // namespace events_test
