#include <cctype>
#include <cstdlib>
#include <mutex>
#include <string>
#include <utility>

#include "log.h"
#include "log_environment.h"

namespace settings_manager {
namespace log {

std::optional<logging::Level> ParseLogLevel(std::string_view text) {
  static constexpr std::string_view kNames[] = {"trace", "debug", "info", "warning",
                                                "error", "fatal", "off"};
  std::string lower;
  for (char c : text) lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  for (int level = 0; level <= static_cast<int>(logging::Level::Off); ++level)
    if (lower == kNames[level] || lower == std::to_string(level))
      return static_cast<logging::Level>(level);
  return std::nullopt;
}

void ReadLogEnvironment() {
  static std::once_flag once;
  std::call_once(once, [] {
    char const* const value = std::getenv(logging::kLevelVariable);
    if (value == nullptr) return;
    if (auto const level = ParseLogLevel(value)) {
      tern::logger::TernLogger::RootLogger().SetThreshold(
          static_cast<tern::logger::LogLevel>(*level));
      return;
    }
    SM_LOG(tern::logger::LogLevel::Error, kManagerSource, "ReadLogEnvironment",
           "Ignored {}='{}': expected 0 to 6 or trace, debug, info, warning, error, fatal, off",
           logging::kLevelVariable, value);
  });
}

}  // namespace log

namespace logging {

void SetThreshold(Level threshold) {
  log::ReadLogEnvironment();
  tern::logger::TernLogger::RootLogger().SetThreshold(
      static_cast<tern::logger::LogLevel>(threshold));
}

Level Threshold() {
  log::ReadLogEnvironment();
  return static_cast<Level>(tern::logger::TernLogger::RootLogger().Threshold());
}

void SetSink(Sink sink) {
  tern::logger::LogSink adapter;
  if (sink)
    adapter = [sink = std::move(sink)](tern::logger::LogRecord const& record) {
      sink(Record{static_cast<Level>(record.level), record.file, record.line, record.function,
                  record.message});
    };
  tern::logger::TernLogger::RootLogger().SetSink(std::move(adapter));
  // Read once the sink is in place: a program that sets its sink first also receives the
  // record of an invalid value there.
  log::ReadLogEnvironment();
}

}  // namespace logging
}  // namespace settings_manager
