// Whole-tree access by file: one-shot reads, online backup and restore.

#include <fmt/format.h>

#include "failure.h"
#include "log.h"
#include "raw_conversion.h"
#include "settings_db.h"
#include "settings_manager.h"
#include "settings_manager/paths.h"
#include "settings_manager/tree_access.h"

namespace settings_manager {

using log::kManagerSource;
using log::LogLevel;

namespace {

using settings_db::SettingsDB;

// Logs the failure in flight at the failure level of client operations and keeps it as
// the thread's LastResult, with SQLite's reason; returns its code.
int Failed(char const* function, std::string const& subject) noexcept {
  auto const result = RecordFailure();
  SM_LOG_NOEXCEPT(LogLevel::Warning, kManagerSource, function, "{}({}): {}", function, subject,
                  result);
  return result.first;
}

std::string Key(uvc::Path const& path) {
  auto [text, state] = uvc::ToString(path, meta::GetIdSpecification());
  if (state != uvc::IdState::Ok)
    throw uvc::Error(fdn::rc::kInvalidArgument, fmt::format("Path to str fail: state = {}", state));
  return std::move(text);
}

// The subtree stored at `path` of an open store, rebuilt from its rows alone.
Setting ReadStored(SettingsDB const& db, uvc::Path const& path) {
  SettingsDB::Reader rows(db, Key(path));
  Setting node;
  if (rows.Empty()) {
    // A database without rows holds the empty root map.
    if (!path.empty())
      throw uvc::Error(fdn::rc::kNotFound, fmt::format("No setting at '{}'", path));
    node.emplace<uvc::index::kMap>();
    return node;
  }
  uvc::Path head;
  auto const result = Deserialize(rows, head, node);
  if (result.first < 0) throw uvc::Error(result.first, result.second);
  if (path.empty() && node.index() != uvc::index::kMap)
    throw uvc::Error(fdn::rc::kInvalidState, "Invalid value: the root must be a map");
  return node;
}

}  // namespace

int ReadSettingFromFile(std::string const& dbPath, uvc::Path const& path, Setting& out) {
  try {
    if (!path.empty()) SettingsManager::Check(path);
    SettingsDB const db(dbPath, SettingsDB::Access::kReadOnly);
    Setting node = ReadStored(db, path);
    std::swap(out, node);
    return fdn::rc::kOk;
  } catch (std::exception const&) {
    return Failed("ReadSettingFromFile", fmt::format("'{}', '{}'", dbPath, path));
  }
}

int BackupDatabase(std::string const& dbPath, std::string const& backupPath) {
  try {
    SettingsDB const db(dbPath, SettingsDB::Access::kReadOnly);
    db.Backup(backupPath);
    SM_LOG(LogLevel::Debug, kManagerSource, "BackupDatabase", "BackupDatabase('{}', '{}')", dbPath,
           backupPath);
    return fdn::rc::kOk;
  } catch (std::exception const&) {
    return Failed("BackupDatabase", fmt::format("'{}', '{}'", dbPath, backupPath));
  }
}

int RestoreDatabase(ISettingsManager& manager, std::string const& backupPath) {
  try {
    Setting restored;
    {
      // Checked whole before anything changes; the file is closed before the edit.
      SettingsDB const db(backupPath, SettingsDB::Access::kReadOnly);
      restored = ReadStored(db, uvc::Path());
    }
    return EditTree(manager, [&restored](Setting& tree) {
      std::swap(tree, restored);
      return fdn::rc::kOk;
    });
  } catch (std::exception const&) {
    return Failed("RestoreDatabase", fmt::format("'{}'", backupPath));
  }
}

}  // namespace settings_manager
