// Several managers on one file: what coherence costs, each figure beside its floor in the
// same run.
//
//   coherence/visibility/cross_process    a value set by another process, from the return
//       of its SetValue to the first GetSetting here that answers it: median_us, p99_us
//   coherence/event/cross_process         the same change, to the Update of an observer here
//   coherence/refresh/subtree/N           taking in another manager's SetValue of a leaf
//   coherence/refresh/whole/N             taking in a new top-level key (the change log
//                                         names the root: the whole file is read again)
//   coherence/startup/N                   floor of both: CreateSettingsManager on the file
//   coherence/read/lib                    GetSetting of a leaf when nothing changed
//   coherence/read/floor                  the same steps without the stale check: the path
//                                         check, the shared lock, the walk and the copy
//   coherence/change/store.Set/N          the store's replacement of a leaf's rows, alone
//   coherence/change/store.logged/N       the same as a manager's change: the file's
//                                         generation read, the change logged (files in
//                                         /dev/shm: no disk in the figure)
//
// The program is also the other process of the cross-process figures:
//   sm_bench_coherence --writer DB    reads values from standard input, sets each at the
//                                     leaf and answers the steady-clock time of the return.

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <iostream>
#include <mutex>
#include <shared_mutex>
#include <thread>

#include "common.h"
#include "settings_db.h"
#include "settings_manager.h"
#include "tern/logger/tern_logger.h"
#include "uvc/tree.h"

namespace bench {
namespace {

using benchmark::State;
using Clock = std::chrono::steady_clock;

std::int64_t Nanoseconds() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
      .count();
}

std::string Self() {
  std::vector<char> path(4096);
  auto const n = ::readlink("/proc/self/exe", path.data(), path.size() - 1);
  Require(n > 0, "readlink /proc/self/exe");
  return std::string(path.data(), static_cast<std::size_t>(n));
}

// This program as the writer on `file`, talking through two pipes.
class Writer {
 public:
  explicit Writer(std::string const& file) {
    int in[2], out[2];
    Require(::pipe(in) == 0 && ::pipe(out) == 0, "pipe");
    std::string const self = Self();
    pid_ = ::fork();
    if (pid_ == 0) {
      ::dup2(in[0], STDIN_FILENO);
      ::dup2(out[1], STDOUT_FILENO);
      ::close(in[1]);
      ::close(out[0]);
      ::execl(self.c_str(), self.c_str(), "--writer", file.c_str(), nullptr);
      ::_exit(127);
    }
    ::close(in[0]);
    ::close(out[1]);
    to_ = ::fdopen(in[1], "w");
    from_ = ::fdopen(out[0], "r");
    Require(pid_ > 0 && to_ != nullptr && from_ != nullptr, "writer process");
    Require(Answer() == 0, "writer did not start");
  }
  ~Writer() {
    std::fclose(to_);  // the writer ends at the end of its input
    std::fclose(from_);
    ::waitpid(pid_, nullptr, 0);
  }
  Writer(Writer const&) = delete;
  Writer& operator=(Writer const&) = delete;

  void Set(std::int32_t value) {
    std::fprintf(to_, "%d\n", value);
    std::fflush(to_);
  }
  // The time the last Set returned in the writer; 0 for "ready".
  std::int64_t Answer() {
    long long ns = -1;
    Require(std::fscanf(from_, "%lld", &ns) == 1 && ns >= 0, "writer answer");
    return ns;
  }

 private:
  pid_t pid_ = -1;
  std::FILE* to_ = nullptr;
  std::FILE* from_ = nullptr;
};

int WriterMain(char const* file) {
  try {
    auto manager = OpenManager(file);
    std::shared_ptr<sm::ISettingsValueSetter> setter;
    Require(manager->GetSettingsValueSetter(setter) == 0, "setter");
    auto const leaf = LeafPath(k1k);
    std::printf("0\n");
    std::fflush(stdout);
    for (std::int32_t value; std::cin >> value;) {
      Require(setter->SetValue(leaf, sm::Setting::Value(value)) == 0, "SetValue");
      std::printf("%lld\n", static_cast<long long>(Nanoseconds()));
      std::fflush(stdout);
    }
    return 0;
  } catch (std::exception const& e) {
    std::fprintf(stderr, "writer: %s\n", e.what());
    return 1;
  }
}

void VisibilityAcrossProcesses(State& state) {
  Guarded(state, [&] {
    auto const file = CopyOfTemplate(k1k, "visibility");
    auto manager = OpenManager(file);
    std::shared_ptr<sm::ISettingsGetter> getter;
    Require(manager->GetSettingsGetter(getter) == 0, "getter");
    Writer writer(file);
    auto const leaf = LeafPath(k1k);
    std::vector<double> samples;
    std::int32_t value = 1 << 20;
    sm::Setting out;
    for (auto _ : state) {
      writer.Set(++value);
      for (;;) {
        Require(getter->GetSetting(leaf, out) == 0, "GetSetting");
        if (std::get<std::int32_t>(out) == value) break;
        std::this_thread::yield();
      }
      auto const seen = Nanoseconds();
      auto const returned = writer.Answer();
      samples.push_back(static_cast<double>(std::max<std::int64_t>(0, seen - returned)) / 1e3);
    }
    ReportLatencies(state, samples);
  });
}

// Records when the observer heard of the value it waits for.
class Heard : public sm::ISettingsUpdateObserver {
 public:
  void Update(uvc::Path const&, unsigned char) override {
    std::lock_guard<std::mutex> lock(lock_);
    at_ = Nanoseconds();
    ++count_;
    arrived_.notify_all();
  }
  std::int64_t Wait(std::uint64_t count) {
    std::unique_lock<std::mutex> lock(lock_);
    Require(arrived_.wait_for(lock, std::chrono::seconds(10), [&] { return count_ >= count; }),
            "no event");
    return at_;
  }

 private:
  std::mutex lock_;
  std::condition_variable arrived_;
  std::int64_t at_ = 0;
  std::uint64_t count_ = 0;
};

void EventAcrossProcesses(State& state) {
  Guarded(state, [&] {
    auto const file = CopyOfTemplate(k1k, "event");
    auto manager = OpenManager(file);
    std::shared_ptr<sm::ISettingsUpdateSubscriber> subscriber;
    Require(manager->GetSettingsUpdateSubscriber(subscriber) == 0, "subscriber");
    auto const heard = std::make_shared<Heard>();
    sm::SubscriptionId id{};
    Require(subscriber->Subscribe(LeafPath(k1k), heard, id) == 0, "Subscribe");
    Writer writer(file);
    std::vector<double> samples;
    std::int32_t value = 1 << 21;
    std::uint64_t events = 0;
    for (auto _ : state) {
      writer.Set(++value);
      auto const at = heard->Wait(++events);
      auto const returned = writer.Answer();
      samples.push_back(static_cast<double>(std::max<std::int64_t>(0, at - returned)) / 1e3);
    }
    ReportLatencies(state, samples);
    subscriber->Unsubscribe(id);
  });
}

// Two managers on one copy of the template: `other` changes, `self` takes it in.
struct RefreshFixture {
  explicit RefreshFixture(std::size_t leaves)
      : file(CopyOfTemplate(leaves, "refresh")),
        self(OpenManager(file)),
        other(OpenManager(file)),
        leaf(LeafPath(leaves)) {
    Require(other->GetSettingsValueSetter(setter) == 0, "setter");
    Require(other->GetSettingsCreator(creator) == 0, "creator");
  }
  sm::SettingsManager& Self() { return static_cast<sm::SettingsManager&>(*self); }

  std::string file;
  std::shared_ptr<sm::ISettingsManager> self, other;
  std::shared_ptr<sm::ISettingsValueSetter> setter;
  std::shared_ptr<sm::ISettingsCreator> creator;
  uvc::Path leaf;
  std::int32_t next = 1 << 22;
};

RefreshFixture& Refreshing(std::int64_t leaves) {
  static std::map<std::int64_t, std::unique_ptr<RefreshFixture>> fixtures;
  auto& slot = fixtures[leaves];
  if (!slot) slot = std::make_unique<RefreshFixture>(static_cast<std::size_t>(leaves));
  return *slot;
}

void Nodes(State& state) {
  state.counters["nodes"] =
      static_cast<double>(NodeCount(static_cast<std::size_t>(state.range(0))));
}

void RefreshSubtree(State& state) {
  Guarded(state, [&] {
    auto& f = Refreshing(state.range(0));
    for (auto _ : state) {
      state.PauseTiming();
      Require(f.setter->SetValue(f.leaf, sm::Setting::Value(++f.next)) == 0, "SetValue");
      state.ResumeTiming();
      f.Self().Refresh();
    }
    Nodes(state);
  });
}

void RefreshWhole(State& state) {
  Guarded(state, [&] {
    auto& f = Refreshing(state.range(0));
    for (auto _ : state) {
      state.PauseTiming();
      uvc::Path const top{"t" + std::to_string(++f.next)};
      Require(f.creator->CreateSetting(top, sm::Setting(std::int32_t{1})) == 0, "Create");
      state.ResumeTiming();
      f.Self().Refresh();
    }
    Nodes(state);
  });
}

void Startup(State& state) {
  Guarded(state, [&] {
    auto const file = CopyOfTemplate(static_cast<std::size_t>(state.range(0)), "startup");
    for (auto _ : state) {
      auto manager = OpenManager(file);
      state.PauseTiming();
      manager.reset();
      state.ResumeTiming();
    }
    Nodes(state);
  });
}

struct ReadFixture {
  ReadFixture() : manager(OpenManager(CopyOfTemplate(k10k, "read"))), leaf(LeafPath(k10k)) {
    Require(manager->GetSettingsGetter(getter) == 0, "getter");
  }
  std::shared_ptr<sm::ISettingsManager> manager;
  std::shared_ptr<sm::ISettingsGetter> getter;
  uvc::Path const leaf;
  sm::Setting const tree = MakeTree(k10k);
  mutable std::shared_mutex lock;
};

ReadFixture& Reading() {
  static ReadFixture fixture;
  return fixture;
}

void ReadLib(State& state) {
  Guarded(state, [&] {
    auto& f = Reading();
    sm::Setting out;
    for (auto _ : state) {
      int const rc = f.getter->GetSetting(f.leaf, out);
      benchmark::DoNotOptimize(rc);
      benchmark::DoNotOptimize(out);
    }
  });
}

void ReadFloor(State& state) {
  Guarded(state, [&] {
    auto& f = Reading();
    sm::Setting out;
    for (auto _ : state) {
      sm::SettingsManager::Check(f.leaf);
      sm::Setting copy;
      {
        std::shared_lock<std::shared_mutex> lock(f.lock);
        copy = uvc::GetItem(f.tree, f.leaf);
      }
      std::swap(out, copy);
      benchmark::DoNotOptimize(out);
    }
  });
}

// In memory when the machine has /dev/shm: the figures are the store's own work.
std::string ShmCopy(std::size_t leaves, std::string const& stem) {
  std::filesystem::path const shm("/dev/shm");
  if (!std::filesystem::is_directory(shm)) return CopyOfTemplate(leaves, stem);
  static unsigned counter = 0;
  auto const file = shm / ("sm-bench-" + std::to_string(::getpid()) + "-" + stem + "-" +
                           std::to_string(++counter) + ".db");
  std::filesystem::copy_file(TemplateFile(leaves), file);
  static std::vector<std::filesystem::path> made;  // removed at exit, with their companions
  static struct Cleanup {
    ~Cleanup() {
      for (auto const& path : made)
        for (char const* suffix : {"", "-wal", "-shm", "-journal"})
          std::filesystem::remove(path.string() + suffix);
    }
  } cleanup;
  made.push_back(file);
  return file.string();
}

void StoreChange(State& state, bool logged) {
  Guarded(state, [&] {
    auto const leaves = static_cast<std::size_t>(state.range(0));
    settings_db::SettingsDB store(ShmCopy(leaves, logged ? "logged" : "set"));
    auto const leaf = LeafPath(leaves);
    std::array<Rows, 2> const rows{Records(leaf, sm::Setting(std::int32_t{1})),
                                   Records(leaf, sm::Setting(std::int32_t{2}))};
    std::size_t next = 0;
    for (auto _ : state) {
      auto const& change = rows[next ^= 1];
      if (logged) {
        settings_db::SettingsDB::Transaction transaction(store, "Set");
        auto const generation = store.Generation();
        store.Replace(change);
        transaction.Commit(change.front().path, generation + 1);
      } else {
        store.Set(change);
      }
    }
    Nodes(state);
  });
}

void StoreSet(State& state) { StoreChange(state, false); }
void StoreLogged(State& state) { StoreChange(state, true); }

void RegisterAll() {
  benchmark::RegisterBenchmark("coherence/visibility/cross_process", VisibilityAcrossProcesses)
      ->Iterations(300)
      ->Unit(benchmark::kMicrosecond);
  benchmark::RegisterBenchmark("coherence/event/cross_process", EventAcrossProcesses)
      ->Iterations(300)
      ->Unit(benchmark::kMicrosecond);
  for (auto leaves : {k10k, k100k}) {
    auto const iterations = leaves == k10k ? 200 : 40;
    benchmark::RegisterBenchmark("coherence/refresh/subtree", RefreshSubtree)
        ->Arg(leaves)
        ->Iterations(iterations)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("coherence/refresh/whole", RefreshWhole)
        ->Arg(leaves)
        ->Iterations(iterations / 4)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("coherence/startup", Startup)
        ->Arg(leaves)
        ->Iterations(iterations / 4)
        ->Unit(benchmark::kMicrosecond);
  }
  benchmark::RegisterBenchmark("coherence/read/lib", ReadLib);
  benchmark::RegisterBenchmark("coherence/read/floor", ReadFloor);
  benchmark::RegisterBenchmark("coherence/change/store.Set", StoreSet)
      ->Arg(k1k)
      ->Unit(benchmark::kMicrosecond);
  benchmark::RegisterBenchmark("coherence/change/store.logged", StoreLogged)
      ->Arg(k1k)
      ->Unit(benchmark::kMicrosecond);
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  if (argc == 3 && std::string(argv[1]) == "--writer") return bench::WriterMain(argv[2]);
  tern::logger::TernLogger::RootLogger().SetThreshold(tern::logger::LogLevel::Fatal);
  bench::RegisterAll();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
