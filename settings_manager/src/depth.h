#pragma once

// How deep a path or a value reaches, measured without recursion, against kMaxDepth.

#include <cstddef>

#include "settings_manager/limits.h"
#include "settings_manager/setting.h"
#include "uvc/id.h"

namespace settings_manager {

// The levels below `value`: 0 for a scalar or an empty container, else one more than its
// deepest child. Stops at `limit` + 1, so a value a million levels deep costs no more
// than one just past the limit.
std::size_t LevelsBelow(Setting::Value const& value, std::size_t limit);

// Throws 0x8000005E "Path too deep: ..." when `path` has more than kMaxDepth ids.
void CheckPathDepth(uvc::Path const& path);

// Throws 0x8000005E "Setting too deep: ..." when `value` placed at `path` would put a node
// deeper than kMaxDepth.
void CheckDepth(uvc::Path const& path, Setting::Value const& value);

}  // namespace settings_manager
