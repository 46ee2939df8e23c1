// The per-row cost of the store's prefix condition, `path LIKE $path || '%'`, which scans
// every row (the right side is an expression, so the path index is never used). Each
// figure counts the rows of the template file that match one leaf's prefix:
//
//   like/scan/N          floor: the same scan comparing `+path = $path` (no index, memcmp)
//   like/builtin/N       SQLite's built-in LIKE (wrong for our keys: folds ASCII case,
//                        decodes UTF-8, stops at NUL; measured for comparison only)
//   like/ours/N          the wrapper's exact-bytes LIKE, as registered on every connection
//                        (the pattern analysed once per statement)
//
// The per-row figure is real_time / nodes.

#include <cstring>
#include <memory>
#include <string>

#include "common.h"
#include "sqlite_like.h"

namespace bench {
namespace {

namespace like = db_wrappers::sqlite::like;
using benchmark::State;

enum class Variant { kScan, kBuiltin, kOurs };

void Count(State& state, Variant variant) {
  Guarded(state, [&] {
    auto const leaves = static_cast<std::size_t>(state.range(0));
    RawDatabase db(TemplateFile(leaves), variant == Variant::kBuiltin ? RawDatabase::Like::kBuiltin
                                                                      : RawDatabase::Like::kOurs);
    auto query = db.Prepare(variant == Variant::kScan
                                ? "SELECT count(*) FROM data WHERE +path = $path;"
                                : "SELECT count(*) FROM data WHERE path LIKE $path || '%';");
    auto const prefix = PathText(LeafPath(leaves));
    query.BindText(1, prefix);
    for (auto _ : state) {
      Require(query.Step() == SQLITE_ROW, "no count");
      int const matched = sqlite3_column_int(query.Get(), 0);
      query.Reset();
      if (matched != 1) throw std::runtime_error("matched " + std::to_string(matched) + " rows");
    }
    state.counters["nodes"] = static_cast<double>(NodeCount(leaves));
  });
}

void Scan(State& state) { Count(state, Variant::kScan); }
void Builtin(State& state) { Count(state, Variant::kBuiltin); }
void Ours(State& state) { Count(state, Variant::kOurs); }

void Register(char const* name, void (*function)(State&)) {
  for (auto leaves : {k10k, k100k})
    benchmark::RegisterBenchmark(name, function)
        ->Arg(leaves)
        ->MinTime(0.2)
        ->UseRealTime()
        ->Unit(benchmark::kMicrosecond);
}

int const registered = [] {
  Register("like/scan", Scan);
  Register("like/builtin", Builtin);
  Register("like/ours", Ours);
  return 0;
}();

}  // namespace
}  // namespace bench
