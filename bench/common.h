#pragma once

// What the benchmark programs share: the temporary folder of their database files, the
// settings tree they measure, database files holding it, the raw-SQLite side of the floors
// and a std::map tree to compare the in-memory tree with.
//
// Tree shape for N leaves: the root map holds a0..a9, each holds b0..b9, each holds
// N/100 int32 leaves c0, c1, ...; N + 111 nodes (rows) in all, every leaf at depth 3.

#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "raw_setting.h"
#include "settings_manager/settings_manager.h"

namespace bench {

namespace sm = settings_manager;
using Rows = std::vector<sm::impl::RawItem>;

// The tree sizes of the change and start-up figures.
constexpr std::int64_t k1k = 1000;
constexpr std::int64_t k10k = 10000;
constexpr std::int64_t k100k = 100000;
constexpr std::int64_t k1M = 1000000;

// Throws std::runtime_error(what) unless `ok`.
void Require(bool ok, std::string const& what);

// Runs `body`; an exception becomes the benchmark's error instead of ending the program.
template <typename Body>
void Guarded(benchmark::State& state, Body&& body) {
  try {
    body();
  } catch (std::exception const& e) {
    state.SkipWithError(e.what());
  }
}

// The folder of this process's database files: made under the system's temporary
// directory on first use, removed with everything in it at exit.
std::filesystem::path const& Folder();
// A path in a new folder of Folder(), which no other call returned.
std::string NewFile(std::string const& stem);

// Nodes of a tree of `leaves` leaves.
std::size_t NodeCount(std::size_t leaves);
sm::Setting MakeTree(std::size_t leaves);
// a3/b7/c<k>: the middle leaf of its group, plus `offset`.
uvc::Path LeafPath(std::size_t leaves, std::size_t offset = 0);
// a3/b7
uvc::Path GroupPath();
uvc::Path Parse(std::string_view text);
std::string PathText(uvc::Path const& path);

// A database file holding MakeTree(leaves), written by the library's own store; made once
// per size and process.
std::string const& TemplateFile(std::size_t leaves);
// A new copy of TemplateFile(leaves).
std::string CopyOfTemplate(std::size_t leaves, std::string const& stem);

// A manager on `file`; throws on failure.
std::shared_ptr<sm::ISettingsManager> OpenManager(std::string const& file);

// One prepared statement of the raw C API; finalized on destruction.
class RawStatement {
 public:
  RawStatement(sqlite3* db, std::string_view sql);
  ~RawStatement();
  RawStatement(RawStatement&& other) noexcept;
  RawStatement(RawStatement const&) = delete;
  RawStatement& operator=(RawStatement const&) = delete;
  RawStatement& operator=(RawStatement&&) = delete;

  // The bound bytes must outlive the next step (bound without a copy).
  void BindText(int position, std::string const& text);
  void BindBlob(int position, std::vector<std::uint8_t> const& blob);
  // SQLITE_ROW or SQLITE_DONE; throws on anything else.
  int Step();
  void Reset();
  sqlite3_stmt* Get() const noexcept { return statement_; }

 private:
  sqlite3* db_;
  sqlite3_stmt* statement_ = nullptr;
};

// A raw connection configured as the wrapper configures its own: read-write, no
// per-connection mutex, extended codes, a busy timeout, synchronous=FULL, the file's own
// journal mode (WAL for every file made here), the same checkpoint policy and, unless
// asked for the built-in one, our exact-bytes LIKE.
class RawDatabase {
 public:
  enum class Like { kOurs, kBuiltin };
  explicit RawDatabase(std::string const& path, Like like = Like::kOurs);
  ~RawDatabase();
  RawDatabase(RawDatabase const&) = delete;
  RawDatabase& operator=(RawDatabase const&) = delete;

  sqlite3* Get() const noexcept { return db_; }
  void Exec(char const* sql);
  RawStatement Prepare(std::string_view sql) { return RawStatement(db_, sql); }

 private:
  sqlite3* db_ = nullptr;
};

// The records of `setting` placed at `path`, as the library writes them.
Rows Records(uvc::Path const& path, sm::Setting const& setting);

// The floor's tree: plain std::map nodes holding what the measured trees hold.
struct FloorNode {
  using Map = std::map<std::string, FloorNode, std::less<>>;
  std::variant<std::monostate, Map, std::int32_t> value;
};
FloorNode MakeFloorTree(std::size_t leaves);
// The node at `path` (keys only), or null.
FloorNode const* FloorFind(FloorNode const& root, uvc::Path const& path) noexcept;
// Opens `file` as the library does, selects every row with the store's statement and
// builds the floor tree from the rows (parent found by depth, as rows come in path order).
FloorNode FloorLoad(std::string const& file);

// Latency samples in microseconds: the counters <prefix>median_us, <prefix>p99_us and
// <prefix>max_us.
void ReportLatencies(benchmark::State& state, std::vector<double> samples,
                     std::string const& prefix = std::string());

}  // namespace bench
