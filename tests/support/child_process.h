#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace test_support {

// A child process run from `argv` (argv[0] the executable's path) whose standard input and
// output are one socket of ours; killed and reaped when the object ends.
class ChildProcess {
 public:
  explicit ChildProcess(std::vector<std::string> const& argv);
  ~ChildProcess();
  ChildProcess(ChildProcess const&) = delete;
  ChildProcess& operator=(ChildProcess const&) = delete;

  // Writes `line` and a newline to the child's standard input; false when it is closed.
  bool Send(std::string const& line);
  // The next line of its output, waiting at most `timeout`; "(timeout)" or "(end of
  // output)" when there is none.
  std::string Line(std::chrono::milliseconds timeout = std::chrono::seconds(60));
  // Kills and reaps it: its wait status.
  int Kill();

 private:
  pid_t pid_ = -1;
  int socket_ = -1;
  std::string buffer_;
};

}  // namespace test_support
