// Durable changes: each operation of the library against two floors measured on identical
// copies of the file with the same connection settings, and against one fsync:
//
//   change/<Operation>/lib/N     the manager's operation on a tree of N leaves
//   change/<Operation>/floor/N   the same statements as the library runs, prepared once, with
//                                the raw C API: BEGIN IMMEDIATE, the index-range DELETE and
//                                the INSERTs (SetAttribute: the UPDATE), the change-log
//                                row (pruned as the library prunes it), COMMIT
//   change/<Operation>/range/N   the data rows alone, through the index range: the same
//                                transaction without the change log (SetAttribute: the
//                                UPDATE, DeleteSetting: the DELETE, each on its own)
//   floor/fsync                  one small write made durable, in the same folder
//
// CreateSetting adds a leaf to a small map deep in the tree (a3/b7/s, four leaves), and
// DeleteSetting removes it again, the other half of each pair untimed.
//
// The library's own work, free of the disk:
//   change/SetValue/lib_without_database/10000   SetValue on a manager without a database

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

// The small map that CreateSetting adds to, and the leaf it adds.
uvc::Path SmallMap() { return Parse("a3/b7/s"); }
sm::Setting SmallMapValue() {
  std::map<std::string, sm::Setting, std::less<>> leaves;
  for (int i = 0; i < 4; ++i) leaves.emplace("x" + std::to_string(i), sm::Setting(i));
  return sm::Setting(std::move(leaves));
}

// A copy of the template with the small map in it.
std::string CopyWithSmallMap(std::size_t leaves, std::string const& stem) {
  auto file = CopyOfTemplate(leaves, stem);
  settings_db::SettingsDB(file).Set(Records(SmallMap(), SmallMapValue()));
  return file;
}

// The raw side of a change: the statements the library runs, prepared once. With the
// change log, each change records its subtree as the library records it.
class RawSide {
 public:
  RawSide(std::string const& file, bool logged)
      : db_(file),
        logged_(logged),
        begin_(db_.Prepare("BEGIN IMMEDIATE")),
        commit_(db_.Prepare("COMMIT")),
        remove_(db_.Prepare(stmt::kDeleteSubtree)),
        insert_(db_.Prepare(stmt::kInsertRow)),
        update_(db_.Prepare(stmt::kUpdateAttrib)),
        log_((db_.Exec(std::string(stmt::kCreateChangeLog).c_str()),
              db_.Prepare(stmt::kInsertChange))),
        prune_(db_.Prepare(stmt::kPruneChanges)) {}

  // Replaces the subtree of the first row by the rows.
  void Replace(Rows const& rows) {
    Change(true, [&] {
      Remove(rows.front().path);
      for (auto const& row : rows) Insert(row);
      return rows.front().path;
    });
  }
  void Update(std::string const& path, sm::impl::Bytes const& attrib) {
    Change(false, [&] {
      update_.BindBlob(1, attrib);
      update_.BindText(2, path);
      Run(update_);
      Require(sqlite3_changes(db_.Get()) == 1, "UPDATE changed no row");
      return path;
    });
  }
  void Delete(std::string const& path) {
    Change(false, [&] {
      Remove(path);
      Require(sqlite3_changes(db_.Get()) == 1, "DELETE removed no row");
      return path;
    });
  }
  // The untimed halves of the create/delete pairs, in autocommit.
  void Insert(sm::impl::RawItem const& row) {
    insert_.BindText(1, row.path);
    insert_.BindBlob(2, row.value);
    insert_.BindBlob(3, row.attrib);
    Run(insert_);
  }
  void Remove(std::string const& path) {
    end_ = stmt::SubtreeEnd(path);
    remove_.BindText(1, path);
    remove_.BindText(2, end_);
    Run(remove_);
  }

 private:
  static void Run(RawStatement& statement) {
    statement.Step();
    statement.Reset();
  }
  // One change: with the change log always a transaction; without, a single statement
  // commits on its own.
  template <typename Body>
  void Change(bool severalStatements, Body&& body) {
    bool const transaction = logged_ || severalStatements;
    if (transaction) Run(begin_);
    try {
      auto const path = body();
      if (logged_) {
        log_.BindText(2, path);
        sqlite3_bind_int64(log_.Get(), 1, static_cast<sqlite3_int64>(++generation_));
        Run(log_);
        if (generation_ % 256 == 0 && generation_ > 1024) {
          sqlite3_bind_int64(prune_.Get(), 1, static_cast<sqlite3_int64>(generation_ - 1024));
          Run(prune_);
        }
      }
      if (transaction) Run(commit_);
    } catch (...) {
      if (transaction) db_.Exec("ROLLBACK");
      throw;
    }
  }

  RawDatabase db_;
  bool logged_;
  std::uint64_t generation_ = 0;
  std::string end_;
  RawStatement begin_, commit_, remove_, insert_, update_, log_, prune_;
};

// Everything one tree size needs, kept for the whole run: the manager on one copy, each
// floor on a copy of its own.
struct ChangeFixture {
  explicit ChangeFixture(std::size_t leaves)
      : manager(OpenManager(CopyWithSmallMap(leaves, "lib"))),
        floor(CopyWithSmallMap(leaves, "floor"), true),
        range(CopyWithSmallMap(leaves, "range"), false),
        valueLeaf(LeafPath(leaves, 0)),
        settingLeaf(LeafPath(leaves, 1)),
        attribLeaf(LeafPath(leaves, 2)),
        attribText(PathText(attribLeaf)),
        created(SmallMap()) {
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
    // CreateSetting rewrites the deepest existing node's subtree: the small map with its
    // new leaf.
    auto map = SmallMapValue();
    std::get<uvc::index::kMap>(map).emplace("n", newLeaf);
    createRows = Records(SmallMap(), map);
    createdRow = Records(created, newLeaf);
  }

  std::shared_ptr<sm::ISettingsManager> manager;
  std::shared_ptr<sm::ISettingsValueSetter> valueSetter;
  std::shared_ptr<sm::ISettingsSetter> setter;
  std::shared_ptr<sm::ISettingsCreator> creator;
  std::shared_ptr<sm::ISettingsDeleter> deleter;
  RawSide floor, range;

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

  // Which of the two alternating values comes next, per operation (every call changes).
  std::size_t next[5] = {0, 0, 1, 0, 0};
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

enum Side { kLib, kFloor, kRange };

RawSide& Raw(ChangeFixture& f, Side side) { return side == kFloor ? f.floor : f.range; }

// The alternating index of an operation on one side.
std::size_t Next(ChangeFixture& f, int operation, Side side) {
  auto& next = f.next[operation];
  auto const at = (next >> side) & 1;
  next ^= std::size_t{1} << side;
  return at;
}

void SetValue(State& state, Side side) {
  auto& f = Fixture(state.range(0));
  for (auto _ : state) {
    auto const i = Next(f, 0, side);
    if (side == kLib)
      Expect(f.valueSetter->SetValue(f.valueLeaf, f.values[i]), "SetValue");
    else
      Raw(f, side).Replace(f.valueRows[i]);
  }
}

void SetSetting(State& state, Side side) {
  auto& f = Fixture(state.range(0));
  for (auto _ : state) {
    auto const i = Next(f, 1, side);
    if (side == kLib)
      Expect(f.setter->SetSetting(f.settingLeaf, f.settings[i]), "SetSetting");
    else
      Raw(f, side).Replace(f.settingRows[i]);
  }
}

void SetAttribute(State& state, Side side) {
  auto& f = Fixture(state.range(0));
  for (auto _ : state) {
    auto const i = Next(f, 2, side);
    if (side == kLib)
      Expect(f.setter->SetAttribute(f.attribLeaf, f.attribs[i]), "SetAttribute");
    else
      Raw(f, side).Update(f.attribText, f.attribRecords[i]);
  }
}

// Each iteration creates a3/b7/s/n and, with the clock stopped, deletes it again.
void CreateSetting(State& state, Side side) {
  auto& f = Fixture(state.range(0));
  for (auto _ : state) {
    if (side == kLib) {
      Expect(f.creator->CreateSetting(f.created, f.newLeaf), "CreateSetting");
      state.PauseTiming();
      Expect(f.deleter->DeleteSetting(f.created), "DeleteSetting");
    } else {
      Raw(f, side).Replace(f.createRows);
      state.PauseTiming();
      Raw(f, side).Remove(f.createdText);
    }
    state.ResumeTiming();
  }
}

// Each iteration creates a3/b7/s/n with the clock stopped, then deletes it.
void DeleteSetting(State& state, Side side) {
  auto& f = Fixture(state.range(0));
  for (auto _ : state) {
    state.PauseTiming();
    if (side == kLib)
      Expect(f.creator->CreateSetting(f.created, f.newLeaf), "CreateSetting");
    else
      Raw(f, side).Insert(f.createdRow.front());
    state.ResumeTiming();
    if (side == kLib)
      Expect(f.deleter->DeleteSetting(f.created), "DeleteSetting");
    else
      Raw(f, side).Delete(f.createdText);
  }
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

// A manager without a database holding the same tree.
void SetValueWithoutDatabase(State& state) {
  Guarded(state, [&] {
    static auto const manager = [] {
      auto made = OpenManager(std::string());
      std::shared_ptr<sm::ISettingsCreator> creator;
      Require(made->GetSettingsCreator(creator) == 0, "creator");
      auto tree = MakeTree(k10k);
      for (auto& [key, node] : std::get<uvc::index::kMap>(tree))
        Require(creator->CreateSetting(uvc::Path{key}, node) == 0, "CreateSetting");
      return made;
    }();
    std::shared_ptr<sm::ISettingsValueSetter> setter;
    Require(manager->GetSettingsValueSetter(setter) == 0, "value setter");
    auto const leaf = LeafPath(k10k);
    static std::int32_t next = 1000000;  // every call changes, across runs too
    for (auto _ : state) Expect(setter->SetValue(leaf, sm::Setting::Value(++next)), "SetValue");
  });
}

using Operation = void (*)(State&, Side);

void Register(std::string const& name, Operation operation) {
  for (auto [side, label] : {std::pair{kLib, "lib"}, {kFloor, "floor"}, {kRange, "range"}}) {
    for (auto leaves : {k1k, k10k, k100k, k1M}) {
      benchmark::RegisterBenchmark(("change/" + name + "/" + label).c_str(),
                                   [operation, side = side](State& state) {
                                     Guarded(state, [&] {
                                       operation(state, side);
                                       state.counters["nodes"] = static_cast<double>(
                                           NodeCount(static_cast<std::size_t>(state.range(0))));
                                     });
                                   })
          ->Arg(leaves)
          ->Iterations(40)
          ->UseRealTime()
          ->Unit(benchmark::kMicrosecond);
    }
  }
}

int const registered = [] {
  // Few iterations per repetition and many repetitions (command line), randomly
  // interleaved: library and floors then see the same spells of disk contention.
  Register("SetValue", SetValue);
  Register("SetSetting", SetSetting);
  Register("SetAttribute", SetAttribute);
  Register("CreateSetting", CreateSetting);
  Register("DeleteSetting", DeleteSetting);
  benchmark::RegisterBenchmark("floor/fsync", FloorFsync)
      ->Iterations(100)
      ->UseRealTime()
      ->Unit(benchmark::kMicrosecond);
  benchmark::RegisterBenchmark("change/SetValue/lib_without_database", SetValueWithoutDatabase)
      ->Arg(k10k)
      ->Unit(benchmark::kMicrosecond);
  return 0;
}();

}  // namespace
}  // namespace bench
