#include "support/child_process.h"

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

namespace test_support {

ChildProcess::ChildProcess(std::vector<std::string> const& argv) {
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
    throw std::runtime_error("socketpair failed");
  std::vector<char*> args;
  for (auto const& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_ = ::fork();
  if (pid_ == 0) {
    ::dup2(ends[1], STDIN_FILENO);
    ::dup2(ends[1], STDOUT_FILENO);
    ::execv(args[0], args.data());
    ::_exit(127);
  }
  ::close(ends[1]);
  socket_ = ends[0];
  if (pid_ < 0) throw std::runtime_error("fork failed");
}

ChildProcess::~ChildProcess() {
  Kill();
  ::close(socket_);
}

bool ChildProcess::Send(std::string const& line) {
  std::string const text = line + "\n";
  // A child that died must not kill us with SIGPIPE.
  return ::send(socket_, text.data(), text.size(), MSG_NOSIGNAL) ==
         static_cast<ssize_t>(text.size());
}

std::string ChildProcess::Line(std::chrono::milliseconds timeout) {
  auto const end = std::chrono::steady_clock::now() + timeout;
  std::size_t newline;
  while ((newline = buffer_.find('\n')) == std::string::npos) {
    auto const left = std::chrono::duration_cast<std::chrono::milliseconds>(
        end - std::chrono::steady_clock::now());
    if (left.count() <= 0) return "(timeout)";
    pollfd p{socket_, POLLIN, 0};
    if (::poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
    char chunk[4096];
    auto const n = ::read(socket_, chunk, sizeof chunk);
    if (n <= 0) return "(end of output)";
    buffer_.append(chunk, static_cast<std::size_t>(n));
  }
  std::string line = buffer_.substr(0, newline);
  buffer_.erase(0, newline + 1);
  return line;
}

int ChildProcess::Kill() {
  int status = 0;
  if (pid_ > 0 && ::kill(pid_, SIGKILL) == 0) ::waitpid(pid_, &status, 0);
  pid_ = -1;
  return status;
}

}  // namespace test_support
