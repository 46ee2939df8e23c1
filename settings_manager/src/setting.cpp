#include "settings_manager/setting.h"

#include <cstring>
#include <type_traits>
#include <utility>
#include <vector>

#include "uvc/tree.h"

namespace settings_manager {
namespace {

namespace ix = uvc::index;
using Value = Setting::Value;

// Scalars of the same alternative: doubles by their bits, the rest by their own ==.
bool SameScalar(Value const& a, Value const& b) {
  return std::visit(
      [&b](auto const& left) {
        using T = std::decay_t<decltype(left)>;
        if constexpr (std::is_same_v<T, double>) {
          double const right = std::get<double>(b);
          return std::memcmp(&left, &right, sizeof left) == 0;
        } else if constexpr (std::is_same_v<T, std::vector<Setting>> ||
                             std::is_same_v<T, std::map<std::string, Setting, std::less<>>>) {
          return false;  // containers are compared by EqualTrees
        } else {
          return left == std::get<T>(b);
        }
      },
      a);
}

// Walks both trees side by side with a stack of the pairs still to compare.
bool EqualTrees(Value const& first, Value const& second) {
  std::vector<std::pair<Value const*, Value const*>> pending{{&first, &second}};
  auto const push = [&pending](Setting const& a, Setting const& b) {
    if (a.attributes != b.attributes) return false;
    pending.emplace_back(&a, &b);
    return true;
  };
  while (!pending.empty()) {
    auto const [a, b] = pending.back();
    pending.pop_back();
    if (a->index() != b->index()) return false;
    if (a->valueless_by_exception()) continue;
    if (auto const* list = std::get_if<ix::kList>(a)) {
      auto const& other = std::get<ix::kList>(*b);
      if (list->size() != other.size()) return false;
      for (std::size_t i = 0; i < list->size(); ++i)
        if (!push((*list)[i], other[i])) return false;
    } else if (auto const* map = std::get_if<ix::kMap>(a)) {
      auto const& other = std::get<ix::kMap>(*b);
      if (map->size() != other.size()) return false;
      for (auto i = map->begin(), j = other.begin(); i != map->end(); ++i, ++j)
        if (i->first != j->first || !push(i->second, j->second)) return false;
    } else if (!SameScalar(*a, *b)) {
      return false;
    }
  }
  return true;
}

}  // namespace

bool operator==(Setting const& a, Setting const& b) {
  return a.attributes == b.attributes && EqualTrees(a, b);
}

bool operator==(Setting::Value const& a, Setting::Value const& b) { return EqualTrees(a, b); }

bool IsReadOnly(Setting const& setting) {
  auto const result = uvc::ForEach(setting, [](Setting const& node, uvc::Path const&) {
    // A valueless node's flag is not trusted; the walk ends on it with its own result.
    if (node.valueless_by_exception()) return uvc::for_each::Continue;
    return node.attributes.readOnly ? uvc::for_each::Stop : uvc::for_each::Continue;
  });
  return result == uvc::for_each::Stop;
}

}  // namespace settings_manager
