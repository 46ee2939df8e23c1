#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

#include <fmt/format.h>

namespace tern::logger {

// Ordered from most verbose (0) to most severe (5).
enum class LogLevel : int {
  Trace = 0,
  Debug = 1,
  Info = 2,
  Warning = 3,
  Error = 4,
  Fatal = 5,
};

// One finished record as handed to a sink.
struct LogRecord {
  LogLevel level;
  std::string_view file;
  int line;
  std::string_view function;
  std::string_view message;
};

using LogSink = std::function<void(LogRecord const&)>;

// The process-wide logger. The default back end writes one line per record to standard
// error; a sink installed with SetSink receives the records instead. Records below the
// threshold are not wanted and are never formatted by well-behaved callers.
// Safe for concurrent use: records are handed to the back end one at a time.
class TernLogger {
 public:
  static constexpr LogLevel kDefaultThreshold = LogLevel::Error;

  static TernLogger& RootLogger();

  TernLogger() = default;
  TernLogger(TernLogger const&) = delete;
  TernLogger& operator=(TernLogger const&) = delete;
  virtual ~TernLogger() = default;

  // Whether records of `level` are wanted.
  virtual bool IsLevelEnabled(LogLevel level) const noexcept;

  void SetThreshold(LogLevel level) noexcept;
  LogLevel Threshold() const noexcept;

  // Installs `sink` (an empty one restores the standard error back end) and returns the
  // one it replaces. The sink is called with the logger's mutex held: it must not log.
  LogSink SetSink(LogSink sink);

  // Emits one finished record, whatever its level.
  void LogImpl(LogLevel level, char const* file, int line, char const* function,
               std::string& message);

  template <typename... Args>
  void Log(LogLevel level, char const* file, int line, char const* function,
           fmt::format_string<Args...> format, Args&&... args) {
    std::string message = fmt::format(format, std::forward<Args>(args)...);
    LogImpl(level, file, line, function, message);
  }

 private:
  std::atomic<LogLevel> threshold_{kDefaultThreshold};
  std::mutex sinkLock_;
  LogSink sink_;  // guarded by sinkLock_; empty means standard error
};

// Text of a level in the default back end's lines.
std::string_view LevelName(LogLevel level) noexcept;

}  // namespace tern::logger
