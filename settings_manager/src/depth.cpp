#include "depth.h"

#include <fmt/format.h>

#include <utility>
#include <vector>

#include "fdn/result_codes.h"
#include "uvc/error.h"

namespace settings_manager {

std::size_t LevelsBelow(Setting::Value const& value, std::size_t limit) {
  // Depth first with an explicit stack of the nodes still to visit and their levels.
  std::vector<std::pair<Setting::Value const*, std::size_t>> pending{{&value, 0}};
  std::size_t deepest = 0;
  while (!pending.empty()) {
    auto const [node, level] = pending.back();
    pending.pop_back();
    if (level > deepest) deepest = level;
    if (deepest > limit) return limit + 1;
    if (auto const* list = std::get_if<uvc::index::kList>(node)) {
      for (auto const& child : *list) pending.emplace_back(&child, level + 1);
    } else if (auto const* map = std::get_if<uvc::index::kMap>(node)) {
      for (auto const& entry : *map) pending.emplace_back(&entry.second, level + 1);
    }
  }
  return deepest;
}

void CheckPathDepth(uvc::Path const& path) {
  if (path.size() > kMaxDepth)
    throw uvc::Error(fdn::rc::kOutOfRange, fmt::format("Path too deep: {} levels, the limit is {}",
                                                       path.size(), kMaxDepth));
}

void CheckDepth(uvc::Path const& path, Setting::Value const& value) {
  CheckPathDepth(path);
  auto const room = kMaxDepth - path.size();
  if (LevelsBelow(value, room) > room)
    throw uvc::Error(fdn::rc::kOutOfRange,
                     fmt::format("Setting too deep: a path of {} levels and more than {} levels "
                                 "inside the setting, the limit is {}",
                                 path.size(), room, kMaxDepth));
}

}  // namespace settings_manager
