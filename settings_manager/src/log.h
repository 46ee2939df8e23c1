#pragma once

// How the library writes log records: ask the root logger whether the level is wanted
// first, so that nothing is formatted for records nobody reads.

#include <string>

#include "settings_manager/format.h"
#include "tern/logger/tern_logger.h"

namespace settings_manager::log {

using tern::logger::LogLevel;

constexpr char const kDbSource[] = "settings_manager/src/settings_db";
constexpr char const kManagerSource[] = "settings_manager/src/settings_manager";

// A fixed text goes straight to the back end, without formatting.
inline void Text(LogLevel level, char const* source, int line, char const* function,
                 char const* text) {
  auto& logger = tern::logger::TernLogger::RootLogger();
  if (!logger.IsLevelEnabled(level)) return;
  std::string message(text);
  tern::logger::TernLogger::RootLogger().LogImpl(level, source, line, function, message);
}

}  // namespace settings_manager::log

#define SM_LOG(level, source, function, ...)                                                  \
  do {                                                                                       \
    if (::tern::logger::TernLogger::RootLogger().IsLevelEnabled(level))                      \
      ::tern::logger::TernLogger::RootLogger().Log(level, source, __LINE__, function,        \
                                                   __VA_ARGS__);                             \
  } while (false)

// For catch blocks: a failure while logging there ends the process instead of escaping.
#define SM_LOG_NOEXCEPT(level, source, function, ...) \
  [&]() noexcept { SM_LOG(level, source, function, __VA_ARGS__); }()
