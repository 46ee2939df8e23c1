#pragma once

// Helpers of the change-notification tests: a gate, a recording observer, and a fixture
// holding one in-memory manager with the log captured.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "settings_manager/config.h"
#include "settings_manager/interfaces.h"
#include "settings_manager/paths.h"
#include "support/captured_log.h"

namespace events_test {

using settings_manager::Attributes;
using settings_manager::ISettingsUpdateObserver;
using settings_manager::Setting;
using settings_manager::SubscriptionId;

constexpr int kOk = 0;
constexpr int kInvalidArgument = static_cast<int>(0x80000046u);
constexpr int kNotFound = static_cast<int>(0x8000004Cu);
constexpr int kFound = static_cast<int>(0x8000004Du);
constexpr int kProhibited = static_cast<int>(0x80000066u);
constexpr int kClassNotFound = static_cast<int>(0x80000100u);

// Only a safety net against a hang: no test depends on how long anything takes.
constexpr auto kPatience = std::chrono::seconds(60);

// Markers of the fixture: "hold" keeps the event thread busy, "zzz" sorts after every
// path of the tests and so tells when everything before it has been delivered.
inline uvc::Path const kHold{"hold"};
inline uvc::Path const kSentinel{"zzz"};

inline Setting Int(std::int32_t value) { return Setting(value); }
inline std::string Text(uvc::Path const& path) { return settings_manager::PathToStr(path); }

// Closed until Open; Wait blocks while closed.
class Gate {
 public:
  void Open() {
    {
      std::lock_guard<std::mutex> lock(lock_);
      open_ = true;
    }
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

// Opens every gate handed to it when the thread that made it ends.
struct ThreadEnd {
  std::vector<std::shared_ptr<Gate>> gates;
  ~ThreadEnd() {
    for (auto const& gate : gates) gate->Open();
  }
};

// `gate` opens once the calling thread has returned from its function.
inline void OpenWhenThisThreadEnds(std::shared_ptr<Gate> gate) {
  thread_local ThreadEnd end;
  end.gates.push_back(std::move(gate));
}

struct Call {
  uvc::Path path;
  unsigned char kind;
  std::thread::id thread;
};

// Records every Update, then runs the hook (which may block, throw or call the manager).
class Recorder : public ISettingsUpdateObserver {
 public:
  using Hook = std::function<void(uvc::Path const&, unsigned char)>;

  explicit Recorder(Hook hook = {}) : hook_(std::move(hook)) {}

  void Update(uvc::Path const& path, unsigned char kind) override {
    {
      std::lock_guard<std::mutex> lock(lock_);
      calls_.push_back({path, kind, std::this_thread::get_id()});
    }
    changed_.notify_all();
    if (hook_) hook_(path, kind);
  }

  std::vector<Call> Calls() const {
    std::lock_guard<std::mutex> lock(lock_);
    return calls_;
  }

  // Text and kind of every call but those of the fixture's markers.
  std::vector<std::pair<std::string, int>> Seen() const {
    std::vector<std::pair<std::string, int>> seen;
    for (auto const& call : Calls())
      if (call.path != kHold && call.path != kSentinel)
        seen.emplace_back(Text(call.path), call.kind);
    return seen;
  }

  bool WaitForCalls(std::size_t count) {
    std::unique_lock<std::mutex> lock(lock_);
    return changed_.wait_for(lock, kPatience, [&] { return calls_.size() >= count; });
  }

  bool WaitFor(uvc::Path const& path) {
    std::unique_lock<std::mutex> lock(lock_);
    return changed_.wait_for(lock, kPatience, [&] {
      for (auto const& call : calls_)
        if (call.path == path) return true;
      return false;
    });
  }

 private:
  Hook const hook_;
  mutable std::mutex lock_;
  std::condition_variable changed_;
  std::vector<Call> calls_;  // guarded by lock_
};

// Whether `a` sorts before `b` in the order in which one delivery calls its observers.
inline bool CalledBefore(std::shared_ptr<Recorder> const& a, std::shared_ptr<Recorder> const& b) {
  return std::less<ISettingsUpdateObserver*>()(a.get(), b.get());
}

// Unsubscribes one id from two threads at once. Exactly one of them finds the
// subscription; the other is refused with 0x8000004C, and that refusal proves that the
// subscription is out of the registry and that the call which found it has decided
// whether to wait (and is waiting, if it has to). `returned` runs on each calling thread
// as soon as its call returns.
class RacingUnsubscribe {
 public:
  RacingUnsubscribe(
      settings_manager::ISettingsUpdateSubscriber& subscriber, SubscriptionId id,
      std::function<void(int)> returned = [](int) {})
      : subscriber_(subscriber), id_(id), returned_(std::move(returned)) {
    for (auto& thread : threads_) thread = std::thread([this] { Call(); });
  }
  ~RacingUnsubscribe() { Join(); }
  RacingUnsubscribe(RacingUnsubscribe const&) = delete;
  RacingUnsubscribe& operator=(RacingUnsubscribe const&) = delete;

  // Blocks until one call has been refused; true if the other had not returned by then.
  bool Refused() {
    std::unique_lock<std::mutex> lock(lock_);
    bool const refused =
        changed_.wait_for(lock, kPatience, [this] { return refusedBy_ != std::thread::id(); });
    return refused && codes_.size() == 1;
  }
  // The thread of the call that found the subscription (once one was refused).
  std::thread& Finder() {
    std::lock_guard<std::mutex> lock(lock_);
    return threads_[0].get_id() == refusedBy_ ? threads_[1] : threads_[0];
  }
  bool FinderReturned() const {
    std::lock_guard<std::mutex> lock(lock_);
    return codes_.size() == 2;
  }
  // Both results, in the order the calls returned, once both have.
  std::vector<int> Join() {
    for (auto& thread : threads_)
      if (thread.joinable()) thread.join();
    std::lock_guard<std::mutex> lock(lock_);
    return codes_;
  }

 private:
  void Call() {
    int const rc = subscriber_.Unsubscribe(id_);
    returned_(rc);
    {
      std::lock_guard<std::mutex> lock(lock_);
      codes_.push_back(rc);
      if (rc == kNotFound) refusedBy_ = std::this_thread::get_id();
    }
    changed_.notify_all();
  }

  settings_manager::ISettingsUpdateSubscriber& subscriber_;
  SubscriptionId const id_;
  std::function<void(int)> const returned_;
  mutable std::mutex lock_;
  std::condition_variable changed_;
  std::vector<int> codes_;       // guarded by lock_
  std::thread::id refusedBy_{};  // guarded by lock_
  std::thread threads_[2];       // last: the threads start once the rest is ready
};

// A manager and its role interfaces; the manager lives while any of them does.
struct Owners {
  std::shared_ptr<settings_manager::ISettingsManager> manager;
  std::shared_ptr<settings_manager::ISettingsCreator> creator;
  std::shared_ptr<settings_manager::ISettingsValueSetter> valueSetter;
  std::shared_ptr<settings_manager::ISettingsSetter> setter;
  std::shared_ptr<settings_manager::ISettingsDeleter> deleter;
  std::shared_ptr<settings_manager::ISettingsUpdateSubscriber> subscriber;
};

// One in-memory manager and all of its interfaces; the log is captured from before the
// manager exists until after it is gone.
class EventsTest : public ::testing::Test {
 protected:
  // The event thread blocked inside the "hold" observer's first Update.
  struct Hold {
    std::shared_ptr<Gate> gate;
    std::shared_ptr<Recorder> observer;
    SubscriptionId id{};
    std::shared_ptr<std::atomic<bool>> returned;
    std::shared_ptr<Gate> threadEnded;  // opens when the thread that blocked has ended
  };

  void SetUp() override {
    ASSERT_EQ(settings_manager::CreateSettingsManager({}, m.manager), kOk);
    ASSERT_EQ(m.manager->GetSettingsCreator(m.creator), kOk);
    ASSERT_EQ(m.manager->GetSettingsValueSetter(m.valueSetter), kOk);
    ASSERT_EQ(m.manager->GetSettingsSetter(m.setter), kOk);
    ASSERT_EQ(m.manager->GetSettingsDeleter(m.deleter), kOk);
    ASSERT_EQ(m.manager->GetSettingsUpdateSubscriber(m.subscriber), kOk);
  }

  // Hands over every owner; the manager dies with the last of them.
  Owners TakeOwners() { return std::exchange(m, Owners{}); }

  SubscriptionId Subscribe(uvc::Path const& path,
                           std::shared_ptr<ISettingsUpdateObserver> observer) {
    SubscriptionId id{};
    EXPECT_EQ(m.subscriber->Subscribe(path, std::move(observer), id), kOk) << Text(path);
    return id;
  }

  void Create(uvc::Path const& path, std::int32_t value = 0) {
    ASSERT_EQ(m.creator->CreateSetting(path, Int(value)), kOk) << Text(path);
  }
  void SetValue(uvc::Path const& path, std::int32_t value) {
    ASSERT_EQ(m.valueSetter->SetValue(path, uvc::TValue<Setting>(value)), kOk) << Text(path);
  }

  // Returns once every change made so far has been delivered: events go out in path
  // order and the sentinel sorts last.
  void Drain() {
    auto probe = std::make_shared<Recorder>();
    auto const id = Subscribe(kSentinel, probe);
    if (sentinelMade_) {
      SetValue(kSentinel, ++sentinelValue_);
    } else {
      Create(kSentinel);
      sentinelMade_ = true;
    }
    ASSERT_TRUE(probe->WaitFor(kSentinel));
    ASSERT_EQ(m.subscriber->Unsubscribe(id), kOk);
  }

  // Blocks the event thread in an Update of "hold" until the gate opens, so that the
  // changes made meanwhile wait together.
  Hold HoldEventThread() {
    Hold hold;
    hold.gate = std::make_shared<Gate>();
    hold.returned = std::make_shared<std::atomic<bool>>(false);
    hold.threadEnded = std::make_shared<Gate>();
    hold.observer = std::make_shared<Recorder>(
        [gate = hold.gate, returned = hold.returned, ended = hold.threadEnded](
            uvc::Path const& path, unsigned char) {
          if (path != kHold) return;
          OpenWhenThisThreadEnds(ended);
          EXPECT_TRUE(gate->Wait());
          *returned = true;
        });
    hold.id = Subscribe(kHold, hold.observer);
    Create(kHold);
    EXPECT_TRUE(hold.observer->WaitFor(kHold));
    return hold;
  }

  // Level-1 NotifyEvent records, one per delivered event with at least one observer.
  std::vector<std::string> UpdateRecords() const {
    std::vector<std::string> out;
    for (auto const& record : log.ByFunction("NotifyEvent"))
      if (record.level == tern::logger::LogLevel::Debug) out.push_back(record.message);
    return out;
  }

  test_support::CapturedLog log;
  Owners m;

 private:
  bool sentinelMade_ = false;
  std::int32_t sentinelValue_ = 0;
};

}  // namespace events_test
