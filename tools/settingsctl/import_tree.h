#pragma once

// What an import does to the whole tree, worked out in memory so that the tree is stored
// in one transaction: all of the document or nothing.

#include <optional>
#include <string>
#include <vector>

#include "settings_manager/setting.h"
#include "uvc/id.h"

namespace settingsctl {

struct ImportOptions {
  bool merge = false;  // keep what the document does not name; maps merge key by key
  bool force = false;  // change read-only settings too
};

// One line of an import's report: the path and "created", "replaced", "merged",
// "deleted" or "unchanged".
struct ImportOutcome {
  uvc::Path path;
  std::string what;
};

// Puts `node` at `target` of `tree` (the root map), making missing maps on the way.
// Without merge the node replaces what is there; with merge a map keeps the keys the
// node does not name and its own attributes, and everything else the node names is
// replaced. Throws a Failure, with `tree` possibly half changed (the caller discards it),
// when a read-only setting would change without force, or when `target` runs through a
// scalar or past the end of a list. Returns the report: one line for `target`, or for an
// import of the whole tree one line per top-level setting that changed ("/ unchanged"
// when none did).
std::vector<ImportOutcome> ImportInto(settings_manager::Setting& tree, uvc::Path const& target,
                                      settings_manager::Setting node, ImportOptions options);

// The first node, in path order, of the subtree `node` at `path` that is marked read-only.
std::optional<uvc::Path> FirstReadOnly(settings_manager::Setting const& node,
                                       uvc::Path const& path);

}  // namespace settingsctl
