// Memory: bytes per node of a tree of 100k int32 leaves with short keys (c0..c999), in
// use by the process after the tree is built (heap_bytes_per_node: malloc's in-use
// count; rss_bytes_per_node: resident set growth after returning free memory to the
// system). Each figure is measured once; the first is taken before anything else grew
// the heap.
//
//   memory/lib/100000            CreateSettingsManager on a file of the tree (the tree,
//                                SQLite's page cache, everything the manager keeps)
//   memory/setting_tree/100000   the same tree as a bare sm::Setting (no manager)
//   memory/floor/100000          the floor: the same tree of std::map nodes holding int32

#include <malloc.h>
#include <unistd.h>

#include <cstdio>
#include <memory>

#include "common.h"

namespace bench {
namespace {

using benchmark::State;

struct Usage {
  double heap = 0;  // bytes malloc has handed out and not taken back
  double rss = 0;   // resident bytes
};

Usage Now() {
  malloc_trim(0);
  Usage usage;
  auto const info = mallinfo2();
  usage.heap = static_cast<double>(info.uordblks + info.hblkhd);
  long pages = 0, resident = 0;
  if (FILE* statm = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(statm, "%ld %ld", &pages, &resident) != 2) resident = 0;
    std::fclose(statm);
  }
  usage.rss = static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE));
  return usage;
}

template <typename Build>
void Measure(State& state, Build&& build) {
  Guarded(state, [&] {
    auto const leaves = static_cast<std::size_t>(state.range(0));
    auto const nodes = static_cast<double>(NodeCount(leaves));
    for (auto _ : state) {
      state.PauseTiming();
      auto const before = Now();
      state.ResumeTiming();
      auto kept = build(leaves);
      state.PauseTiming();
      auto const after = Now();
      state.counters["heap_bytes_per_node"] = (after.heap - before.heap) / nodes;
      state.counters["rss_bytes_per_node"] = (after.rss - before.rss) / nodes;
      state.counters["nodes"] = nodes;
      kept.reset();
      state.ResumeTiming();
    }
  });
}

void Library(State& state) {
  // The file is made before the first measurement, so that its making is not counted.
  auto const& file = TemplateFile(static_cast<std::size_t>(state.range(0)));
  Measure(state, [&file](std::size_t) { return OpenManager(file); });
}

void SettingTree(State& state) {
  Measure(state,
          [](std::size_t leaves) { return std::make_unique<sm::Setting>(MakeTree(leaves)); });
}

void Floor(State& state) {
  Measure(state,
          [](std::size_t leaves) { return std::make_unique<FloorNode>(MakeFloorTree(leaves)); });
}

BENCHMARK(Library)
    ->Name("memory/lib")
    ->Arg(k100k)
    ->Iterations(1)
    ->Repetitions(1)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(SettingTree)
    ->Name("memory/setting_tree")
    ->Arg(k100k)
    ->Iterations(1)
    ->Repetitions(1)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(Floor)
    ->Name("memory/floor")
    ->Arg(k100k)
    ->Iterations(1)
    ->Repetitions(1)
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace bench
