#pragma once

#include <optional>
#include <stdexcept>
#include <string>

namespace settingsctl {

// Exit statuses of the tool; README's table lists them for scripts.
namespace status {
constexpr int kOk = 0;        // done, or nothing to change (the output says which)
constexpr int kFailed = 1;    // any other failure: output that cannot be written, ...
constexpr int kBadInput = 2;  // a bad command line, path, value, type or document
constexpr int kNotFound = 3;  // no such setting
constexpr int kRefused = 4;   // read-only, a different setting is there, a change of kind
constexpr int kDatabase = 5;  // the database is missing, not a file, unusable or failing
}  // namespace status

// The word for a failed exit status in JSON errors: "bad-input", "not-found", ...
char const* StatusName(int exitStatus) noexcept;

// What the library reported of a failed call: its result code, the code's text and the
// full reason (the library's LastResult), such as "[SMDB] Set: commit: database or disk
// is full".
struct LibraryCause {
  int code = 0;
  std::string codeText;  // "Not found = 0x8000004c"
  std::string reason;    // the code's text when the library kept no reason of its own
};

// A failure that ends one command: reported in one line, with its exit status, and the
// library's cause when a library call failed. Thrown before anything is changed wherever
// the tool can check first.
class Failure : public std::runtime_error {
 public:
  Failure(int exitStatus, std::string const& message, std::optional<LibraryCause> cause = {})
      : std::runtime_error(message), exitStatus_(exitStatus), cause_(std::move(cause)) {}
  int ExitStatus() const noexcept { return exitStatus_; }
  std::optional<LibraryCause> const& Cause() const noexcept { return cause_; }

 private:
  int exitStatus_;
  std::optional<LibraryCause> cause_;
};

inline Failure UsageFailure(std::string const& message) {
  return Failure(status::kBadInput, message);
}

}  // namespace settingsctl
