#pragma once

#include <optional>
#include <string_view>

#include "settings_manager/logging.h"

namespace settings_manager::log {

// The threshold that `text` names: "0" to "6", or a level's name in any case.
std::optional<logging::Level> ParseLogLevel(std::string_view text);

// Applies SETTINGS_MANAGER_LOG_LEVEL once per process; later calls do nothing.
void ReadLogEnvironment();

}  // namespace settings_manager::log
