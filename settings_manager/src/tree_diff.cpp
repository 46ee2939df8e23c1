#include "tree_diff.h"

#include "settings_manager/interfaces.h"

namespace settings_manager {
namespace {

namespace ix = uvc::index;

void Report(uvc::Path const& at, unsigned char kind, ChangeSink const& changed) {
  if (!at.empty()) changed(at, kind);
}

// Children are compared one by one only where both sides hold them alike.
bool SameShape(Setting const& before, Setting const& after) {
  if (before.index() != after.index()) return false;
  if (before.index() == ix::kMap) return true;
  return before.index() == ix::kList &&
         std::get<ix::kList>(before).size() == std::get<ix::kList>(after).size();
}

void DiffMaps(Setting const& before, Setting const& after, uvc::Path& at,
              ChangeSink const& changed) {
  auto const& old = std::get<ix::kMap>(before);
  auto const& now = std::get<ix::kMap>(after);
  auto o = old.begin();
  auto n = now.begin();
  // Both maps are in key order: one merge walk reports in path order.
  while (o != old.end() || n != now.end()) {
    bool const onlyOld = n == now.end() || (o != old.end() && o->first < n->first);
    bool const onlyNew = !onlyOld && (o == old.end() || n->first < o->first);
    at.emplace_back(std::in_place_index<1>, onlyOld ? o->first : n->first);
    if (onlyOld)
      Report(at, event::kDeleted, changed);
    else if (onlyNew)
      Report(at, event::kCreated, changed);
    else
      DiffTrees(o->second, n->second, at, changed);
    at.pop_back();
    if (!onlyNew) ++o;
    if (!onlyOld) ++n;
  }
}

}  // namespace

void DiffTrees(Setting const& before, Setting const& after, uvc::Path& at,
               ChangeSink const& changed) {
  if (before == after) return;
  bool const attributes = before.attributes != after.attributes;
  if (!SameShape(before, after)) {
    bool const value = before.value() != after.value();
    Report(at,
           value && attributes ? event::kSetting
           : value             ? event::kValue
                               : event::kAttributes,
           changed);
    return;
  }
  if (attributes) Report(at, event::kAttributes, changed);
  if (before.index() == ix::kMap) {
    DiffMaps(before, after, at, changed);
    return;
  }
  auto const& old = std::get<ix::kList>(before);
  auto const& now = std::get<ix::kList>(after);
  for (std::size_t i = 0; i < old.size(); ++i) {
    at.emplace_back(std::in_place_index<0>, i);
    DiffTrees(old[i], now[i], at, changed);
    at.pop_back();
  }
}

}  // namespace settings_manager
