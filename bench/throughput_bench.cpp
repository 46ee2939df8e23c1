// Durable changes per second at 10k leaves, on one and on two writer threads, beside two
// embedded key-value stores making writes of the same bytes durable, in the same run
// (items_per_second: all threads together):
//
//   throughput/SetValue/lib      SetValue of a leaf of each thread's own, one manager
//   throughput/put/lmdb          mdb_put of the leaf's key and records, a write transaction
//                                each, synced at commit (LMDB's default)
//   throughput/put/leveldb       DB::Put of the same with WriteOptions::sync
//
// Each store starts holding the same 10k keys (with a '/' before each path text: LMDB
// takes no empty key, and the root's text is empty).

#include <leveldb/db.h>
#include <lmdb.h>

#include <memory>

#include "common.h"
#include "support/temp_dir.h"

namespace bench {
namespace {

using benchmark::State;

constexpr int kThreads = 2;

// Per thread: its leaf, and the bytes a change of it writes (key: the path text; value:
// the value and attribute records).
struct Leaf {
  explicit Leaf(int thread) : path(LeafPath(k10k, static_cast<std::size_t>(thread))) {
    key = "/" + PathText(path);
  }
  uvc::Path path;
  std::string key;
};

std::string Bytes(std::int32_t value) {
  auto const rows = Records(uvc::Path{"x"}, sm::Setting(value));
  auto const& row = rows.front();
  std::string bytes(row.value.begin(), row.value.end());
  bytes.append(row.attrib.begin(), row.attrib.end());
  return bytes;
}

struct LibraryFixture {
  LibraryFixture() : manager(OpenManager(CopyOfTemplate(k10k, "throughput"))) {
    Require(manager->GetSettingsValueSetter(setter) == 0, "value setter");
  }
  std::shared_ptr<sm::ISettingsManager> manager;
  std::shared_ptr<sm::ISettingsValueSetter> setter;
};

void SetValueLib(State& state) {
  Guarded(state, [&] {
    static LibraryFixture f;
    Leaf const leaf(state.thread_index());
    std::int32_t next = 1000000 * (state.thread_index() + 1);
    for (auto _ : state)
      Require(f.setter->SetValue(leaf.path, sm::Setting::Value(++next)) == 0, "SetValue");
    state.SetItemsProcessed(state.iterations());
  });
}

void Check(int rc, char const* what) {
  Require(rc == MDB_SUCCESS, std::string(what) + ": " + mdb_strerror(rc));
}

// Every key of the 10k tree, as the store's rows hold them.
std::vector<std::string> Keys() {
  std::vector<std::string> keys;
  for (auto const& row : Records(uvc::Root(), MakeTree(k10k))) keys.push_back("/" + row.path);
  return keys;
}

struct LmdbFixture {
  LmdbFixture() {
    Check(mdb_env_create(&env), "mdb_env_create");
    Check(mdb_env_set_mapsize(env, std::size_t{256} << 20), "mdb_env_set_mapsize");
    Check(mdb_env_open(env, folder.Path().c_str(), 0, 0600), "mdb_env_open");
    MDB_txn* txn = nullptr;
    Check(mdb_txn_begin(env, nullptr, 0, &txn), "mdb_txn_begin");
    Check(mdb_dbi_open(txn, nullptr, 0, &dbi), "mdb_dbi_open");
    auto const value = Bytes(0);
    for (auto const& key : Keys()) Put(txn, key, value);
    Check(mdb_txn_commit(txn), "mdb_txn_commit");
  }
  ~LmdbFixture() { mdb_env_close(env); }
  void Put(MDB_txn* txn, std::string const& key, std::string const& value) {
    MDB_val k{key.size(), const_cast<char*>(key.data())};
    MDB_val v{value.size(), const_cast<char*>(value.data())};
    Check(mdb_put(txn, dbi, &k, &v, 0), "mdb_put");
  }

  test_support::TempDir folder;
  MDB_env* env = nullptr;
  MDB_dbi dbi = 0;
};

void PutLmdb(State& state) {
  Guarded(state, [&] {
    static LmdbFixture f;
    Leaf const leaf(state.thread_index());
    std::int32_t next = 1000000 * (state.thread_index() + 1);
    for (auto _ : state) {
      MDB_txn* txn = nullptr;
      Check(mdb_txn_begin(f.env, nullptr, 0, &txn), "mdb_txn_begin");
      f.Put(txn, leaf.key, Bytes(++next));
      Check(mdb_txn_commit(txn), "mdb_txn_commit");
    }
    state.SetItemsProcessed(state.iterations());
  });
}

struct LevelDbFixture {
  LevelDbFixture() {
    leveldb::Options options;
    options.create_if_missing = true;
    leveldb::DB* opened = nullptr;
    auto const status = leveldb::DB::Open(options, folder.File("db"), &opened);
    Require(status.ok(), "leveldb open: " + status.ToString());
    db.reset(opened);
    auto const value = Bytes(0);
    for (auto const& key : Keys()) Require(db->Put({}, key, value).ok(), "leveldb put");
  }
  test_support::TempDir folder;
  std::unique_ptr<leveldb::DB> db;
};

void PutLevelDb(State& state) {
  Guarded(state, [&] {
    static LevelDbFixture f;
    Leaf const leaf(state.thread_index());
    std::int32_t next = 1000000 * (state.thread_index() + 1);
    leveldb::WriteOptions durable;
    durable.sync = true;
    for (auto _ : state) {
      auto const status = f.db->Put(durable, leaf.key, Bytes(++next));
      Require(status.ok(), "leveldb put: " + status.ToString());
    }
    state.SetItemsProcessed(state.iterations());
  });
}

void Register(char const* name, void (*function)(State&)) {
  benchmark::RegisterBenchmark(name, function)
      ->Threads(1)
      ->Threads(kThreads)
      ->Iterations(150)
      ->UseRealTime()
      ->Unit(benchmark::kMicrosecond);
}

int const registered = [] {
  Register("throughput/SetValue/lib", SetValueLib);
  Register("throughput/put/lmdb", PutLmdb);
  Register("throughput/put/leveldb", PutLevelDb);
  return 0;
}();

}  // namespace
}  // namespace bench
