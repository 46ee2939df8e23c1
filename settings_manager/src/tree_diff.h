#pragma once

// What changed between two trees, as the change events of the role interfaces.

#include <functional>

#include "settings_manager/setting.h"
#include "uvc/id.h"

namespace settings_manager {

using ChangeSink = std::function<void(uvc::Path const& path, unsigned char kind)>;

// Calls `changed` for every difference between `before` and `after` below `at` (the
// path both stand at), in path order: event::kCreated and event::kDeleted for map entries
// that appear or go; for a node present in both, event::kValue, event::kAttributes or
// both (event::kSetting). Maps, and lists that keep their length, are compared child by
// child; any other change of a node is reported at the node. Nothing is reported for the
// root path itself, which no client subscribes to below.
void DiffTrees(Setting const& before, Setting const& after, uvc::Path& at,
               ChangeSink const& changed);

}  // namespace settings_manager
