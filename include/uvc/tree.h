#pragma once

/// \file
/// Generic operations on a tree of nodes S, where S derives from uvc::TValue<S>: look a
/// child up, store a value at an id or a path, remove a child, walk a subtree.
/// GetItem and SetItem throw uvc::Error (or std::bad_variant_access); DelItem returns codes.

#include <cstdint>
#include <type_traits>
#include <utility>
#include <variant>

#include "uvc/error.h"
#include "uvc/id.h"
#include "uvc/value.h"

namespace uvc {

/// Flags of SetItem.
using EditMode = std::uint8_t;
namespace edit_mode {
constexpr EditMode Append = 1;   ///< a list index at or beyond the end: the list grows
constexpr EditMode Insert = 2;   ///< a map key not yet present
constexpr EditMode Replace = 4;  ///< overwrite an existing element or entry, or a node on
                                 ///< the path whose kind does not fit the next id
constexpr EditMode All = Append | Insert | Replace;  ///< every store is allowed
}  // namespace edit_mode

namespace for_each {
/// What a ForEach visitor returns, and what the walk returns.
enum Option : std::uint8_t {
  Continue = 0,   ///< go on
  Pass = 1,       ///< a non-stopping result that is passed up
  Stop = 2,       ///< ends the whole walk
  Valueless = 3,  ///< the walk met a valueless node and ended
};
}  // namespace for_each

namespace detail {

template <typename Ids>
using EnableIfIdRange =
    std::enable_if_t<!std::is_convertible_v<Ids const&, Id const&> &&
                     std::is_convertible_v<decltype(*std::declval<Ids const&>().begin()), Id const&>>;

/// The child of `node` at `id`, or null when it is missing or `id` does not fit the node.
template <typename S>
S* FindChild(S& node, Id const& id) noexcept {
  if (auto const* key = std::get_if<1>(&id)) {
    auto* map = std::get_if<index::kMap>(&node);
    if (map == nullptr) return nullptr;
    auto it = map->find(*key);
    return it == map->end() ? nullptr : &it->second;
  }
  if (auto const* number = std::get_if<0>(&id)) {
    auto* list = std::get_if<index::kList>(&node);
    if (list == nullptr || *number >= list->size()) return nullptr;
    return &(*list)[static_cast<std::size_t>(*number)];
  }
  return nullptr;
}

/// Whether `id` addresses children of the kind of container `node` holds.
template <typename S>
bool Fits(S const& node, Id const& id) noexcept {
  return (id.index() == 0 && node.index() == index::kList) ||
         (id.index() == 1 && node.index() == index::kMap);
}

template <typename S, typename Visitor>
for_each::Option Walk(S& node, Path& path, Visitor& visitor) {
  auto const own = static_cast<for_each::Option>(visitor(node, std::as_const(path)));
  if (own == for_each::Stop || own == for_each::Valueless) return own;
  if (node.valueless_by_exception()) return for_each::Valueless;
  auto result = own;
  auto visitChild = [&](auto& child) {
    auto const r = Walk(child, path, visitor);
    path.pop_back();
    if (r != for_each::Continue) result = r;
    return r == for_each::Stop || r == for_each::Valueless;
  };
  if (auto* map = std::get_if<index::kMap>(&node)) {
    for (auto& entry : *map) {
      path.emplace_back(std::in_place_index<1>, entry.first);
      if (visitChild(entry.second)) return result;
    }
  } else if (auto* list = std::get_if<index::kList>(&node)) {
    for (std::size_t i = 0; i < list->size(); ++i) {
      path.emplace_back(std::in_place_index<0>, static_cast<std::uint64_t>(i));
      if (visitChild((*list)[i])) return result;
    }
  }
  return result;
}

}  // namespace detail

/// The child at `id`, or null when it is missing or `id` does not fit the node: a key is
/// looked up only in a map, an index only in a list and only below its size. Never throws.
template <typename S>
S* FindItem(S& node, Id const& id) noexcept {
  return detail::FindChild(node, id);
}

/// The child at `id`. A key needs a map and an index a list (else std::bad_variant_access);
/// a missing child throws kErrorNotFound.
template <typename S>
S& GetItem(S& node, Id const& id) {
  if (auto const* key = std::get_if<1>(&id)) {
    auto& map = std::get<index::kMap>(node);
    auto it = map.find(*key);
    if (it == map.end()) throw kErrorNotFound;
    return it->second;
  }
  auto const number = std::get<0>(id);
  auto& list = std::get<index::kList>(node);
  if (number >= list.size()) throw kErrorNotFound;
  return list[static_cast<std::size_t>(number)];
}

/// The node at `path`, applying GetItem id by id; the root path gives `node` itself.
template <typename S>
S& GetItem(S& node, Path const& path) {
  S* current = &node;
  for (auto const& id : path) current = &GetItem(*current, id);
  return *current;
}

/// Stores `value` at `id` of `node`, as `mode` permits, and returns the stored node.
/// A list index beyond the end first fills the gap with default nodes. A value stored
/// into an existing slot brings its attributes along.
template <typename S>
S& SetItem(S& node, Id const& id, S&& value, EditMode mode) {
  if (auto const* number = std::get_if<0>(&id)) {
    auto* list = std::get_if<index::kList>(&node);
    if (list == nullptr) throw kErrorNotMatched;
    if (*number < list->size()) {
      if (!(mode & edit_mode::Replace)) throw kErrorFound;
      auto& slot = (*list)[static_cast<std::size_t>(*number)];
      slot = std::move(value);
      return slot;
    }
    if (!(mode & edit_mode::Append)) throw kErrorNotFound;
    list->resize(static_cast<std::size_t>(*number));
    list->push_back(std::move(value));
    return list->back();
  }
  auto const* key = std::get_if<1>(&id);
  auto* map = std::get_if<index::kMap>(&node);
  if (key == nullptr || map == nullptr) throw kErrorNotMatched;
  // Keys often come in order (a tree read back from its sorted rows): a key above the last
  // one goes to the end without a search.
  auto it = !map->empty() && map->key_comp()(map->rbegin()->first, *key) ? map->end()
                                                                         : map->lower_bound(*key);
  if (it == map->end() || map->key_comp()(*key, it->first)) {
    if (!(mode & edit_mode::Insert)) throw kErrorNotFound;
    return map->emplace_hint(it, *key, std::move(value))->second;
  }
  if (!(mode & edit_mode::Replace)) throw kErrorFound;
  it->second = std::move(value);
  return it->second;
}

/// Stores `value` at the end of `ids` (a Path or a RefRange) below `node`, building the
/// missing levels: a map before a key, a list before an index. Returns the node stored.
/// With Replace, a node on the way whose kind does not fit the next id becomes a container
/// of the fitting kind and keeps its own attributes. A store the mode refuses changes nothing.
template <typename S, typename Ids, typename = detail::EnableIfIdRange<Ids>>
S& SetItem(S& node, Ids const& ids, S&& value, EditMode mode) {
  auto const count = static_cast<std::size_t>(ids.size());
  if (count == 0) {
    if (!(mode & edit_mode::Replace)) throw kErrorFound;
    node = std::move(value);
    return node;
  }
  auto idAt = [&ids](std::size_t i) -> Id const& { return *(ids.begin() + static_cast<std::ptrdiff_t>(i)); };

  S* insertion = &node;
  std::size_t k = 0;
  for (; k + 1 < count; ++k) {
    S* next = detail::FindChild(*insertion, idAt(k));
    if (next == nullptr) break;
    insertion = next;
  }
  Id const& first = idAt(k);
  bool const fits = detail::Fits(*insertion, first);
  if (!fits && (!(mode & edit_mode::Replace) || first.valueless_by_exception()))
    throw kErrorNotMatched;

  S chain = std::move(value);
  for (std::size_t j = count - 1; j > k; --j) {
    Id const& id = idAt(j);
    S holder;
    if (id.index() == 0)
      holder.template emplace<index::kList>();
    else if (id.index() == 1)
      holder.template emplace<index::kMap>();
    else
      throw kErrorNotMatched;
    SetItem(holder, id, std::move(chain), edit_mode::All);
    chain = std::move(holder);
  }
  if (fits) {
    SetItem(*insertion, first, std::move(chain), mode);
  } else {
    // Filled aside, so that a store the mode refuses leaves the unfitting node untouched;
    // the node then takes only the new container and keeps its attributes.
    S fresh;
    if (first.index() == 0)
      fresh.template emplace<index::kList>();
    else
      fresh.template emplace<index::kMap>();
    SetItem(fresh, first, std::move(chain), mode);
    static_cast<TValue<S>&>(*insertion) = std::move(static_cast<TValue<S>&>(fresh));
  }
  S* stored = insertion;
  for (std::size_t j = k; j < count; ++j) stored = &GetItem(*stored, idAt(j));
  return *stored;
}

/// Removes the child at `id`: 0 removed, 1 not present, 0x8000004A when `id` does not fit
/// the node. A list element is erased (later elements move down) or, with `erase` false,
/// reset to an empty value in place, keeping its attributes and the list's length.
template <typename S>
int DelItem(S& node, Id const& id, bool erase) {
  if (auto const* number = std::get_if<0>(&id)) {
    auto* list = std::get_if<index::kList>(&node);
    if (list == nullptr) return fdn::rc::kNotMatched;
    if (*number >= list->size()) return fdn::rc::kFalse;
    auto const at = static_cast<std::size_t>(*number);
    if (erase)
      list->erase(list->begin() + static_cast<std::ptrdiff_t>(at));
    else
      (*list)[at].template emplace<index::kNone>();
    return fdn::rc::kOk;
  }
  auto const* key = std::get_if<1>(&id);
  auto* map = std::get_if<index::kMap>(&node);
  if (key == nullptr || map == nullptr) return fdn::rc::kNotMatched;
  auto it = map->find(*key);
  if (it == map->end()) return fdn::rc::kFalse;
  map->erase(it);
  return fdn::rc::kOk;
}

/// Removes the node at `path`: the root cannot be removed (0x80000046); a missing or
/// unfitting step before the last gives 0x8000004A; then as the one-level DelItem.
template <typename S>
int DelItem(S& node, Path const& path, bool erase) {
  if (path.empty()) return fdn::rc::kInvalidArgument;
  S* parent = &node;
  for (std::size_t i = 0; i + 1 < path.size(); ++i) {
    parent = detail::FindChild(*parent, path[i]);
    if (parent == nullptr) return fdn::rc::kNotMatched;
  }
  return DelItem(*parent, path.back(), erase);
}

/// Walks `node` depth-first, parents before children, map entries in key order and list
/// elements in index order. `visitor(node, path)` gets each node with `path` extended from
/// `start` and returns a for_each::Option; Stop ends the walk, a valueless node ends it
/// with Valueless, and the last Pass of a subtree is passed up.
template <typename S, typename Visitor>
for_each::Option ForEach(S& node, Path& start, Visitor&& visitor) {
  return detail::Walk(node, start, visitor);
}

/// As ForEach above, with paths starting at the empty path.
template <typename S, typename Visitor>
for_each::Option ForEach(S& node, Visitor&& visitor) {
  Path path;
  return detail::Walk(node, path, visitor);
}

}  // namespace uvc
