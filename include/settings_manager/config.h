#pragma once

/// \file
/// What a manager is made from: settings_manager::SettingsManagerConfig.

#include <string>

namespace settings_manager {

/// What a manager is made from.
struct SettingsManagerConfig {
  /// The settings database file, created when missing. Empty: no database; the manager
  /// keeps its tree in memory only.
  std::string dbPath;
};

}  // namespace settings_manager
