#pragma once

/// \file
/// Whole-tree access for tools: listing, reading and replacing the whole tree, online
/// backup and restore, and a one-shot read of a database file.
///
/// The role interfaces never address the root; these functions do. They keep the
/// conventions of the rest of the API: an int result code (0 success, 1 nothing to change,
/// a negative code for failure, texts from fdn::ResultCodeText), no exception leaves them,
/// a failure is logged like any other and leaves tree and file as they were. Any thread may
/// call them. The functions taking an ISettingsManager work on a manager made by
/// CreateSettingsManager; given any other implementation they return 0x80000001.

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "settings_manager/export.h"
#include "settings_manager/interfaces.h"
#include "settings_manager/setting.h"
#include "uvc/id.h"

namespace settings_manager {

/// One child of a map or list, as ListChildren gives it.
struct ChildInfo {
  uvc::Id id;             ///< its key in a map, or its index in a list
  std::size_t type = 0;   ///< the alternative its value holds (uvc::index::k...)
  Attributes attributes;  ///< its own attributes
};

/// Stores into `out` the children of the map or list at `path`, in key or index order;
/// the empty path lists the top-level settings. 0; 0x8000004A when the node holds no
/// children (a scalar), or the codes of ISettingsGetter::GetSetting, with `out` unchanged.
SETTINGS_MANAGER_API int ListChildren(ISettingsManager const& manager, uvc::Path const& path,
                                      std::vector<ChildInfo>& out);

/// Copies the whole tree, the root map with every node and its attributes, into `out`.
/// 0, or a failure code with `out` unchanged.
SETTINGS_MANAGER_API int GetTree(ISettingsManager const& manager, Setting& out);

/// An edit of the whole tree for EditTree: changes `tree` in place and returns 0 to store
/// the result, or any other code to leave everything as it was (EditTree returns it).
using TreeEdit = std::function<int(Setting& tree)>;

/// Calls `edit` once with a copy of the whole tree, holding the manager's write lock, so
/// that no other change of this manager comes between what the edit read and what it
/// stores. The edit must not call the manager (that would deadlock). When the edit
/// returns 0 and the tree differs, the edited tree replaces the stored one in one
/// transaction (all rows or none) and observers hear what changed, as the role
/// interfaces would report it: event::kCreated and event::kDeleted for map entries that
/// appear or go, and for a node that stays, event::kValue, event::kAttributes or both
/// (event::kSetting); maps, and lists that keep their length, are compared child by
/// child. Returns 0 stored; 1 the edited tree equals the
/// current one (nothing written, no event); the edit's own code when it refuses;
/// 0x8000006A when the edited root is not a map; 0x80000046 when a key breaks the id
/// rules; or a failure code of the database. An exception thrown by the edit is caught
/// and converted like any failure.
SETTINGS_MANAGER_API int EditTree(ISettingsManager& manager, TreeEdit const& edit);

/// Calls `changed` once for every change that EditTree would report when replacing
/// `before` by `after`: the path and its event kind (event::k...), below the root. 0, or
/// a failure code when `changed` throws.
SETTINGS_MANAGER_API int CompareTrees(
    Setting const& before, Setting const& after,
    std::function<void(uvc::Path const& path, unsigned char kind)> const& changed);

/// Replaces the whole tree by `tree` (a map): EditTree with an edit that assigns it.
SETTINGS_MANAGER_API int ReplaceTree(ISettingsManager& manager, Setting const& tree);

/// Copies the database file `dbPath` to `backupPath` while programs keep using it: one
/// consistent committed state, taken with SQLite's online backup API. The copy is
/// written beside `backupPath` and renamed over it when complete, so `backupPath` holds
/// either its previous content or the whole copy. `dbPath` must be an existing settings
/// database; it is never changed. 0, or a failure code.
SETTINGS_MANAGER_API int BackupDatabase(std::string const& dbPath, std::string const& backupPath);

/// Replaces the whole tree of `manager` by the content of the database file
/// `backupPath` (a copy made by BackupDatabase, or any settings database), atomically, as
/// ReplaceTree does. The file is only read, and checked first (schema, version,
/// rows that rebuild a root map); a file that fails the check changes nothing. 0
/// restored, 1 the content was already equal, or a failure code.
SETTINGS_MANAGER_API int RestoreDatabase(ISettingsManager& manager, std::string const& backupPath);

/// Reads the setting at `path` (the empty path: the whole tree) straight from the
/// database file `dbPath`, without making a manager or loading other settings: only the
/// rows of that subtree are read. The file is only read, never created or
/// changed. 0; 0x8000004C when nothing is stored at `path`; 0x80000046 an invalid path;
/// or a failure code of the file; `out` is unchanged on failure.
SETTINGS_MANAGER_API int ReadSettingFromFile(std::string const& dbPath, uvc::Path const& path,
                                             Setting& out);

}  // namespace settings_manager
