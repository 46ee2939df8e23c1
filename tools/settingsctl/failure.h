#pragma once

#include <stdexcept>
#include <string>

namespace settingsctl {

// Exit statuses of the tool.
namespace status {
constexpr int kOk = 0;
constexpr int kFailed = 1;  // the library refused or failed, or a database would not open
constexpr int kUsage = 2;   // a bad command line, path, value, type or JSON document
}  // namespace status

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

inline Failure UsageFailure(std::string const& message) { return Failure(status::kUsage, message); }

}  // namespace settingsctl
