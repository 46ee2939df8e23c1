#pragma once

// What the reliability suites share besides the work load: their budget, their seeds, a
// quiet log, and the tree a restart would load from a file.

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <string>

#include "stream.h"
#include "tern/logger/tern_logger.h"

namespace reliability {

// True in the AddressSanitizer and ThreadSanitizer builds, which run shorter.
bool SanitizerBuild();
// `base` times SM_RELIABILITY_SCALE (when set; else 1, or 0.25 in a sanitizer build), at
// least `least`.
std::size_t Scaled(std::size_t base, std::size_t least = 1);
// The seed of a suite: SM_RELIABILITY_SEED when set, else a fresh one; printed, so that a
// failure can be replayed.
std::uint64_t TestSeed(char const* suite);
// One line of figures for the README: "RELIABILITY <suite>: <text>".
void Report(char const* suite, std::string const& text);
// Makes a file in rollback-journal mode: the library keeps the mode of a file that exists.
void MakeRollbackFile(std::string const& path);

// The bytes of the file at `path`; empty when there is none.
std::string ReadBytes(std::string const& path);

// Silences the library's log while it lives (a type change is logged as an error).
class QuietLog {
 public:
  explicit QuietLog(tern::logger::LogLevel threshold = tern::logger::LogLevel::Fatal);
  ~QuietLog();
  QuietLog(QuietLog const&) = delete;
  QuietLog& operator=(QuietLog const&) = delete;

 private:
  tern::logger::LogSink previousSink_;
  tern::logger::LogLevel previousThreshold_;
};

// The tree a restart loads from the file at `path`: every row of `data`, rebuilt as the
// manager does at start-up (an empty map when there is no row). False, with the reason
// in `error`, when the rows do not make a tree.
bool LoadFile(std::string const& path, Setting& root, std::string& error);
// Both views of a restart: a new manager must start on the file, and show under the
// top-level keys the whole tree of the rows, which lands in `root`.
::testing::AssertionResult Restart(std::string const& path, Setting& root);

// The end of a budget of `ms` milliseconds.
struct Deadline {
  bool Passed() const { return std::chrono::steady_clock::now() >= end; }
  std::chrono::steady_clock::time_point end;
};
Deadline Within(std::size_t ms);

}  // namespace reliability
