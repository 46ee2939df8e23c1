#include "tree_diff.h"

#include <cstring>

namespace settings_manager {
namespace {

namespace ix = uvc::index;

// Same alternative assumed; containers compare by their own rules, not here.
bool SameScalar(Setting const& a, Setting const& b) {
  if (a.index() == ix::kDouble) {
    double const x = std::get<ix::kDouble>(a);
    double const y = std::get<ix::kDouble>(b);
    return std::memcmp(&x, &y, sizeof x) == 0;
  }
  return a.value() == b.value();
}

void DiffMaps(Setting const& before, Setting const& after, uvc::Path& path,
              DiffReport const& report) {
  auto const& old = std::get<ix::kMap>(before);
  auto const& now = std::get<ix::kMap>(after);
  auto o = old.begin();
  auto n = now.begin();
  // Both in key order: one merge pass.
  while (o != old.end() || n != now.end()) {
    bool const takeOld = n == now.end() || (o != old.end() && o->first < n->first);
    bool const takeNew = o == old.end() || (n != now.end() && n->first < o->first);
    path.emplace_back(std::in_place_index<1>, takeOld ? o->first : n->first);
    if (takeOld) {
      report(path, event::kDeleted);
      ++o;
    } else if (takeNew) {
      report(path, event::kCreated);
      ++n;
    } else {
      DiffTrees(o->second, n->second, path, report);
      ++o;
      ++n;
    }
    path.pop_back();
  }
}

}  // namespace

void DiffTrees(Setting const& before, Setting const& after, uvc::Path& path,
               DiffReport const& report) {
  unsigned char const attributes = before.attributes == after.attributes ? 0 : event::kAttributes;
  auto const index = before.index();
  bool const container = index == ix::kMap || index == ix::kList;
  bool valueChanged = index != after.index();
  if (!valueChanged && index == ix::kList)
    valueChanged = std::get<ix::kList>(before).size() != std::get<ix::kList>(after).size();
  if (!valueChanged && !container) valueChanged = !SameScalar(before, after);

  if (valueChanged || attributes != 0)
    report(path, static_cast<unsigned char>((valueChanged ? event::kValue : 0) | attributes));
  if (valueChanged || !container) return;
  if (index == ix::kMap) return DiffMaps(before, after, path, report);
  auto const& old = std::get<ix::kList>(before);
  auto const& now = std::get<ix::kList>(after);
  for (std::size_t i = 0; i < old.size(); ++i) {
    path.emplace_back(std::in_place_index<0>, static_cast<std::uint64_t>(i));
    DiffTrees(old[i], now[i], path, report);
    path.pop_back();
  }
}

}  // namespace settings_manager
