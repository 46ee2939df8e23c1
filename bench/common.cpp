#include "common.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <utility>

#include "raw_conversion.h"
#include "settings_db.h"
#include "settings_db_statements.h"
#include "sqlite_like.h"
#include "support/temp_dir.h"

namespace bench {

namespace stmt = settings_db::statements;
using sm::impl::Bytes;

void Require(bool ok, std::string const& what) {
  if (!ok) throw std::runtime_error(what);
}

namespace {

std::size_t PerGroup(std::size_t leaves) { return std::max<std::size_t>(leaves / 100, 1); }

std::string Key(char letter, std::size_t number) { return letter + std::to_string(number); }

// What the results table names besides the machine: the SQLite and compiler in use.
int const context = [] {
  benchmark::AddCustomContext("sqlite", sqlite3_libversion());
#if defined(__clang__)
  benchmark::AddCustomContext("compiler", "clang " __clang_version__);
#else
  benchmark::AddCustomContext("compiler", "GCC " __VERSION__);
#endif
  return 0;
}();

}  // namespace

std::filesystem::path const& Folder() {
  // Made on first use, so that it is destroyed after every fixture that used it.
  static test_support::TempDir const folder;
  return folder.Path();
}

std::string NewFile(std::string const& stem) {
  // A folder of its own: a manager's watcher of the folder then hears only its own file.
  static unsigned counter = 0;
  auto const folder = Folder() / std::to_string(++counter);
  std::filesystem::create_directory(folder);
  return (folder / (stem + ".db")).string();
}

std::size_t NodeCount(std::size_t leaves) { return 1 + 10 + 100 + 100 * PerGroup(leaves); }

sm::Setting MakeTree(std::size_t leaves) {
  using Map = std::map<std::string, sm::Setting, std::less<>>;
  Map root;
  for (std::size_t a = 0; a < 10; ++a) {
    Map groupA;
    for (std::size_t b = 0; b < 10; ++b) {
      Map groupB;
      for (std::size_t c = 0; c < PerGroup(leaves); ++c)
        groupB.emplace(Key('c', c), sm::Setting(static_cast<std::int32_t>(c)));
      groupA.emplace(Key('b', b), sm::Setting(std::move(groupB)));
    }
    root.emplace(Key('a', a), sm::Setting(std::move(groupA)));
  }
  return sm::Setting(std::move(root));
}

uvc::Path GroupPath() { return Parse("a3/b7"); }

uvc::Path LeafPath(std::size_t leaves, std::size_t offset) {
  auto path = GroupPath();
  path.emplace_back(Key('c', PerGroup(leaves) / 2 + offset));
  return path;
}

uvc::Path Parse(std::string_view text) {
  auto [path, state] = uvc::FromString(text, sm::meta::GetIdSpecification());
  Require(state == uvc::IdState::Ok, "bad path text");
  return path;
}

std::string PathText(uvc::Path const& path) {
  auto [text, state] = uvc::ToString(path, sm::meta::GetIdSpecification());
  Require(state == uvc::IdState::Ok, "bad path");
  return text;
}

Rows Records(uvc::Path const& path, sm::Setting const& setting) {
  Rows rows;
  auto const result = sm::Serialize(path, setting, rows);
  Require(result.first >= 0, "Serialize: " + result.second);
  return rows;
}

std::string const& TemplateFile(std::size_t leaves) {
  static std::map<std::size_t, std::string> files;
  auto found = files.find(leaves);
  if (found != files.end()) return found->second;
  auto file = NewFile("template-" + std::to_string(leaves));
  {
    // Closing the last connection checkpoints the WAL into the file, so the file alone
    // can be copied.
    settings_db::SettingsDB db(file);
    db.Set(Records(uvc::Root(), MakeTree(leaves)));
  }
  return files.emplace(leaves, std::move(file)).first->second;
}

std::string CopyOfTemplate(std::size_t leaves, std::string const& stem) {
  auto file = NewFile(stem + "-" + std::to_string(leaves));
  std::filesystem::copy_file(TemplateFile(leaves), file);
  return file;
}

std::shared_ptr<sm::ISettingsManager> OpenManager(std::string const& file) {
  std::shared_ptr<sm::ISettingsManager> manager;
  int const rc = sm::CreateSettingsManager({file}, manager);
  Require(rc == 0, "CreateSettingsManager failed: " + std::to_string(rc));
  return manager;
}

RawStatement::RawStatement(sqlite3* db, std::string_view sql) : db_(db) {
  int const rc =
      sqlite3_prepare_v2(db, sql.data(), static_cast<int>(sql.size()), &statement_, nullptr);
  Require(rc == SQLITE_OK && statement_ != nullptr,
          "prepare '" + std::string(sql) + "': " + sqlite3_errmsg(db));
}

RawStatement::~RawStatement() { sqlite3_finalize(statement_); }

RawStatement::RawStatement(RawStatement&& other) noexcept
    : db_(other.db_), statement_(std::exchange(other.statement_, nullptr)) {}

void RawStatement::BindText(int position, std::string const& text) {
  Require(sqlite3_bind_text64(statement_, position, text.data(), text.size(), SQLITE_STATIC,
                              SQLITE_UTF8) == SQLITE_OK,
          "bind text");
}

void RawStatement::BindBlob(int position, std::vector<std::uint8_t> const& blob) {
  int const rc = blob.empty() ? sqlite3_bind_zeroblob(statement_, position, 0)
                              : sqlite3_bind_blob64(statement_, position, blob.data(), blob.size(),
                                                    SQLITE_STATIC);
  Require(rc == SQLITE_OK, "bind blob");
}

int RawStatement::Step() {
  int const rc = sqlite3_step(statement_);
  Require(rc == SQLITE_ROW || rc == SQLITE_DONE, std::string("step: ") + sqlite3_errmsg(db_));
  return rc;
}

void RawStatement::Reset() { sqlite3_reset(statement_); }

RawDatabase::RawDatabase(std::string const& path, Like like) {
  int const rc =
      sqlite3_open_v2(path.c_str(), &db_,
                      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
  if (rc != SQLITE_OK) {
    sqlite3_close_v2(db_);
    throw std::runtime_error("open " + path);
  }
  sqlite3_extended_result_codes(db_, 1);
  sqlite3_busy_timeout(db_, 5000);
  Exec("PRAGMA synchronous=FULL");
  // The wrapper's bound on the log: checkpoints as often, the same cut-back size.
  Exec(("PRAGMA wal_autocheckpoint=" + std::to_string(db_wrappers::sqlite::kCheckpointPages))
           .c_str());
  Exec(
      ("PRAGMA journal_size_limit=" + std::to_string(db_wrappers::sqlite::kLogLimitBytes)).c_str());
  int chunk = db_wrappers::sqlite::kFileChunkBytes;
  sqlite3_file_control(db_, "main", SQLITE_FCNTL_CHUNK_SIZE, &chunk);
  if (like == Like::kOurs)
    Require(db_wrappers::sqlite::like::Register(db_) == SQLITE_OK, "register LIKE");
}

RawDatabase::~RawDatabase() { sqlite3_close_v2(db_); }

void RawDatabase::Exec(char const* sql) {
  Require(sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) == SQLITE_OK,
          std::string(sql) + ": " + sqlite3_errmsg(db_));
}

FloorNode MakeFloorTree(std::size_t leaves) {
  FloorNode root{FloorNode::Map{}};
  auto& rootMap = std::get<FloorNode::Map>(root.value);
  for (std::size_t a = 0; a < 10; ++a) {
    auto& groupA = std::get<FloorNode::Map>(
        rootMap.emplace(Key('a', a), FloorNode{FloorNode::Map{}}).first->second.value);
    for (std::size_t b = 0; b < 10; ++b) {
      auto& groupB = std::get<FloorNode::Map>(
          groupA.emplace(Key('b', b), FloorNode{FloorNode::Map{}}).first->second.value);
      for (std::size_t c = 0; c < PerGroup(leaves); ++c)
        groupB.emplace(Key('c', c), FloorNode{static_cast<std::int32_t>(c)});
    }
  }
  return root;
}

FloorNode const* FloorFind(FloorNode const& root, uvc::Path const& path) noexcept {
  FloorNode const* node = &root;
  for (auto const& id : path) {
    auto const* key = std::get_if<std::string>(&id);
    auto const* map = std::get_if<FloorNode::Map>(&node->value);
    if (key == nullptr || map == nullptr) return nullptr;
    auto it = map->find(*key);
    if (it == map->end()) return nullptr;
    node = &it->second;
  }
  return node;
}

namespace {

std::uint64_t Word(unsigned char const* bytes) {
  std::uint64_t word = 0;
  for (int i = 7; i >= 0; --i) word = word << 8 | bytes[i];
  return word;
}

}  // namespace

FloorNode FloorLoad(std::string const& file) {
  RawDatabase db(file);
  auto select = db.Prepare(stmt::kSelectAll);
  FloorNode root;
  std::vector<FloorNode*> parents;  // the last node placed at each depth
  while (select.Step() == SQLITE_ROW) {
    auto* st = select.Get();
    auto const* text = reinterpret_cast<char const*>(sqlite3_column_text(st, 0));
    std::string_view const path(text, static_cast<std::size_t>(sqlite3_column_bytes(st, 0)));
    auto const* value = static_cast<unsigned char const*>(sqlite3_column_blob(st, 1));
    Require(value != nullptr && sqlite3_column_bytes(st, 1) >= 16, "short value record");
    FloorNode node;
    switch (Word(value)) {
      case uvc::index::kMap:
        node.value.emplace<FloorNode::Map>();
        break;
      case uvc::index::kInt32:
        node.value = static_cast<std::int32_t>(Word(value + 8));
        break;
      default:
        break;
    }
    if (path.empty()) {
      root = std::move(node);
      parents.assign(1, &root);
      continue;
    }
    // "a/b/c/": depth 3, key "c".
    auto const depth = static_cast<std::size_t>(std::count(path.begin(), path.end(), '/'));
    auto const start = path.find_last_of('/', path.size() - 2);
    auto const key = path.substr(start == std::string_view::npos ? 0 : start + 1);
    Require(depth >= 1 && depth <= parents.size(), "row out of order");
    auto* map = std::get_if<FloorNode::Map>(&parents[depth - 1]->value);
    Require(map != nullptr, "parent is no map");
    auto* placed =
        &map->emplace(std::string(key.substr(0, key.size() - 1)), std::move(node)).first->second;
    parents.resize(depth);
    parents.push_back(placed);
  }
  return root;
}

void ReportLatencies(benchmark::State& state, std::vector<double> samples,
                     std::string const& prefix) {
  if (samples.empty()) return;
  std::sort(samples.begin(), samples.end());
  auto const n = samples.size();
  auto const p99 =
      std::min(n - 1, static_cast<std::size_t>(std::ceil(0.99 * static_cast<double>(n))) - 1);
  state.counters[prefix + "median_us"] = samples[n / 2];
  state.counters[prefix + "p99_us"] = samples[p99];
  state.counters[prefix + "max_us"] = samples.back();
}

}  // namespace bench
