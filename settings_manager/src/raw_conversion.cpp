#include "raw_conversion.h"

#include <fmt/format.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <utility>

#include "fdn/result_codes.h"
#include "settings_manager/limits.h"
#include "uvc/tree.h"

namespace settings_manager {
namespace {

using impl::RawItem;
using impl::RawSource;
using impl::RawView;

// Deep enough for the usual trees; deeper ones simply grow it.
constexpr std::size_t kParentStackCapacity = 8;

// A path text shown in a message is cut here: a refused path may be megabytes long.
constexpr std::size_t kShownPathText = 64;

std::string Shown(std::string_view text) {
  if (text.size() <= kShownPathText) return std::string(text);
  return std::string(text.substr(0, kShownPathText)) + "...";
}

// What rebuilding a tree from `rows` records may allocate beyond one node per record, so
// that memory stays a small multiple of what was read: the capacity reserved for lists,
// and the placeholders that stand for list elements whose records come later (in text
// order element 10 comes before element 2). Each may total the number of records; a sound
// file, whose every element has its record, never needs more. A source that streams its
// records is asked for their number only when a gap needs it; list capacity is reserved
// against the records known so far.
class Budget {
 public:
  explicit Budget(RawSource& rows) : rows_(rows) {}

  // The capacity a list record may reserve; what it takes is spent.
  std::size_t Reserve() const {
    auto const known = rows_.AtLeast();
    return known > reserved_ ? known - reserved_ : 0;
  }
  void Spent(std::size_t reserved) { reserved_ += reserved; }

  // Storing `id` into `parent` fills the gap before an index beyond the list's end with
  // placeholders; refuses a gap that the budget cannot hold.
  void Gap(Setting const& parent, uvc::Id const& id, std::string_view text) {
    auto const* index = std::get_if<0>(&id);
    auto const* list = std::get_if<uvc::index::kList>(&parent);
    if (index == nullptr || list == nullptr || *index <= list->size()) return;
    auto const gap = *index - list->size();
    // Placeholders within the records known so far need no count.
    auto const placeholders = placeholders_ + gap;
    if (placeholders > rows_.AtLeast() && placeholders > rows_.Total())
      throw uvc::Error(fdn::rc::kOutOfRange,
                       fmt::format("[RawSetting] list gap: {} elements missing before '{}', "
                                   "gaps may not hold more than the {} rows read",
                                   gap, Shown(text), rows_.Total()));
    placeholders_ = static_cast<std::size_t>(placeholders);
  }

 private:
  RawSource& rows_;
  std::size_t reserved_ = 0;
  std::size_t placeholders_ = 0;
};

// Every field of one record read into a fresh node; refuses a path deeper than the tree
// may be.
Setting ReadNode(RawView const& item, uvc::Path& nodePath, Budget& budget) {
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

// The records of a vector.
class VectorSource final : public RawSource {
 public:
  explicit VectorSource(std::vector<RawItem> const& items) noexcept : items_(items) {}
  bool Next(RawView& record) override {
    if (next_ == items_.size()) return false;
    record = items_[next_++].View();
    return true;
  }
  std::size_t Total() override { return items_.size(); }
  std::size_t AtLeast() const noexcept override { return items_.size(); }
  bool Failed() const noexcept override { return false; }

 private:
  std::vector<RawItem> const& items_;
  std::size_t next_ = 0;
};

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
    VectorSource source(items);
    return Deserialize(source, headPath, head);
  } catch (...) {
    return uvc::ProcessException();
  }
}

uvc::Result Deserialize(RawSource& rows, uvc::Path& headPath, Setting& head) {
  RawView item;
  if (!rows.Next(item)) return {fdn::rc::kSettingsAreRequired, "[RawSetting] empty raw setting"};
  try {
    Budget budget(rows);
    uvc::Path rootPath;
    Setting root = ReadNode(item, rootPath, budget);
    std::string const rootText(item.path);
    std::string previousText(item.path);
    // The most recent node placed at each depth below the head; entry 0 is the head.
    std::vector<Setting*> parents;
    parents.reserve(kParentStackCapacity);
    parents.push_back(&root);
    auto const headDepth = rootPath.size();
    auto previousDepth = headDepth;
    uvc::Path nodePath;

    // Rows come sorted by path text, so a node's descendants follow it unbroken and the
    // parent is found by depth alone.
    while (rows.Next(item)) {
      Setting node = ReadNode(item, nodePath, budget);
      if (!Rooted(rootPath, nodePath))
        throw uvc::Error(fdn::rc::kLessThan,
                         fmt::format("[RawSetting] non-rooted path: root = '{}', this = '{}'",
                                     rootText, item.path));
      auto const depth = nodePath.size();
      if (depth > previousDepth + 1)
        throw uvc::Error(fdn::rc::kMoreThan,
                         fmt::format("[RawSetting] path level jump: prev = '{}', this = '{}'",
                                     previousText, item.path));
      auto const level = depth - headDepth;
      budget.Gap(*parents[level - 1], nodePath.back(), item.path);
      // List elements arrive in text order ("10/" before "2/"): Append fills the gap with
      // placeholders and Replace lets the later records take them over.
      Setting& placed =
          uvc::SetItem(*parents[level - 1], nodePath.back(), std::move(node), uvc::edit_mode::All);
      if (level == parents.size())
        parents.push_back(&placed);
      else
        parents[level] = &placed;
      previousDepth = depth;
      previousText.assign(item.path);
    }

    head = std::move(root);
    headPath.swap(rootPath);
    return uvc::ResultOk();
  } catch (...) {
    if (rows.Failed()) throw;
    auto const failure = uvc::ProcessException();
    // A source reports its own failures first, as though it had read every record before
    // the first was decoded: it reads on to the end.
    while (rows.Next(item)) {
    }
    return failure;
  }
}

}  // namespace settings_manager
