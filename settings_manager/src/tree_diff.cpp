#include "tree_diff.h"

namespace settings_manager {
namespace {

namespace ix = uvc::index;

// Changes are reported below the root only: the root itself is never a changed setting.
void Report(uvc::Path const& path, unsigned char kind, DiffReport const& report) {
  if (!path.empty()) report(path, kind);
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
      Report(path, event::kDeleted, report);
      ++o;
    } else if (takeNew) {
      Report(path, event::kCreated, report);
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
  if (!valueChanged && !container) valueChanged = before.value() != after.value();

  if (valueChanged || attributes != 0)
    Report(path, static_cast<unsigned char>((valueChanged ? event::kValue : 0) | attributes),
           report);
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
