#include "report.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <nlohmann/json.hpp>

#include "fdn/result_codes.h"
#include "settings_manager/last_result.h"
#include "settings_manager/logging.h"

namespace settingsctl {
namespace {

namespace logging = settings_manager::logging;

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
  // The sink comes first: a record about an invalid SETTINGS_MANAGER_LOG_LEVEL, made when
  // the library first reads it, goes through it too.
  logging::SetSink([shown](logging::Record const& record) {
    if (!shown) return;
    static constexpr char const* kNames[] = {"trace", "debug", "info", "warning", "error", "fatal"};
    auto const level = static_cast<std::size_t>(record.level);
    try {
      auto const line =
          fmt::format("library {}: {}\n", level < 6 ? kNames[level] : "?", record.message);
      std::fwrite(line.data(), 1, line.size(), stderr);
    } catch (...) {
      // A sink must not throw; out of memory, the record is lost.
    }
  });
  if (!shown)
    logging::SetThreshold(logging::Level::Off);  // records are not even made
  else if (std::getenv(logging::kLevelVariable) == nullptr)
    logging::SetThreshold(logging::Level::Info);
}

LibraryCause CauseOf(int code) {
  auto const last = settings_manager::LastResult();
  auto codeText = fdn::ResultCodeText(code);
  // A code returned without a record leaves the reason of an earlier failure in place.
  auto reason = last.first == code && !last.second.empty() ? last.second : codeText;
  return {code, std::move(codeText), std::move(reason)};
}

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
    if (auto const& cause = failure.Cause()) {
      error["code"] = fmt::format("{:#010x}", static_cast<unsigned>(cause->code));
      error["codeText"] = cause->codeText;
      error["reason"] = cause->reason;
    }
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
  std::fprintf(stderr, "%s\n", line.c_str());
  std::fflush(stderr);
}

}  // namespace settingsctl
