#include "tern/logger/tern_logger.h"

#include <cstdio>

namespace tern::logger {

TernLogger& TernLogger::RootLogger() {
  static TernLogger root;
  return root;
}

bool TernLogger::IsLevelEnabled(LogLevel level) const noexcept {
  return static_cast<int>(level) >= static_cast<int>(threshold_.load(std::memory_order_relaxed));
}

void TernLogger::SetThreshold(LogLevel level) noexcept {
  threshold_.store(level, std::memory_order_relaxed);
}

LogLevel TernLogger::Threshold() const noexcept { return threshold_.load(std::memory_order_relaxed); }

LogSink TernLogger::SetSink(LogSink sink) {
  std::lock_guard<std::mutex> lock(sinkLock_);
  std::swap(sink_, sink);
  return sink;
}

void TernLogger::LogImpl(LogLevel level, char const* file, int line, char const* function,
                         std::string& message) {
  LogRecord const record{level, file ? file : "", line, function ? function : "", message};
  std::lock_guard<std::mutex> lock(sinkLock_);
  if (sink_) {
    sink_(record);
    return;
  }
  auto const text = fmt::format("{} {}:{} {}: {}\n", LevelName(level), record.file, line,
                                record.function, message);
  std::fwrite(text.data(), 1, text.size(), stderr);
}

std::string_view LevelName(LogLevel level) noexcept {
  switch (level) {
    case LogLevel::Trace: return "TRACE";
    case LogLevel::Debug: return "DEBUG";
    case LogLevel::Info: return "INFO";
    case LogLevel::Warning: return "WARN";
    case LogLevel::Error: return "ERROR";
    case LogLevel::Fatal: return "FATAL";
  }
  return "?";
}

}  // namespace tern::logger
