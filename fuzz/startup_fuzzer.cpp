// A manager starting on a database file whose rows the input chooses: it starts, or
// refuses the file with a failure code; once started, it answers reads and changes of
// the paths it was given, and a second start on the changed file does not crash either.
//
// Input: [flags][version length][version][records as fuzz_input.h frames them ...]
//   flags bit 0: no table meta      bit 1: no table data
//   bit 2: the version text is taken from the input instead of "1"
//   bit 3: the value and attrib columns are bound as text, not as blobs
//   bit 4: WAL instead of a rollback journal

#include <sqlite3.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "fuzz_input.h"
#include "settings_manager/settings_manager.h"
#include "support/fault_vfs.h"
#include "tern/logger/tern_logger.h"

namespace {

namespace sm = settings_manager;

// One file of this process, rebuilt for every input.
std::string const& DbPath() {
  static std::string const path = std::string(getenv("TMPDIR") ? getenv("TMPDIR") : "/tmp") +
                                  "/sm-fuzz-" + std::to_string(getpid()) + ".db";
  return path;
}

bool Build(std::string const& path, fuzz::Input& input, std::vector<sm::impl::RawItem>& items) {
  auto const flags = input.Byte();
  std::string const version = input.Text(input.Byte() % 8);
  while (!input.Empty() && items.size() < 128) items.push_back(input.Record());
  sqlite3* db = nullptr;
  bool const opened = sqlite3_open(path.c_str(), &db) == SQLITE_OK;
  std::string sql = (flags & 16) ? "PRAGMA journal_mode=WAL;" : "";
  sql += "PRAGMA synchronous=OFF; BEGIN;";
  if (!(flags & 2))
    sql +=
        "CREATE TABLE data (path TEXT NOT NULL UNIQUE, value BLOB NOT NULL, attrib BLOB NOT NULL);";
  if (!(flags & 1)) sql += "CREATE TABLE meta (key TEXT NOT NULL UNIQUE, value TEXT NOT NULL);";
  sqlite3_stmt* meta = nullptr;
  sqlite3_stmt* row = nullptr;
  if (opened && sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) >= 0 &&
      sqlite3_prepare_v2(db, "INSERT INTO meta VALUES ('ver', ?)", -1, &meta, nullptr) ==
          SQLITE_OK) {
    std::string const text = (flags & 4) ? version : std::string("1");
    sqlite3_bind_text(meta, 1, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
    sqlite3_step(meta);
  }
  if (opened && sqlite3_prepare_v2(db, "INSERT OR IGNORE INTO data VALUES (?, ?, ?)", -1, &row,
                                   nullptr) == SQLITE_OK) {
    for (auto const& item : items) {
      sqlite3_bind_text(row, 1, item.path.data(), static_cast<int>(item.path.size()),
                        SQLITE_TRANSIENT);
      int column = 2;
      for (auto const* bytes : {&item.value, &item.attrib}) {
        auto const size = static_cast<int>(bytes->size());
        (flags & 8) ? sqlite3_bind_text(row, column++, reinterpret_cast<char const*>(bytes->data()),
                                        size, SQLITE_TRANSIENT)
                    : sqlite3_bind_blob(row, column++, bytes->data(), size, SQLITE_TRANSIENT);
      }
      sqlite3_step(row);
      sqlite3_reset(row);
    }
  }
  sqlite3_finalize(meta);
  sqlite3_finalize(row);
  sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
  sqlite3_close(db);
  return opened;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Failures are expected by the thousand; only a crash matters.
  tern::logger::TernLogger::RootLogger().SetThreshold(tern::logger::LogLevel::Fatal);
  tern::logger::TernLogger::RootLogger().SetSink([](tern::logger::LogRecord const&) {});
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  // Syncs are bookkeeping only: the target runs at memory speed.
  static test_support::FaultVfs vfs;
  vfs.SyncAll();
  auto const& path = DbPath();
  for (char const* suffix : {"", "-wal", "-shm", "-journal"}) unlink((path + suffix).c_str());
  fuzz::Input input(data, size);
  std::vector<sm::impl::RawItem> items;
  if (!Build(path, input, items)) return 0;

  std::shared_ptr<sm::ISettingsManager> manager;
  int const rc = sm::CreateSettingsManager({path}, manager);
  if (rc != 0) {
    if (rc > 0 || manager) __builtin_trap();  // refused with a failure code, nothing made
    return 0;
  }
  std::shared_ptr<sm::ISettingsGetter> getter;
  std::shared_ptr<sm::ISettingsSetter> setter;
  std::shared_ptr<sm::ISettingsCreator> creator;
  std::shared_ptr<sm::ISettingsDeleter> deleter;
  manager->GetSettingsGetter(getter);
  manager->GetSettingsSetter(setter);
  manager->GetSettingsCreator(creator);
  manager->GetSettingsDeleter(deleter);
  for (std::size_t n = 0; n < items.size() && n < 8; ++n) {
    auto [p, state] = uvc::FromString(items[n].path, sm::meta::GetIdSpecification());
    sm::Setting value;
    int const got = state == uvc::IdState::Ok ? getter->GetSetting(p, value) : 1;
    if (got > 0) {
      if (state == uvc::IdState::Ok) __builtin_trap();
      continue;
    }
    if (got == 0) {
      setter->SetSetting(p, sm::Setting(std::int32_t{5}));
      setter->SetAttribute(p, sm::Attributes{true});
    } else {
      creator->CreateSetting(p, sm::Setting(true));
    }
    if (n % 3 == 2) deleter->DeleteSetting(p);
  }
  getter.reset();
  setter.reset();
  creator.reset();
  deleter.reset();
  manager.reset();
  // A second start on the file the first one changed: refused or loaded, no crash.
  // (Rows the first manager never rewrote may still be refused.)
  sm::CreateSettingsManager({path}, manager);
  return 0;
}
