#pragma once

/// \file
/// Where the library's log records go, and which of them are wanted.
///
/// The library writes its records (Operation failures, start-up progress, traces of
/// changes) to one process-wide logger. By default records of level Error and above go
/// to standard error, one line each. A device program routes them to its own log
/// (journald, syslog) with logging::SetSink; a tool stays quiet with
/// logging::SetThreshold(logging::Level::Off).
///
/// The environment variable SETTINGS_MANAGER_LOG_LEVEL sets the threshold a process starts
/// with: a number 0 to 6 or a name (trace, debug, info, warning, error, fatal, off; any
/// case). It is read once, when the first manager is made or one of the functions below
/// is first called; SetThreshold overrides it. An invalid value is ignored with an
/// Error record that says so (given to the sink when SetSink was the first call).

#include <functional>
#include <string_view>

#include "settings_manager/export.h"

namespace settings_manager::logging {

/// Levels of records, from the most verbose to the most severe.
enum class Level : int {
  Trace = 0,    ///< a change accepted: "{id} SetValue({path})"
  Debug = 1,    ///< a setting created or deleted, a subscription made or ended, a delivery
  Info = 2,     ///< start-up and schema progress
  Warning = 3,  ///< an operation failed: "{id} SetValue({path}): {result}"
  Error = 4,    ///< an internal fault or refusal: a type change, a failed delivery
  Fatal = 5,    ///< no manager could be made: "Could not create settings manager: {}"
  Off = 6,      ///< as a threshold: no record at all
};

/// The name of the environment variable of the starting threshold.
constexpr char kLevelVariable[] = "SETTINGS_MANAGER_LOG_LEVEL";

/// One record, valid during the sink's call only.
struct Record {
  Level level;                ///< the level of the record
  std::string_view source;    ///< "settings_manager/src/settings_manager" or ".../settings_db"
  int line;                   ///< the line in the library's source
  std::string_view function;  ///< the operation: "SetValue", "CreateSettingsManager", ...
  std::string_view message;   ///< the finished text
};

/// Receives every record at or above the threshold, one at a time, from the threads that
/// call the library and from its event thread. It must not throw and must not call the
/// library (records are handed over under the logger's lock).
using Sink = std::function<void(Record const&)>;

/// Records below `threshold` are not made at all; Off silences the library.
SETTINGS_MANAGER_API void SetThreshold(Level threshold);
/// The current threshold.
SETTINGS_MANAGER_API Level Threshold();
/// Sends the records to `sink` from now on; an empty sink restores standard error.
SETTINGS_MANAGER_API void SetSink(Sink sink);

}  // namespace settings_manager::logging
