#include "import_tree.h"

#include <fmt/format.h>

#include "failure.h"
#include "path_text.h"
#include "value_text.h"

namespace settingsctl {
namespace {

namespace ix = uvc::index;
using settings_manager::Setting;

// The node of `tree` at `target`, made where missing (maps on the way, none at the end).
// `readOnlyAbove` receives the nearest ancestor marked read-only.
Setting& Place(Setting& tree, uvc::Path const& target, bool& existed,
               std::optional<uvc::Path>& readOnlyAbove) {
  Setting* node = &tree;
  existed = true;
  uvc::Path at;
  for (std::size_t i = 0; i < target.size(); ++i) {
    if (node->attributes.readOnly) readOnlyAbove = at;
    auto const& id = target[i];
    if (!existed) node->emplace<ix::kMap>();
    auto* map = std::get_if<ix::kMap>(node);
    auto* list = std::get_if<ix::kList>(node);
    if (auto const* key = std::get_if<1>(&id); key != nullptr && map != nullptr) {
      auto [child, missing] = map->try_emplace(*key);
      existed = !missing;
      node = &child->second;
    } else if (auto const* index = std::get_if<0>(&id); index != nullptr && list != nullptr) {
      if (*index >= list->size())
        throw Failure(status::kNotFound, fmt::format("{} has no element {}", ShowPath(at), *index));
      node = &(*list)[*index];
    } else {
      throw Failure(status::kRefused,
                    fmt::format("{} is {}, which holds no '{}'", ShowPath(at),
                                ATypeName(node->index()), PathField(uvc::Path{id})));
    }
    at.push_back(id);
  }
  return *node;
}

Setting Merged(Setting const& base, Setting&& update) {
  auto const* baseMap = std::get_if<ix::kMap>(&base);
  auto* updateMap = std::get_if<ix::kMap>(&update);
  if (baseMap == nullptr || updateMap == nullptr) return std::move(update);
  Setting result = base;
  auto& children = std::get<ix::kMap>(result);
  for (auto& [key, child] : *updateMap) {
    auto const found = children.find(key);
    children[key] =
        found == children.end() ? std::move(child) : Merged(found->second, std::move(child));
  }
  return result;
}

// The first read-only node of `before` at `path` that `after` (null: gone) changes.
std::optional<uvc::Path> ChangedReadOnly(Setting const& before, Setting const* after,
                                         uvc::Path& path) {
  if (after != nullptr && before == *after) return std::nullopt;
  if (before.attributes.readOnly) return path;
  auto const* oldMap = std::get_if<ix::kMap>(&before);
  auto const* newMap = after ? std::get_if<ix::kMap>(after) : nullptr;
  auto const* oldList = std::get_if<ix::kList>(&before);
  auto const* newList = after ? std::get_if<ix::kList>(after) : nullptr;
  if (oldMap != nullptr && newMap != nullptr) {
    for (auto const& [key, child] : *oldMap) {
      auto const found = newMap->find(key);
      path.emplace_back(std::in_place_index<1>, key);
      auto marked = ChangedReadOnly(child, found == newMap->end() ? nullptr : &found->second, path);
      path.pop_back();
      if (marked) return marked;
    }
    return std::nullopt;
  }
  if (oldList != nullptr && newList != nullptr && oldList->size() == newList->size()) {
    for (std::size_t i = 0; i < oldList->size(); ++i) {
      path.emplace_back(std::in_place_index<0>, i);
      auto marked = ChangedReadOnly((*oldList)[i], &(*newList)[i], path);
      path.pop_back();
      if (marked) return marked;
    }
    return std::nullopt;
  }
  // Gone, or of another kind: whatever is read-only in it changes.
  return FirstReadOnly(before, path);
}

[[noreturn]] void RefuseReadOnly(uvc::Path const& path) {
  throw Failure(status::kRefused,
                fmt::format("{} is read-only (--force imports it anyway)", ShowPath(path)));
}

std::vector<ImportOutcome> TopLevelOutcomes(Setting const& before, Setting const& after,
                                            bool merge) {
  std::vector<ImportOutcome> outcomes;
  auto const& old = std::get<ix::kMap>(before);
  auto const& now = std::get<ix::kMap>(after);
  auto path = [](std::string const& key) {
    return uvc::Path{uvc::Id(std::in_place_index<1>, key)};
  };
  for (auto const& [key, child] : old) {
    auto const found = now.find(key);
    if (found == now.end())
      outcomes.push_back({path(key), "deleted"});
    else if (found->second != child)
      outcomes.push_back({path(key), merge ? "merged" : "replaced"});
  }
  for (auto const& [key, child] : now)
    if (old.count(key) == 0) outcomes.push_back({path(key), "created"});
  std::sort(outcomes.begin(), outcomes.end(),
            [](ImportOutcome const& a, ImportOutcome const& b) { return a.path < b.path; });
  if (outcomes.empty()) outcomes.push_back({uvc::Path(), "unchanged"});
  return outcomes;
}

}  // namespace

std::optional<uvc::Path> FirstReadOnly(Setting const& node, uvc::Path const& path) {
  if (node.attributes.readOnly) return path;
  uvc::Path child = path;
  if (auto const* map = std::get_if<ix::kMap>(&node)) {
    for (auto const& [key, value] : *map) {
      child.emplace_back(std::in_place_index<1>, key);
      if (auto marked = FirstReadOnly(value, child)) return marked;
      child.pop_back();
    }
  } else if (auto const* list = std::get_if<ix::kList>(&node)) {
    for (std::size_t i = 0; i < list->size(); ++i) {
      child.emplace_back(std::in_place_index<0>, i);
      if (auto marked = FirstReadOnly((*list)[i], child)) return marked;
      child.pop_back();
    }
  }
  return std::nullopt;
}

std::vector<ImportOutcome> ImportInto(Setting& tree, uvc::Path const& target, Setting node,
                                      ImportOptions options) {
  bool existed = true;
  std::optional<uvc::Path> readOnlyAbove;
  Setting& slot = Place(tree, target, existed, readOnlyAbove);
  Setting after = options.merge && existed ? Merged(slot, std::move(node)) : std::move(node);
  bool const changes = !existed || slot != after;
  if (changes && !options.force) {
    if (readOnlyAbove) RefuseReadOnly(*readOnlyAbove);
    uvc::Path at = target;
    if (auto marked = existed ? ChangedReadOnly(slot, &after, at) : std::nullopt)
      RefuseReadOnly(*marked);
  }
  std::vector<ImportOutcome> outcomes;
  if (target.empty())
    outcomes = TopLevelOutcomes(slot, after, options.merge);
  else
    outcomes.push_back({target, !existed        ? "created"
                                : !changes      ? "unchanged"
                                : options.merge ? "merged"
                                                : "replaced"});
  slot = std::move(after);
  return outcomes;
}

}  // namespace settingsctl
