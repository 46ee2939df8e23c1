// Whole-tree access: listing, reading and editing the whole tree through the manager.

#include "depth.h"
#include "log.h"
#include "settings_manager.h"
#include "tree_diff.h"
#include "uvc/tree.h"

namespace settings_manager {

using log::kManagerSource;
using log::LogLevel;

namespace {

uvc::Error const kRootNotMap{fdn::rc::kInvalidState, "Invalid value: the root must be a map"};

template <typename Manager>
auto* Implementation(Manager& manager) {
  using Target =
      std::conditional_t<std::is_const_v<Manager>, SettingsManager const, SettingsManager>;
  return dynamic_cast<Target*>(&manager);
}

// Fills in what `info` tells of `child` but its id.
ChildInfo& Describe(Setting const& child, ChildInfo& info) {
  info.type = child.index();
  info.attributes = child.attributes;
  return info;
}

}  // namespace

int SettingsManager::ListChildren(uvc::Path const& path, std::vector<ChildInfo>& out) const {
  return Run("ListChildren", __LINE__, path, [&] {
    if (!path.empty()) Check(path);
    std::vector<ChildInfo> children;
    RefreshIfStale();
    {
      ReaderLock lock(treeLock);
      Setting const& node = uvc::GetItem(tree, path);
      if (auto const* map = std::get_if<uvc::index::kMap>(&node)) {
        children.reserve(map->size());
        for (auto const& [key, child] : *map) Describe(child, children.emplace_back()).id = key;
      } else if (auto const* list = std::get_if<uvc::index::kList>(&node)) {
        children.reserve(list->size());
        for (std::size_t i = 0; i < list->size(); ++i)
          Describe((*list)[i], children.emplace_back()).id.emplace<0>(i);
      } else {
        throw uvc::Error(fdn::rc::kNotMatched, "Not a map or a list");
      }
    }
    out.swap(children);
    return fdn::rc::kOk;
  });
}

int SettingsManager::GetTree(Setting& out) const {
  return Run("GetTree", __LINE__, uvc::Root(), [&] {
    Setting copy;
    RefreshIfStale();
    {
      ReaderLock lock(treeLock);
      copy = tree;
    }
    // The caller's old value is destroyed here, outside the lock.
    std::swap(out, copy);
    return fdn::rc::kOk;
  });
}

int SettingsManager::EditTree(TreeEdit const& edit) {
  Setting replaced;  // the old tree, destroyed after the lock is released
  int const result = Run("EditTree", __LINE__, uvc::Root(), [&] {
    return Change("Set", [&](StoreChange& change, EventThread& notify) REQUIRES(treeLock) {
      // The edit sees the file as it is: what other managers committed is taken in first.
      Setting edited = tree;
      if (int const refused = edit(edited); refused != fdn::rc::kOk) return refused;
      if (edited.valueless_by_exception() || edited.index() != uvc::index::kMap) throw kRootNotMap;
      CheckDepth(uvc::Root(), edited);
      if (edited == tree) return fdn::rc::kFalse;
      if (db) {
        // Every row of the tree: the empty root path replaces all of them. The root in the
        // change log makes every other manager read the whole file again.
        db->Replace(MakeRawSetting(uvc::Path(), edited));
        Commit_(change, std::string());
      }
      PushDiff_(notify, uvc::Root(), &tree, &edited);
      std::swap(tree, edited);
      replaced = std::move(edited);
      return fdn::rc::kOk;
    });
  });
  if (result == fdn::rc::kOk)
    SM_LOG(LogLevel::Debug, kManagerSource, "EditTree", "{} EditTree()", id);
  return result;
}

int ListChildren(ISettingsManager const& manager, uvc::Path const& path,
                 std::vector<ChildInfo>& out) {
  auto const* implementation = Implementation(manager);
  return implementation ? implementation->ListChildren(path, out) : fdn::rc::kInterfaceNotSupported;
}

int GetTree(ISettingsManager const& manager, Setting& out) {
  auto const* implementation = Implementation(manager);
  return implementation ? implementation->GetTree(out) : fdn::rc::kInterfaceNotSupported;
}

int EditTree(ISettingsManager& manager, TreeEdit const& edit) {
  auto* implementation = Implementation(manager);
  return implementation ? implementation->EditTree(edit) : fdn::rc::kInterfaceNotSupported;
}

int CompareTrees(Setting const& before, Setting const& after,
                 std::function<void(uvc::Path const& path, unsigned char kind)> const& changed) {
  try {
    uvc::Path at;
    DiffTrees(before, after, at, changed);
    return fdn::rc::kOk;
  } catch (...) {
    return uvc::ProcessException().first;
  }
}

int ReplaceTree(ISettingsManager& manager, Setting const& tree) {
  return EditTree(manager, [&tree](Setting& current) {
    current = tree;
    return fdn::rc::kOk;
  });
}

}  // namespace settings_manager
