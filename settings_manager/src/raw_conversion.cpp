#include "raw_conversion.h"

#include <fmt/format.h>

#include <algorithm>
#include <string>
#include <utility>

#include "fdn/result_codes.h"
#include "settings_manager/limits.h"
#include "uvc/tree.h"

namespace settings_manager {
namespace {

using impl::RawItem;

// Deep enough for the usual trees; deeper ones simply grow it.
constexpr std::size_t kParentStackCapacity = 8;

// A path text shown in a message is cut here: a refused path may be megabytes long.
constexpr std::size_t kShownPathText = 64;

std::string Shown(std::string const& text) {
  if (text.size() <= kShownPathText) return text;
  return text.substr(0, kShownPathText) + "...";
}

// What rebuilding a tree from `rows` records may allocate beyond one node per record, so
// that memory stays a small multiple of what was read: the capacity reserved for lists,
// and the placeholders that stand for list elements whose records come later (in text
// order element 10 comes before element 2). Each may total the number of records; a sound
// file, whose every element has its record, never needs more.
class Budget {
 public:
  explicit Budget(std::size_t rows) : rows_(rows), reserve_(rows), placeholders_(rows) {}

  // The capacity a list record may reserve; what it takes is spent.
  std::size_t Reserve() const { return reserve_; }
  void Spent(std::size_t reserved) { reserve_ -= reserved < reserve_ ? reserved : reserve_; }

  // Storing `id` into `parent` fills the gap before an index beyond the list's end with
  // placeholders; refuses a gap that the budget cannot hold.
  void Gap(Setting const& parent, uvc::Id const& id, std::string const& text) {
    auto const* index = std::get_if<0>(&id);
    auto const* list = std::get_if<uvc::index::kList>(&parent);
    if (index == nullptr || list == nullptr || *index <= list->size()) return;
    auto const gap = *index - list->size();
    if (gap > placeholders_)
      throw uvc::Error(fdn::rc::kOutOfRange,
                       fmt::format("[RawSetting] list gap: {} elements missing before '{}', "
                                   "gaps may not hold more than the {} rows read",
                                   gap, Shown(text), rows_));
    placeholders_ -= static_cast<std::size_t>(gap);
  }

 private:
  std::size_t rows_;
  std::size_t reserve_;
  std::size_t placeholders_;
};

// Every field of one record read into a fresh node; refuses a path deeper than the tree
// may be.
Setting ReadNode(RawItem const& item, uvc::Path& nodePath, Budget& budget) {
  Setting node;
  item.DeserializeAttrib(node.attributes);
  item.DeserializeValue(node, budget.Reserve());
  if (auto const* list = std::get_if<uvc::index::kList>(&node)) budget.Spent(list->capacity());
  item.DeserializePath(nodePath);
  if (nodePath.size() > kMaxDepth)
    throw uvc::Error(fdn::rc::kOutOfRange,
                     fmt::format("[RawSetting] path too deep: {} levels, the limit is {}: '{}'",
                                 nodePath.size(), kMaxDepth, Shown(item.path)));
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

    Budget budget(items.size());
    uvc::Path rootPath;
    Setting root = ReadNode(items.front(), rootPath, budget);
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
      Setting node = ReadNode(items[i], nodePath, budget);
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
      budget.Gap(*parents[level - 1], nodePath.back(), items[i].path);
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
