#pragma once

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

// A failure that ends one command: reported in one line, with its exit status. Thrown
// before anything is changed wherever the tool can check first.
class Failure : public std::runtime_error {
 public:
  Failure(int exitStatus, std::string const& message)
      : std::runtime_error(message), exitStatus_(exitStatus) {}
  int ExitStatus() const noexcept { return exitStatus_; }

 private:
  int exitStatus_;
};

inline Failure UsageFailure(std::string const& message) {
  return Failure(status::kBadInput, message);
}

}  // namespace settingsctl
