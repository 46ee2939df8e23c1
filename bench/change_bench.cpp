// Durable changes: each operation of the library against the raw transaction of the same
// statements, prepared once, on an identical file with the same connection settings.
//
//   change/<Operation>/lib/N     the manager's operation on a tree of N leaves
//   change/<Operation>/floor/N   the same statements on a copy of the same file
//   change/store.Set/lib/N       the store alone (SettingsDB::Set) for the SetValue rows:
//                                tells the store's share of the library's excess
//   change/SetValue/floor_prepared_each_time/N   the floor's transaction with its
//                                statements prepared anew each time, as the store does
//   floor/fsync, floor/prepare4  orientation: one fsync, preparing a change's statements
//
// The library's own work, free of the disk's noise:
//   change/SetValue/lib_without_database/10000   SetValue on a manager without a database
//   change/nosync/floor/1000, change/nosync/floor_prepared_each_time/1000
//       the floor's transaction on a copy with synchronous=OFF (no fsync), its statements
//       prepared once and prepared anew each time: what re-preparing really costs

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <memory>

#include "common.h"
#include "settings_db.h"
#include "settings_db_statements.h"
#include "uvc/tree.h"

namespace bench {
namespace {

namespace stmt = settings_db::statements;
using benchmark::State;

// Everything one tree size needs, kept for the whole run: the library's manager on one
// copy of the template, the floor's connection on another, the store alone on a third.
struct ChangeFixture {
  explicit ChangeFixture(std::size_t leaves)
      : libraryFile(CopyOfTemplate(leaves, "lib")),
        floorFile(CopyOfTemplate(leaves, "floor")),
        storeFile(CopyOfTemplate(leaves, "store")),
        manager(OpenManager(libraryFile)),
        floorDb(floorFile),
        floorChange(floorDb),
        floorUpdate(floorDb.Prepare(stmt::kUpdateAttrib)),
        floorDelete(floorDb.Prepare(stmt::kDeleteSubtree)),
        floorInsert(floorDb.Prepare(stmt::kInsertRow)),
        store(std::make_unique<settings_db::SettingsDB>(storeFile)),
        valueLeaf(LeafPath(leaves, 0)),
        settingLeaf(LeafPath(leaves, 1)),
        attribLeaf(LeafPath(leaves, 2)),
        attribText(PathText(attribLeaf)),
        created(GroupPath()) {
    Require(manager->GetSettingsValueSetter(valueSetter) == 0, "value setter");
    Require(manager->GetSettingsSetter(setter) == 0, "setter");
    Require(manager->GetSettingsCreator(creator) == 0, "creator");
    Require(manager->GetSettingsDeleter(deleter) == 0, "deleter");
    created.emplace_back(std::string("n"));
    createdText = PathText(created);
    for (std::size_t i = 0; i < 2; ++i) {
      values[i] = sm::Setting::Value(static_cast<std::int32_t>(1000000 + i));
      settings[i] = sm::Setting(static_cast<std::int32_t>(2000000 + i));
      // What SetValue writes: the value with cleared attributes.
      valueRows[i] = Records(valueLeaf, sm::Setting(values[i]));
      settingRows[i] = Records(settingLeaf, settings[i]);
      attribs[i] = sm::Attributes{i == 1};
      attribRecords[i] = sm::impl::RawAttrib(attribs[i]).attrib;
    }
    // CreateSetting rewrites the deepest existing node's whole subtree: the group with
    // its new leaf.
    auto group = MakeTree(leaves);
    auto& groupNode = uvc::GetItem(group, GroupPath());
    std::get<uvc::index::kMap>(groupNode).emplace("n", newLeaf);
    createRows = Records(GroupPath(), groupNode);
    createdRow = Records(created, newLeaf);
  }

  std::string libraryFile, floorFile, storeFile;
  std::shared_ptr<sm::ISettingsManager> manager;
  std::shared_ptr<sm::ISettingsValueSetter> valueSetter;
  std::shared_ptr<sm::ISettingsSetter> setter;
  std::shared_ptr<sm::ISettingsCreator> creator;
  std::shared_ptr<sm::ISettingsDeleter> deleter;
  RawDatabase floorDb;
  RawChange floorChange;
  RawStatement floorUpdate, floorDelete, floorInsert;
  std::unique_ptr<settings_db::SettingsDB> store;

  uvc::Path valueLeaf, settingLeaf, attribLeaf;
  std::string attribText;
  uvc::Path created;
  std::string createdText;
  sm::Setting const newLeaf{std::int32_t{7}};

  std::array<sm::Setting::Value, 2> values;
  std::array<sm::Setting, 2> settings;
  std::array<sm::Attributes, 2> attribs;
  std::array<Rows, 2> valueRows, settingRows;
  std::array<sm::impl::Bytes, 2> attribRecords;
  Rows createRows, createdRow;

  // Which of the two alternating values comes next, per side (every call must change).
  std::size_t valueNext = 0, settingNext = 0, attribNext = 1, storeNext = 0;
  std::size_t floorValueNext = 0, floorSettingNext = 0, floorAttribNext = 1;
};

ChangeFixture& Fixture(std::int64_t leaves) {
  static std::map<std::int64_t, std::unique_ptr<ChangeFixture>> fixtures;
  auto& slot = fixtures[leaves];
  if (!slot) slot = std::make_unique<ChangeFixture>(static_cast<std::size_t>(leaves));
  return *slot;
}

void Expect(int rc, char const* what) {
  Require(rc == 0, std::string(what) + " returned " + std::to_string(rc));
}

void Nodes(State& state) {
  state.counters["nodes"] =
      static_cast<double>(NodeCount(static_cast<std::size_t>(state.range(0))));
}

void SetValueLib(State& state) {
  Guarded(state, [&] {
    auto& f = Fixture(state.range(0));
    for (auto _ : state) {
      Expect(f.valueSetter->SetValue(f.valueLeaf, f.values[f.valueNext]), "SetValue");
      f.valueNext ^= 1;
    }
    Nodes(state);
  });
}

void SetValueFloor(State& state) {
  Guarded(state, [&] {
    auto& f = Fixture(state.range(0));
    for (auto _ : state) {
      f.floorChange.Run(f.valueRows[f.floorValueNext]);
      f.floorValueNext ^= 1;
    }
    Nodes(state);
  });
}

void SetValueFloorPreparing(State& state) {
  Guarded(state, [&] {
    auto& f = Fixture(state.range(0));
    for (auto _ : state) {
      RawChange::RunPreparing(f.floorDb, f.valueRows[f.floorValueNext]);
      f.floorValueNext ^= 1;
    }
    Nodes(state);
  });
}

// A manager without a database holding the same tree.
struct MemoryFixture {
  MemoryFixture() : manager(OpenManager(std::string())), leaf(LeafPath(k10k)) {
    std::shared_ptr<sm::ISettingsCreator> creator;
    Require(manager->GetSettingsCreator(creator) == 0, "creator");
    Require(manager->GetSettingsValueSetter(setter) == 0, "value setter");
    auto tree = MakeTree(k10k);
    for (auto& [key, node] : std::get<uvc::index::kMap>(tree))
      Require(creator->CreateSetting(uvc::Path{key}, node) == 0, "CreateSetting");
  }
  std::shared_ptr<sm::ISettingsManager> manager;
  std::shared_ptr<sm::ISettingsValueSetter> setter;
  uvc::Path leaf;
  std::int32_t next = 1000000;
};

void SetValueWithoutDatabase(State& state) {
  Guarded(state, [&] {
    static MemoryFixture f;
    for (auto _ : state)
      Expect(f.setter->SetValue(f.leaf, sm::Setting::Value(++f.next)), "SetValue");
  });
}

// The floor's transactions on a copy of the 1k file that does not wait for the disk.
struct NoSyncFixture {
  NoSyncFixture() : db(CopyOfTemplate(k1k, "nosync")), change(db) {
    db.Exec("PRAGMA synchronous=OFF");
    for (std::size_t i = 0; i < 2; ++i)
      rows[i] = Records(LeafPath(k1k), sm::Setting(static_cast<std::int32_t>(3000000 + i)));
  }
  RawDatabase db;
  RawChange change;
  std::array<Rows, 2> rows;
  std::size_t next = 0;
};

NoSyncFixture& NoSync() {
  static NoSyncFixture fixture;
  return fixture;
}

void NoSyncFloor(State& state) {
  Guarded(state, [&] {
    auto& f = NoSync();
    for (auto _ : state) {
      f.change.Run(f.rows[f.next]);
      f.next ^= 1;
    }
  });
}

void NoSyncFloorPreparing(State& state) {
  Guarded(state, [&] {
    auto& f = NoSync();
    for (auto _ : state) {
      RawChange::RunPreparing(f.db, f.rows[f.next]);
      f.next ^= 1;
    }
  });
}

void StoreSet(State& state) {
  Guarded(state, [&] {
    auto& f = Fixture(state.range(0));
    for (auto _ : state) {
      f.store->Set(f.valueRows[f.storeNext]);
      f.storeNext ^= 1;
    }
    Nodes(state);
  });
}

void SetSettingLib(State& state) {
  Guarded(state, [&] {
    auto& f = Fixture(state.range(0));
    for (auto _ : state) {
      Expect(f.setter->SetSetting(f.settingLeaf, f.settings[f.settingNext]), "SetSetting");
      f.settingNext ^= 1;
    }
    Nodes(state);
  });
}

void SetSettingFloor(State& state) {
  Guarded(state, [&] {
    auto& f = Fixture(state.range(0));
    for (auto _ : state) {
      f.floorChange.Run(f.settingRows[f.floorSettingNext]);
      f.floorSettingNext ^= 1;
    }
    Nodes(state);
  });
}

void SetAttributeLib(State& state) {
  Guarded(state, [&] {
    auto& f = Fixture(state.range(0));
    for (auto _ : state) {
      Expect(f.setter->SetAttribute(f.attribLeaf, f.attribs[f.attribNext]), "SetAttribute");
      f.attribNext ^= 1;
    }
    Nodes(state);
  });
}

// The store updates one row in autocommit: the floor is that UPDATE alone.
void SetAttributeFloor(State& state) {
  Guarded(state, [&] {
    auto& f = Fixture(state.range(0));
    for (auto _ : state) {
      f.floorUpdate.BindBlob(1, f.attribRecords[f.floorAttribNext]);
      f.floorUpdate.BindText(2, f.attribText);
      f.floorUpdate.Step();
      f.floorUpdate.Reset();
      Require(sqlite3_changes(f.floorDb.Get()) == 1, "floor UPDATE changed no row");
      f.floorAttribNext ^= 1;
    }
    Nodes(state);
  });
}

void FloorDeleteCreated(ChangeFixture& f) {
  std::string const end = stmt::SubtreeEnd(f.createdText);
  f.floorDelete.BindText(1, f.createdText);
  f.floorDelete.BindText(2, end);
  f.floorDelete.Step();
  f.floorDelete.Reset();
}

void FloorInsertCreated(ChangeFixture& f) {
  auto const& row = f.createdRow.front();
  f.floorInsert.BindText(1, row.path);
  f.floorInsert.BindBlob(2, row.value);
  f.floorInsert.BindBlob(3, row.attrib);
  f.floorInsert.Step();
  f.floorInsert.Reset();
}

// Each iteration creates a/b/n and, with the clock stopped, deletes it again.
void CreateSettingLib(State& state) {
  Guarded(state, [&] {
    auto& f = Fixture(state.range(0));
    for (auto _ : state) {
      Expect(f.creator->CreateSetting(f.created, f.newLeaf), "CreateSetting");
      state.PauseTiming();
      Expect(f.deleter->DeleteSetting(f.created), "DeleteSetting");
      state.ResumeTiming();
    }
    Nodes(state);
  });
}

void CreateSettingFloor(State& state) {
  Guarded(state, [&] {
    auto& f = Fixture(state.range(0));
    for (auto _ : state) {
      f.floorChange.Run(f.createRows);
      state.PauseTiming();
      FloorDeleteCreated(f);
      state.ResumeTiming();
    }
    Nodes(state);
  });
}

// Each iteration creates a/b/n with the clock stopped, then deletes it.
void DeleteSettingLib(State& state) {
  Guarded(state, [&] {
    auto& f = Fixture(state.range(0));
    for (auto _ : state) {
      state.PauseTiming();
      Expect(f.creator->CreateSetting(f.created, f.newLeaf), "CreateSetting");
      state.ResumeTiming();
      Expect(f.deleter->DeleteSetting(f.created), "DeleteSetting");
    }
    Nodes(state);
  });
}

// The store deletes in autocommit: the floor is that DELETE alone.
void DeleteSettingFloor(State& state) {
  Guarded(state, [&] {
    auto& f = Fixture(state.range(0));
    for (auto _ : state) {
      state.PauseTiming();
      FloorInsertCreated(f);
      state.ResumeTiming();
      FloorDeleteCreated(f);
      Require(sqlite3_changes(f.floorDb.Get()) == 1, "floor DELETE removed no row");
    }
    Nodes(state);
  });
}

// One small write made durable, in the same folder as the database files.
void FloorFsync(State& state) {
  Guarded(state, [&] {
    auto const file = NewFile("fsync");
    int const fd = ::open(file.c_str(), O_CREAT | O_RDWR, 0600);
    Require(fd >= 0, "open for fsync");
    char const bytes[64] = {};
    for (auto _ : state) {
      if (::pwrite(fd, bytes, sizeof bytes, 0) != static_cast<ssize_t>(sizeof bytes) ||
          ::fsync(fd) != 0) {
        ::close(fd);
        throw std::runtime_error("pwrite/fsync failed");
      }
    }
    ::close(fd);
  });
}

// What the store pays on every change for preparing its statements anew.
void FloorPrepare4(State& state) {
  Guarded(state, [&] {
    RawDatabase db(TemplateFile(k10k));
    for (auto _ : state) {
      RawStatement begin(db.Get(), "BEGIN IMMEDIATE");
      RawStatement remove(db.Get(), stmt::kDeleteSubtree);
      RawStatement insert(db.Get(), stmt::kInsertRow);
      RawStatement commit(db.Get(), "COMMIT");
      benchmark::DoNotOptimize(commit.Get());
    }
  });
}

void Register(char const* name, void (*function)(State&)) {
  // Few iterations per repetition and many repetitions (command line), randomly
  // interleaved: library and floor then see the same spells of disk contention.
  for (auto [leaves, iterations] : {std::pair{k1k, 60}, {k10k, 30}, {k100k, 8}})
    benchmark::RegisterBenchmark(name, function)
        ->Arg(leaves)
        ->Iterations(iterations)
        ->UseRealTime()
        ->Unit(benchmark::kMicrosecond);
}

int const registered = [] {
  Register("change/SetValue/lib", SetValueLib);
  Register("change/SetValue/floor", SetValueFloor);
  Register("change/store.Set/lib", StoreSet);
  Register("change/SetValue/floor_prepared_each_time", SetValueFloorPreparing);
  Register("change/SetSetting/lib", SetSettingLib);
  Register("change/SetSetting/floor", SetSettingFloor);
  Register("change/SetAttribute/lib", SetAttributeLib);
  Register("change/SetAttribute/floor", SetAttributeFloor);
  Register("change/CreateSetting/lib", CreateSettingLib);
  Register("change/CreateSetting/floor", CreateSettingFloor);
  Register("change/DeleteSetting/lib", DeleteSettingLib);
  Register("change/DeleteSetting/floor", DeleteSettingFloor);
  benchmark::RegisterBenchmark("floor/fsync", FloorFsync)
      ->Iterations(200)
      ->UseRealTime()
      ->Unit(benchmark::kMicrosecond);
  benchmark::RegisterBenchmark("floor/prepare4", FloorPrepare4)->Unit(benchmark::kMicrosecond);
  benchmark::RegisterBenchmark("change/SetValue/lib_without_database", SetValueWithoutDatabase)
      ->Arg(k10k)
      ->Unit(benchmark::kMicrosecond);
  benchmark::RegisterBenchmark("change/nosync/floor", NoSyncFloor)
      ->Arg(k1k)
      ->Unit(benchmark::kMicrosecond);
  benchmark::RegisterBenchmark("change/nosync/floor_prepared_each_time", NoSyncFloorPreparing)
      ->Arg(k1k)
      ->Unit(benchmark::kMicrosecond);
  return 0;
}();

}  // namespace
}  // namespace bench
