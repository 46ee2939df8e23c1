// Notification: the time from the call of a change to the observer's Update (manual time:
// that latency per change; median_us and p99_us counters; call_median_us and call_p99_us:
// the time the call itself took, with the subscriber; return_median_us: from its return),
// and how many event threads a burst of 1000 changes starts.
//
//   notify/latency/lib/db       SetValue on a file of 1k leaves, observer at the root
//   notify/latency/lib/memory   the same on a manager without a database
//   notify/call/lib/memory_unsubscribed   the SetValue call alone on the same tree, nobody
//                               subscribed
//   notify/latency/floor/thread_start   std::thread constructed to its body running
//   notify/latency/floor/condvar_wake   notify_one to the waiting thread running
//   notify/burst/lib/free       1000 SetValue back to back (no database)
//   notify/burst/lib/gated      the same while the first Update is held until the burst
//                               is issued: delivery is surely behind the changes
// A burst's threads_max is the most event threads that delivered one burst (a thread still
// running from the previous burst may deliver it instead of a new one).
// new_thread_share: the share of changes delivered on another thread than the change
// before; 1 when every change starts a thread of its own.

#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>
#include <thread>

#include "common.h"

namespace bench {
namespace {

using benchmark::State;
using Clock = std::chrono::steady_clock;

double Microseconds(Clock::duration d) {
  return std::chrono::duration<double, std::micro>(d).count();
}

// Stamps every Update and tells the event threads it was called on (each new thread is a
// new kernel thread id; Linux hands them out in turn, so they are not reused this soon).
class Recorder final : public sm::ISettingsUpdateObserver {
 public:
  void Update(uvc::Path const&, unsigned char) override {
    auto const now = Clock::now();
    auto const tid = ::gettid();
    std::unique_lock<std::mutex> lock(mutex_);
    if (held_) released_.wait(lock, [this] { return !held_; });
    last_ = now;
    ++count_;
    if (tid != lastTid_) {
      lastTid_ = tid;
      ++threads_;
    }
    burstThreads_.insert(tid);
    // Only the awaited Update wakes the waiter: waking it on every one would put a
    // context switch of the benchmark's own into each delivery.
    if (count_ == awaited_) delivered_.notify_all();
  }

  std::uint64_t Count() {
    std::lock_guard<std::mutex> lock(mutex_);
    return count_;
  }
  std::uint64_t Threads() {
    std::lock_guard<std::mutex> lock(mutex_);
    return threads_;
  }
  // Waits until `count` Updates have been made; the time of the last one.
  Clock::time_point WaitFor(std::uint64_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    awaited_ = count;
    bool const done =
        delivered_.wait_for(lock, std::chrono::seconds(10), [&] { return count_ >= count; });
    Require(done, "no Update within 10 s");
    return last_;
  }
  // Forgets the threads of earlier bursts.
  void BeginBurst() {
    std::lock_guard<std::mutex> lock(mutex_);
    burstThreads_.clear();
  }
  std::size_t BurstThreads() {
    std::lock_guard<std::mutex> lock(mutex_);
    return burstThreads_.size();
  }
  // While held, the next Update waits for Release.
  void Hold() {
    std::lock_guard<std::mutex> lock(mutex_);
    held_ = true;
  }
  void Release() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      held_ = false;
    }
    released_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable delivered_, released_;
  Clock::time_point last_;
  std::uint64_t count_ = 0;       // guarded by mutex_
  std::uint64_t awaited_ = 0;     // guarded by mutex_
  std::uint64_t threads_ = 0;     // guarded by mutex_
  pid_t lastTid_ = 0;             // guarded by mutex_
  std::set<pid_t> burstThreads_;  // guarded by mutex_
  bool held_ = false;             // guarded by mutex_
};

struct NotifyFixture {
  // With a database: a copy of the 1k template. Without: the same leaves made by the
  // creator in memory.
  explicit NotifyFixture(bool withDatabase, std::size_t leaves, bool subscribed = true)
      : manager(OpenManager(withDatabase ? CopyOfTemplate(leaves, "notify") : std::string())) {
    Require(manager->GetSettingsValueSetter(setter) == 0, "value setter");
    if (!withDatabase) {
      std::shared_ptr<sm::ISettingsCreator> creator;
      Require(manager->GetSettingsCreator(creator) == 0, "creator");
      auto tree = MakeTree(leaves);
      for (auto& [key, node] : std::get<uvc::index::kMap>(tree))
        Require(creator->CreateSetting(uvc::Path{key}, node) == 0, "CreateSetting");
    }
    std::shared_ptr<sm::ISettingsUpdateSubscriber> subscriber;
    Require(manager->GetSettingsUpdateSubscriber(subscriber) == 0, "subscriber");
    sm::SubscriptionId id{};
    if (subscribed) Require(subscriber->Subscribe(uvc::Root(), recorder, id) == 0, "Subscribe");
    // Every leaf of group a3/b7 in path order, for bursts on distinct paths.
    auto const group = GroupPath();
    for (std::size_t c = 0; c < leaves / 100; ++c) {
      auto path = group;
      path.emplace_back("c" + std::to_string(c));
      leavesOfGroup.push_back(std::move(path));
    }
  }
  // The manager goes first: its destructor stops delivery before the recorder dies.
  std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
  std::shared_ptr<sm::ISettingsManager> manager;
  std::shared_ptr<sm::ISettingsValueSetter> setter;
  std::vector<uvc::Path> leavesOfGroup;
  std::int32_t next = 1000000;
};

NotifyFixture& DbFixture() {
  static NotifyFixture fixture(true, k1k);
  return fixture;
}

// 100 groups of 1000 leaves in memory: a burst changes one whole group.
NotifyFixture& MemoryFixture() {
  static NotifyFixture fixture(false, k100k);
  return fixture;
}

void Latency(State& state, NotifyFixture& f) {
  std::vector<double> samples, calls, afterReturn;
  samples.reserve(static_cast<std::size_t>(state.max_iterations));
  calls.reserve(static_cast<std::size_t>(state.max_iterations));
  auto const threadsBefore = f.recorder->Threads();
  auto const& leaf = f.leavesOfGroup[f.leavesOfGroup.size() / 2];
  for (auto _ : state) {
    auto const before = f.recorder->Count();
    auto const called = Clock::now();
    int const rc = f.setter->SetValue(leaf, sm::Setting::Value(++f.next));
    auto const returned = Clock::now();
    Require(rc == 0, "SetValue returned " + std::to_string(rc));
    auto const updated = f.recorder->WaitFor(before + 1);
    double const us = Microseconds(updated - called);
    state.SetIterationTime(us * 1e-6);
    samples.push_back(us);
    calls.push_back(Microseconds(returned - called));
    // An Update that ran before the caller got control back counts as no delay.
    afterReturn.push_back(std::max(0.0, Microseconds(updated - returned)));
  }
  state.counters["new_thread_share"] = static_cast<double>(f.recorder->Threads() - threadsBefore) /
                                       static_cast<double>(state.iterations());
  ReportLatencies(state, std::move(samples));
  ReportLatencies(state, std::move(calls), "call_");
  ReportLatencies(state, std::move(afterReturn), "return_");
}

void LatencyDb(State& state) {
  Guarded(state, [&] { Latency(state, DbFixture()); });
}

void LatencyMemory(State& state) {
  Guarded(state, [&] { Latency(state, MemoryFixture()); });
}

// The same SetValue on the same tree with nobody subscribed.
void CallUnsubscribed(State& state) {
  Guarded(state, [&] {
    static NotifyFixture f(false, k100k, false);
    std::vector<double> calls;
    calls.reserve(static_cast<std::size_t>(state.max_iterations));
    auto const& leaf = f.leavesOfGroup[f.leavesOfGroup.size() / 2];
    for (auto _ : state) {
      auto const called = Clock::now();
      Require(f.setter->SetValue(leaf, sm::Setting::Value(++f.next)) == 0, "SetValue");
      double const us = Microseconds(Clock::now() - called);
      state.SetIterationTime(us * 1e-6);
      calls.push_back(us);
    }
    ReportLatencies(state, std::move(calls), "call_");
  });
}

void ThreadStartFloor(State& state) {
  std::vector<double> samples;
  samples.reserve(static_cast<std::size_t>(state.max_iterations));
  for (auto _ : state) {
    Clock::time_point started;
    auto const before = Clock::now();
    std::thread thread([&started] { started = Clock::now(); });
    thread.join();
    double const us = Microseconds(started - before);
    state.SetIterationTime(us * 1e-6);
    samples.push_back(us);
  }
  ReportLatencies(state, std::move(samples));
}

void CondvarWakeFloor(State& state) {
  std::mutex mutex;
  std::condition_variable wake, done;
  std::uint64_t posted = 0, seen = 0;  // guarded by mutex
  bool stop = false;                   // guarded by mutex
  Clock::time_point woken;             // guarded by mutex
  std::thread waiter([&] {
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
      wake.wait(lock, [&] { return stop || posted != seen; });
      if (stop) return;
      woken = Clock::now();
      seen = posted;
      done.notify_one();
    }
  });
  std::vector<double> samples;
  samples.reserve(static_cast<std::size_t>(state.max_iterations));
  for (auto _ : state) {
    Clock::time_point sent;
    {
      std::lock_guard<std::mutex> lock(mutex);
      ++posted;
      sent = Clock::now();
    }
    wake.notify_one();
    std::unique_lock<std::mutex> lock(mutex);
    done.wait(lock, [&] { return seen == posted; });
    double const us = Microseconds(woken - sent);
    state.SetIterationTime(us * 1e-6);
    samples.push_back(us);
  }
  {
    std::lock_guard<std::mutex> lock(mutex);
    stop = true;
  }
  wake.notify_one();
  waiter.join();
  ReportLatencies(state, std::move(samples));
}

void Burst(State& state, bool gated) {
  Guarded(state, [&] {
    auto& f = MemoryFixture();
    double maxThreads = 0, sumThreads = 0, issueUs = 0;
    for (auto _ : state) {
      auto const before = f.recorder->Count();
      f.recorder->BeginBurst();
      ++f.next;
      if (gated) f.recorder->Hold();
      auto const start = Clock::now();
      for (auto const& leaf : f.leavesOfGroup)
        Require(f.setter->SetValue(leaf, sm::Setting::Value(f.next)) == 0, "SetValue");
      issueUs += Microseconds(Clock::now() - start);
      if (gated) f.recorder->Release();
      f.recorder->WaitFor(before + f.leavesOfGroup.size());
      auto const threads = static_cast<double>(f.recorder->BurstThreads());
      maxThreads = std::max(maxThreads, threads);
      sumThreads += threads;
    }
    state.counters["changes"] = static_cast<double>(f.leavesOfGroup.size());
    // The time to issue the burst, without waiting for its delivery.
    state.counters["issue_us"] = issueUs / static_cast<double>(state.iterations());
    state.counters["threads_max"] = maxThreads;
    state.counters["threads_mean"] = sumThreads / static_cast<double>(state.iterations());
  });
}

void BurstFree(State& state) { Burst(state, false); }
void BurstGated(State& state) { Burst(state, true); }

BENCHMARK(LatencyDb)
    ->Name("notify/latency/lib/db")
    ->Iterations(300)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(LatencyMemory)
    ->Name("notify/latency/lib/memory")
    ->Iterations(1000)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(CallUnsubscribed)
    ->Name("notify/call/lib/memory_unsubscribed")
    ->Iterations(1000)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(ThreadStartFloor)
    ->Name("notify/latency/floor/thread_start")
    ->Iterations(1000)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(CondvarWakeFloor)
    ->Name("notify/latency/floor/condvar_wake")
    ->Iterations(1000)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BurstFree)
    ->Name("notify/burst/lib/free")
    ->Iterations(5)
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BurstGated)
    ->Name("notify/burst/lib/gated")
    ->Iterations(5)
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace bench
