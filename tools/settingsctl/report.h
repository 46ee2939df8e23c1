#pragma once

// Everything the tool writes goes through here: data and outcomes on standard output,
// failures in one line on standard error, and the library's own log records shown or
// hidden in one place.

#include <string>
#include <string_view>

#include "failure.h"

namespace settingsctl {

// How a command reports: --json and -q of the command line.
struct Style {
  bool json = false;   // JSON on standard output, and JSON error lines
  bool quiet = false;  // no outcome lines and no error lines: the exit status tells
};

// Shows the library's log records on standard error, one "library warning: ..." line
// each, at the threshold SETTINGS_MANAGER_LOG_LEVEL names, else info and above (-v); or
// has the library make none at all. Call once, before the first call of the library.
void ShowLibraryRecords(bool shown);

// The library's cause of the failure `code` of the call just made on this thread.
LibraryCause CauseOf(int code);

// Writes `text` to standard output. Whether it arrived is checked by FinishOutput.
void Print(std::string_view text);

// Flushes standard output; throws a Failure naming the reason when anything written to
// it since the start was lost (a full disk, a closed pipe).
void FinishOutput();

// "network/port changed", or {"path": "network/port", "outcome": "changed"}; nothing
// when quiet.
void PrintOutcome(Style const& style, std::string const& subject, std::string_view outcome);

// One line on standard error: "settingsctl: set network/port: read-only (...)", or as
// JSON {"error": "refused", "status": 4, "verb": "set", "subject": "network/port",
// "message": "read-only (...)"}, with "code", "codeText" and "reason" when the library
// failed. `verb` and `subject` may be empty. Nothing when quiet.
void ReportFailure(Style const& style, std::string const& verb, std::string const& subject,
                   Failure const& failure);

}  // namespace settingsctl
