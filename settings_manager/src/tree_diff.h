#pragma once

// What changed between two versions of a subtree, as the change events that local
// changes of the same effect would have queued.

#include <functional>

#include "settings_manager/interfaces.h"
#include "settings_manager/setting.h"
#include "uvc/id.h"

namespace settings_manager {

using DiffReport = std::function<void(uvc::Path const& path, unsigned char kind)>;

// Reports every difference from `before` to `after`, both at `path` (which it leaves as
// it found it), outermost first:
// - a node of another alternative, a scalar of another value, a list of another length:
//   event::kValue at the node (with event::kAttributes too when its attributes differ);
// - otherwise attributes that differ: event::kAttributes at the node;
// - maps, and lists of equal length, compare child by child: a child only in `after` is
//   event::kCreated at the child, one only in `before` event::kDeleted, one in both is
//   compared the same way.
// Doubles compare by their bits, so that a NaN read again is no change. Nothing is reported
// for the root itself (the empty path).
void DiffTrees(Setting const& before, Setting const& after, uvc::Path& path,
               DiffReport const& report);

}  // namespace settings_manager
