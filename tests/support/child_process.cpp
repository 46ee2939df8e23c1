#include "support/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

namespace test_support {

ChildProcess::ChildProcess(std::vector<std::string> const& argv) {
  int out[2];
  int in[2];
  if (::pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  if (::pipe2(in, O_CLOEXEC) != 0) {
    ::close(out[0]);
    ::close(out[1]);
    throw std::runtime_error("pipe failed");
  }
  std::vector<char*> args;
  for (auto const& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_ = ::fork();
  if (pid_ == 0) {
    ::dup2(out[1], STDOUT_FILENO);
    ::dup2(in[0], STDIN_FILENO);
    ::execv(args[0], args.data());
    ::_exit(127);
  }
  ::close(out[1]);
  ::close(in[0]);
  read_ = out[0];
  write_ = in[1];
  if (pid_ < 0) throw std::runtime_error("fork failed");
}

ChildProcess::~ChildProcess() {
  if (write_ >= 0) ::close(write_);
  if (pid_ > 0) {
    Kill();
    Wait();
  }
  if (read_ >= 0) ::close(read_);
}

bool ChildProcess::Send(std::string const& line) {
  std::string const text = line + "\n";
  // A child that died must not kill us with SIGPIPE.
  struct sigaction ignore {};
  struct sigaction previous {};
  ignore.sa_handler = SIG_IGN;
  ::sigaction(SIGPIPE, &ignore, &previous);
  std::size_t done = 0;
  while (done < text.size()) {
    auto const n = ::write(write_, text.data() + done, text.size() - done);
    if (n <= 0) break;
    done += static_cast<std::size_t>(n);
  }
  ::sigaction(SIGPIPE, &previous, nullptr);
  return done == text.size();
}

std::optional<std::string> ChildProcess::Line(std::chrono::milliseconds timeout, bool& timedOut) {
  timedOut = false;
  auto const end = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    auto const newline = buffer_.find('\n');
    if (newline != std::string::npos) {
      std::string line = buffer_.substr(0, newline);
      buffer_.erase(0, newline + 1);
      return line;
    }
    auto const left = std::chrono::duration_cast<std::chrono::milliseconds>(
        end - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      timedOut = true;
      return std::nullopt;
    }
    pollfd p{read_, POLLIN, 0};
    if (::poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
    char chunk[4096];
    auto const n = ::read(read_, chunk, sizeof chunk);
    if (n <= 0) return std::nullopt;
    buffer_.append(chunk, static_cast<std::size_t>(n));
  }
}

std::string ChildProcess::Line(std::chrono::milliseconds timeout) {
  bool timedOut = false;
  auto line = Line(timeout, timedOut);
  return line ? *line : timedOut ? "(timeout)" : "(end of output)";
}

void ChildProcess::Kill() {
  if (pid_ > 0) ::kill(pid_, SIGKILL);
}

int ChildProcess::Wait() {
  int status = 0;
  if (pid_ > 0) ::waitpid(pid_, &status, 0);
  pid_ = -1;
  return status;
}

}  // namespace test_support
