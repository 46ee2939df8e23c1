#pragma once

/// \file
/// The full reason of a failure.

#include "settings_manager/export.h"
#include "uvc/error.h"

namespace settings_manager {

/// The code and full text of the last failure that the library reported on the calling
/// thread: a failed CreateSettingsManager, or an operation that failed with a log record
/// (the level-3 "{id} {Operation}({path}): {result}" and level-5 records print only the
/// code's text). The text is the failure's own message, followed, when a database call
/// failed, by SQLite's words for why: "database or disk is full", "database is locked by
/// another connection for longer than the busy timeout of 5000 ms", "attempt to write a
/// readonly database", "unable to open database file: Permission denied", "file is not a
/// database". For example, after a SetValue that found the disk full:
///
///     {0x80000071, "[SMDB] Set: commit: database or disk is full"}
///
/// Codes returned without a record (1, 0x8000004D from CreateSetting, 0x80000066 from
/// SetValue on a read-only node, the results of DeleteSetting for a missing node) carry
/// their whole meaning and leave it as it was, so compare its code with the one you got.
/// (0, "") on a thread where nothing failed yet.
SETTINGS_MANAGER_API uvc::Result LastResult();

}  // namespace settings_manager
