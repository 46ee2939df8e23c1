// Reads: GetSetting of a scalar at depth 3 in a tree of 10k leaves, on one and on two
// threads, against the floor: the same walk over a std::map tree of the same shape and a
// copy of the node, under a std::shared_mutex held shared.
//
//   read/GetSetting/lib    read/GetSetting/floor    (items_per_second: all threads together)
//
// Where the library's time goes, one thread:
//   read/alone/check          the path check every operation makes (each id against the
//                             id rules), alone
//   read/alone/setting_walk   the floor's walk and copy, but over an sm::Setting tree with
//                             uvc::GetItem: the cost of the node type

#include <mutex>
#include <shared_mutex>

#include "common.h"
#include "uvc/tree.h"

namespace bench {
namespace {

using benchmark::State;

struct ReadFixture {
  ReadFixture() : manager(OpenManager(CopyOfTemplate(k10k, "read"))), leaf(LeafPath(k10k)) {
    Require(manager->GetSettingsGetter(getter) == 0, "getter");
  }
  std::shared_ptr<sm::ISettingsManager> manager;
  std::shared_ptr<sm::ISettingsGetter> getter;
  uvc::Path const leaf;
  FloorNode const floor = MakeFloorTree(k10k);
  sm::Setting const settingTree = MakeTree(k10k);
  mutable std::shared_mutex floorLock;
};

// Made once, by whichever reader thread comes first (a function-local static).
ReadFixture& Fixture() {
  static ReadFixture fixture;
  return fixture;
}

void GetSettingLib(State& state) {
  Guarded(state, [&] {
    auto& f = Fixture();
    sm::Setting out;
    Require(f.getter->GetSetting(f.leaf, out) == 0, "GetSetting failed");
    for (auto _ : state) {
      int const rc = f.getter->GetSetting(f.leaf, out);
      benchmark::DoNotOptimize(rc);
      benchmark::DoNotOptimize(out);
    }
    state.SetItemsProcessed(state.iterations());
  });
}

void GetSettingFloor(State& state) {
  Guarded(state, [&] {
    auto& f = Fixture();
    FloorNode out;
    for (auto _ : state) {
      {
        std::shared_lock<std::shared_mutex> lock(f.floorLock);
        auto const* node = FloorFind(f.floor, f.leaf);
        if (node == nullptr) throw std::runtime_error("floor leaf missing");
        out = *node;
      }
      benchmark::DoNotOptimize(out);
    }
    state.SetItemsProcessed(state.iterations());
  });
}

// What SettingsManager::Check does before every read.
void CheckAlone(State& state) {
  Guarded(state, [&] {
    auto& f = Fixture();
    auto const& spec = sm::meta::GetIdSpecification();
    for (auto _ : state) {
      bool valid = !f.leaf.empty() && f.leaf.front().index() == 1;
      for (std::size_t i = 0; valid && i < f.leaf.size(); ++i)
        valid = uvc::aux::CheckId(f.leaf[i], spec) == uvc::IdState::Ok;
      benchmark::DoNotOptimize(valid);
    }
  });
}

void SettingWalkAlone(State& state) {
  Guarded(state, [&] {
    auto& f = Fixture();
    sm::Setting out;
    for (auto _ : state) {
      {
        std::shared_lock<std::shared_mutex> lock(f.floorLock);
        out = uvc::GetItem(f.settingTree, f.leaf);
      }
      benchmark::DoNotOptimize(out);
    }
  });
}

BENCHMARK(CheckAlone)->Name("read/alone/check");
BENCHMARK(SettingWalkAlone)->Name("read/alone/setting_walk");
BENCHMARK(GetSettingLib)->Name("read/GetSetting/lib")->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(GetSettingFloor)->Name("read/GetSetting/floor")->Threads(1)->Threads(2)->UseRealTime();

}  // namespace
}  // namespace bench
