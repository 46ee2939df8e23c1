// A manager starting on a database file whose rows the input chooses: it starts, or
// refuses the file with a failure code; once started, it answers reads and changes of
// the paths it was given, and a second start on the changed file does not crash either.
//
// Input: [flags][version length][version][records as fuzz_input.h frames them ...]
//   flags bit 0: no table meta      bit 1: no table data
//   bit 2: the version text is taken from the input instead of "1"
//   bit 3: the value and attrib columns are stored as text, not as blobs
//   bit 4: WAL instead of a rollback journal

#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <set>
#include <stdexcept>
#include <string>

#include "fuzz_input.h"
#include "settings_manager/settings_manager.h"
#include "support/fault_vfs.h"
#include "support/roles.h"
#include "support/sqlite_file.h"
#include "tern/logger/tern_logger.h"

namespace {

namespace sm = settings_manager;

// The file the input describes, made afresh; false when it cannot be made.
bool Build(std::string const& path, fuzz::Input& input, std::vector<sm::impl::RawItem>& items) {
  for (char const* suffix : {"", "-wal", "-shm", "-journal"}) unlink((path + suffix).c_str());
  auto const flags = input.Byte();
  std::string const version = input.Text(input.Byte() % 8);
  while (!input.Empty() && items.size() < 128) items.push_back(input.Record());
  try {
    test_support::SqliteFile file(path);
    std::string const text = (flags & 4) ? version : "1";
    std::string sql = (flags & 16) ? "PRAGMA journal_mode=WAL;" : "";
    sql += "PRAGMA synchronous=OFF; BEGIN;";
    if (!(flags & 2))
      sql +=
          "CREATE TABLE data (path TEXT NOT NULL UNIQUE, value BLOB NOT NULL, attrib BLOB "
          "NOT NULL);";
    if (!(flags & 1))
      sql +=
          "CREATE TABLE meta (key TEXT NOT NULL UNIQUE, value TEXT NOT NULL); INSERT INTO meta "
          "VALUES ('ver', CAST(x'" +
          test_support::Hex({text.begin(), text.end()}) + "' AS TEXT));";
    file.Exec(sql);
    std::set<std::string> paths;
    for (auto const& item : items)
      if (!(flags & 2) && paths.insert(item.path).second)
        file.InsertRow({item.path, item.value, item.attrib});
    if (flags & 8)
      file.Exec("UPDATE data SET value = CAST(value AS TEXT), attrib = CAST(attrib AS TEXT)");
    file.Exec("COMMIT");
  } catch (std::runtime_error const&) {
    return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Failures are expected by the thousand; only a crash matters.
  tern::logger::TernLogger::RootLogger().SetThreshold(tern::logger::LogLevel::Fatal);
  tern::logger::TernLogger::RootLogger().SetSink([](tern::logger::LogRecord const&) {});
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  static test_support::FaultVfs vfs;  // syncs are bookkeeping only: memory speed
  vfs.SyncAll();
  // One file of this process, rebuilt for every input.
  static std::string const path = std::string(getenv("TMPDIR") ? getenv("TMPDIR") : "/tmp") +
                                  "/sm-fuzz-" + std::to_string(getpid()) + ".db";
  fuzz::Input input(data, size);
  std::vector<sm::impl::RawItem> items;
  if (!Build(path, input, items)) return 0;

  std::shared_ptr<sm::ISettingsManager> manager;
  int const rc = sm::CreateSettingsManager({path}, manager);
  if (rc != 0) {
    if (rc > 0 || manager) __builtin_trap();  // refused with a failure code, nothing made
    return 0;
  }
  {
    test_support::Roles roles;
    roles.From(*manager);
    for (std::size_t n = 0; n < items.size() && n < 8; ++n) {
      auto [p, state] = uvc::FromString(items[n].path, sm::meta::GetIdSpecification());
      if (state != uvc::IdState::Ok) continue;
      sm::Setting value;
      int const got = roles.getter->GetSetting(p, value);
      if (got > 0) __builtin_trap();
      if (got == 0) {
        roles.setter->SetSetting(p, sm::Setting(std::int32_t{5}));
        roles.setter->SetAttribute(p, sm::Attributes{true});
      } else {
        roles.creator->CreateSetting(p, sm::Setting(true));
      }
      if (n % 3 == 2) roles.deleter->DeleteSetting(p);
    }
  }
  manager.reset();
  // A second start on the file the first one changed: refused or loaded, no crash.
  // (Rows the first manager never rewrote may still be refused.)
  sm::CreateSettingsManager({path}, manager);
  return 0;
}
