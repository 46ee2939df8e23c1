#include "raw_conversion.h"

#include <fmt/format.h>

#include <algorithm>
#include <string>
#include <utility>

#include "fdn/result_codes.h"
#include "uvc/tree.h"

namespace settings_manager {
namespace {

using impl::RawItem;

// Deep enough for the usual trees; deeper ones simply grow it.
constexpr std::size_t kParentStackCapacity = 8;

// Every field of one record read into a fresh node.
Setting ReadNode(RawItem const& item, uvc::Path& nodePath) {
  Setting node;
  item.DeserializeAttrib(node.attributes);
  item.DeserializeValue(node);
  item.DeserializePath(nodePath);
  return node;
}

bool Rooted(uvc::Path const& headPath, uvc::Path const& nodePath) {
  return nodePath.size() > headPath.size() &&
         std::equal(headPath.begin(), headPath.end(), nodePath.begin());
}

}  // namespace

uvc::Result Serialize(uvc::Path const& path, Setting const& setting,
                      std::vector<impl::RawItem>& out) {
  try {
    uvc::Path working = path;
    std::vector<RawItem> items;
    uvc::ForEach(setting, working, [&items](Setting const& node, uvc::Path const& at) {
      items.emplace_back(at, node);
      return uvc::for_each::Continue;
    });
    out.swap(items);
    return uvc::ResultOk();
  } catch (...) {
    return uvc::ProcessException();
  }
}

uvc::Result Serialize(uvc::aux::RefRange const& path, Setting const& setting,
                      std::vector<impl::RawItem>& out) {
  try {
    return Serialize(uvc::aux::ToPath(path), setting, out);
  } catch (...) {
    return uvc::ProcessException();
  }
}

uvc::Result Deserialize(std::vector<impl::RawItem> const& items, uvc::Path& headPath,
                        Setting& head) {
  try {
    if (items.empty()) return {fdn::rc::kSettingsAreRequired, "[RawSetting] empty raw setting"};

    uvc::Path rootPath;
    Setting root = ReadNode(items.front(), rootPath);
    // The most recent node placed at each depth below the head; entry 0 is the head.
    std::vector<Setting*> parents;
    parents.reserve(kParentStackCapacity);
    parents.push_back(&root);
    auto const headDepth = rootPath.size();
    auto previousDepth = headDepth;

    // Rows come sorted by path text, so a node's descendants follow it unbroken and the
    // parent is found by depth alone.
    for (std::size_t i = 1; i < items.size(); ++i) {
      uvc::Path nodePath;
      Setting node = ReadNode(items[i], nodePath);
      if (!Rooted(rootPath, nodePath))
        throw uvc::Error(fdn::rc::kLessThan,
                         fmt::format("[RawSetting] non-rooted path: root = '{}', this = '{}'",
                                     items.front().path, items[i].path));
      auto const depth = nodePath.size();
      if (depth > previousDepth + 1)
        throw uvc::Error(fdn::rc::kMoreThan,
                         fmt::format("[RawSetting] path level jump: prev = '{}', this = '{}'",
                                     items[i - 1].path, items[i].path));
      auto const level = depth - headDepth;
      // List elements arrive in text order ("10/" before "2/"): Append fills the gap with
      // placeholders and Replace lets the later records take them over.
      Setting& placed =
          uvc::SetItem(*parents[level - 1], nodePath.back(), std::move(node), uvc::edit_mode::All);
      if (level == parents.size())
        parents.push_back(&placed);
      else
        parents[level] = &placed;
      previousDepth = depth;
    }

    head = std::move(root);
    headPath.swap(rootPath);
    return uvc::ResultOk();
  } catch (...) {
    return uvc::ProcessException();
  }
}

}  // namespace settings_manager
