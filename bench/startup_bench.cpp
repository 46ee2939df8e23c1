// Start-up: CreateSettingsManager on a file of N leaves against the floor: the same
// connection settings, the store's own SELECT stepped to the end, and a std::map tree
// built from the rows. Destroying the manager or tree is not timed.
//
//   startup/CreateSettingsManager/lib/N    startup/CreateSettingsManager/floor/N
//
// Where the library's time goes:
//   startup/alone/read/N   opening the store and reading every row as start-up reads it,
//                          without building anything: the rest is the tree

#include "common.h"
#include "settings_db.h"

namespace bench {
namespace {

using benchmark::State;

std::string const& File(std::int64_t leaves, char const* side) {
  static std::map<std::pair<std::int64_t, std::string>, std::string> files;
  auto& file = files[{leaves, side}];
  if (file.empty()) file = CopyOfTemplate(static_cast<std::size_t>(leaves), side);
  return file;
}

void Nodes(State& state) {
  state.counters["nodes"] =
      static_cast<double>(NodeCount(static_cast<std::size_t>(state.range(0))));
}

void StartupLib(State& state) {
  Guarded(state, [&] {
    auto const& file = File(state.range(0), "lib");
    for (auto _ : state) {
      auto manager = OpenManager(file);
      state.PauseTiming();
      manager.reset();
      state.ResumeTiming();
    }
    Nodes(state);
  });
}

void StartupFloor(State& state) {
  Guarded(state, [&] {
    auto const& file = File(state.range(0), "floor");
    for (auto _ : state) {
      auto tree = std::make_unique<FloorNode>(FloorLoad(file));
      state.PauseTiming();
      Require(FloorFind(*tree, LeafPath(static_cast<std::size_t>(state.range(0)))) != nullptr,
              "floor tree incomplete");
      tree.reset();
      state.ResumeTiming();
    }
    Nodes(state);
  });
}

void ReadAlone(State& state) {
  Guarded(state, [&] {
    auto const& file = File(state.range(0), "lib");
    for (auto _ : state) {
      settings_db::SettingsDB const db(file);
      settings_db::SettingsDB::Reader rows(db, std::string());
      std::size_t count = 0;
      for (sm::impl::RawView row; rows.Next(row);) count += row.value.size != 0;
      Require(count == NodeCount(static_cast<std::size_t>(state.range(0))), "row count");
    }
    Nodes(state);
  });
}

void Register(char const* name, void (*function)(State&)) {
  for (auto [leaves, iterations] : {std::pair{k1k, 50}, {k10k, 20}, {k100k, 4}, {k1M, 1}})
    benchmark::RegisterBenchmark(name, function)
        ->Arg(leaves)
        ->Iterations(iterations)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
}

int const registered = [] {
  Register("startup/CreateSettingsManager/lib", StartupLib);
  Register("startup/CreateSettingsManager/floor", StartupFloor);
  Register("startup/alone/read", ReadAlone);
  return 0;
}();

}  // namespace
}  // namespace bench
