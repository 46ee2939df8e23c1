#include "report.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <nlohmann/json.hpp>

#include "fdn/result_codes.h"

namespace settingsctl {
namespace {

// Where the tool's own messages go: standard error as the tool was started with it.
FILE* messages = stderr;

// The first error of standard output, kept until FinishOutput reports it.
int outputError = 0;

void Remember(bool written) {
  if (!written && outputError == 0) outputError = errno != 0 ? errno : EIO;
}

}  // namespace

char const* StatusName(int exitStatus) noexcept {
  switch (exitStatus) {
    case status::kBadInput:
      return "bad-input";
    case status::kNotFound:
      return "not-found";
    case status::kRefused:
      return "refused";
    case status::kDatabase:
      return "database";
    default:
      return "failed";
  }
}

void ShowLibraryRecords(bool shown) {
  if (shown) return;
  // The library writes its records to standard error at its default threshold and offers
  // no way to change that yet: its records go to /dev/null, ours to a duplicate of the
  // original standard error. With a logging API this becomes a threshold or a sink.
  int const ours = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
  int const null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (ours < 0 || null < 0 || ::dup2(null, STDERR_FILENO) < 0) return;
  ::close(null);
  if (FILE* stream = ::fdopen(ours, "w")) messages = stream;
}

std::string LibraryReason(int code) { return fdn::ResultCodeText(code); }

void Print(std::string_view text) {
  errno = 0;
  Remember(std::fwrite(text.data(), 1, text.size(), stdout) == text.size());
}

void FinishOutput() {
  errno = 0;
  std::cout.flush();
  Remember(!std::cout.fail());
  Remember(std::fflush(stdout) == 0 && std::ferror(stdout) == 0);
  if (outputError != 0)
    throw Failure(status::kFailed,
                  std::string("cannot write the output: ") + std::strerror(outputError));
}

void PrintOutcome(Style const& style, std::string const& subject, std::string_view outcome) {
  if (style.quiet) return;
  if (!style.json) {
    Print(subject + ' ' + std::string(outcome) + '\n');
    return;
  }
  nlohmann::ordered_json line{{"path", subject}, {"outcome", outcome}};
  Print(line.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + '\n');
}

void ReportFailure(Style const& style, std::string const& verb, std::string const& subject,
                   Failure const& failure) {
  if (style.quiet) return;
  std::string line;
  if (style.json) {
    nlohmann::ordered_json error{{"error", StatusName(failure.ExitStatus())},
                                 {"status", failure.ExitStatus()}};
    if (!verb.empty()) error["verb"] = verb;
    if (!subject.empty()) error["subject"] = subject;
    error["message"] = failure.what();
    line = error.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
  } else {
    line = "settingsctl: ";
    if (!verb.empty()) line += verb + ' ';
    if (!subject.empty()) line += subject;
    if (!verb.empty() || !subject.empty()) {
      if (line.back() == ' ') line.pop_back();
      line += ": ";
    }
    line += failure.what();
  }
  std::fprintf(messages, "%s\n", line.c_str());
  std::fflush(messages);
}

}  // namespace settingsctl
