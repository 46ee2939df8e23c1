#pragma once

/// \file
/// Ids and paths: the addresses of nodes in a tree.

#include <cstdint>
#include <functional>
#include <string>
#include <variant>
#include <vector>

namespace uvc {

/// One step of a path: a list index (alternative 0) or a map key (alternative 1).
using Id = std::variant<std::uint64_t, std::string>;

/// The steps from the root to a node; the empty path names the root. Paths order
/// lexicographically id by id, every index before every key, numbers numerically and
/// keys bytewise: the default ordering of std::vector and std::variant.
using Path = std::vector<Id>;

/// The process-wide empty path, made on first use.
inline Path const& Root() {
  static Path const root;
  return root;
}

namespace aux {

/// A view of part of a path: references to the ids of a Path that outlives it.
using RefWrapper = std::reference_wrapper<Id const>;
/// A range of such references, as uvc::SetItem takes it.
using RefRange = std::vector<RefWrapper>;

/// The ids of `path` from `begin` up to but not including `end`. A negative `begin`
/// counts from the end of the path; both ends are clamped to the path, so a `begin`
/// beyond the size gives an empty range.
inline RefRange MakeRefRange(std::int64_t begin, std::size_t end, Path const& path) {
  auto const size = static_cast<std::int64_t>(path.size());
  if (begin < 0) begin = begin + size < 0 ? 0 : begin + size;
  auto const last = end > path.size() ? size : static_cast<std::int64_t>(end);
  RefRange range;
  for (auto i = begin; i < last; ++i) range.emplace_back(path[static_cast<std::size_t>(i)]);
  return range;
}

/// Makes a Path from a range of ids or id references.
template <typename Ids>
Path ToPath(Ids const& ids) {
  Path path;
  path.reserve(ids.size());
  for (Id const& id : ids) path.push_back(id);
  return path;
}

}  // namespace aux
}  // namespace uvc
