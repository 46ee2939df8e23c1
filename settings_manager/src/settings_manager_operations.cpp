// The client operations on settings: read, create, change, delete.

#include "auto_del.h"
#include "depth.h"
#include "log.h"
#include "settings_manager.h"
#include "uvc/tree.h"

namespace settings_manager {

using log::kManagerSource;
using log::LogLevel;

namespace {

uvc::Error const kInvalidValue{fdn::rc::kInvalidState, "Invalid value"};
uvc::Error const kAttribDiffers{fdn::rc::kBasesCorrupted,
                                "Run-time settings content differs from db data (attrib)"};
uvc::Error const kDeleteDiffers{fdn::rc::kBasesCorrupted,
                                "Run-time settings content differs from db data (delete)"};

}  // namespace

int SettingsManager::GetSetting(uvc::Path const& path, Setting& out) const {
  try {
    Check(path);
    Setting copy;
    RefreshIfStale();
    {
      ReaderLock lock(treeLock);
      copy = uvc::GetItem(tree, path);
    }
    // The caller's old value is destroyed here, outside the lock.
    std::swap(out, copy);
    return fdn::rc::kOk;
  } catch (std::exception const&) {
    return Failed("GetSetting", __LINE__, path);
  }
}

int SettingsManager::GetAttribute(uvc::Path const& path, Attributes& out) const {
  try {
    Check(path);
    Attributes attributes;
    RefreshIfStale();
    {
      ReaderLock lock(treeLock);
      attributes = uvc::GetItem(tree, path).attributes;
    }
    out = attributes;
    return fdn::rc::kOk;
  } catch (std::exception const&) {
    return Failed("GetAttribute", __LINE__, path);
  }
}

int SettingsManager::CreateSetting(uvc::Path const& path, Setting const& value) {
  try {
    Check(path);
    if (value.valueless_by_exception()) throw kInvalidValue;
    CheckDepth(path, value);
    EventThread notify(*this);
    int const result = WithRoom([&] {
      uvc::Path target = path;
      Setting created = value;
      WriterLock lock(treeLock);
      StoreChange change(*this, notify, "Set");
      Setting* parent = &tree;
      std::size_t existing = 0;
      for (; existing < target.size(); ++existing) {
        Setting* child = uvc::FindItem(*parent, target[existing]);
        if (child == nullptr) break;
        parent = child;
      }
      if (existing == target.size()) return *parent == created ? fdn::rc::kFalse : fdn::rc::kFound;

      // Every missing level is made: a new key of a map, and a list index at or beyond
      // the end (the gap before it is filled with None).
      uvc::SetItem(
          *parent,
          uvc::aux::MakeRefRange(static_cast<std::int64_t>(existing), target.size(), target),
          std::move(created), uvc::edit_mode::Append | uvc::edit_mode::Insert);
      if (db) {
        // The rows come from the grown tree, so the tree changes first and is undone
        // when the database refuses. The deepest existing node's whole subtree is
        // rewritten, keeping the rows an exact image of it.
        AutoDel undo(*parent, target[existing]);
        auto const rows = MakeRawSetting(uvc::aux::MakeRefRange(0, existing, target), *parent);
        db->Replace(rows);
        Commit_(change, rows.front().path);
        undo.Disarm();
      }
      PushEvent_(notify, std::move(target), event::kCreated);
      return fdn::rc::kOk;
    });
    if (result != fdn::rc::kOk) return result;
  } catch (std::exception const&) {
    return Failed("CreateSetting", __LINE__, path);
  }
  SM_LOG(LogLevel::Debug, kManagerSource, "CreateSetting", "{} CreateSetting({})", id, path);
  return fdn::rc::kOk;
}

int SettingsManager::SetValue(uvc::Path const& path, uvc::TValue<Setting> const& value) {
  try {
    Check(path);
    if (value.valueless_by_exception()) throw kInvalidValue;
    CheckDepth(path, value);
    // A value carries no attributes: the rows get cleared ones, the node keeps its own.
    Setting replacement(value);
    auto const rows = MakeRawSetting(path, replacement);
    EventThread notify(*this);
    int const result = WithRoom([&] {
      WriterLock lock(treeLock);
      StoreChange change(*this, notify, "Set");
      Setting& node = uvc::GetItem(tree, path);
      // A change of type is reported, not refused.
      if (node.index() != uvc::index::kNone && node.index() != replacement.index())
        SM_LOG(LogLevel::Error, kManagerSource, "SetValue",
               "{} ### SetValue({}): old/new value type mismatch: {}/{}", id, path, node.index(),
               replacement.index());
      if (node.value() == replacement.value()) return fdn::rc::kFalse;
      if (IsReadOnly(node)) return fdn::rc::kProhibited;
      if (db) {
        db->Replace(rows);
        Commit_(change, rows.front().path);
      }
      node.value() = replacement.value();
      PushEvent_(notify, uvc::Path(path), event::kValue);
      return fdn::rc::kOk;
    });
    if (result != fdn::rc::kOk) return result;
  } catch (std::exception const&) {
    return Failed("SetValue", __LINE__, path);
  }
  SM_LOG(LogLevel::Trace, kManagerSource, "SetValue", "{} SetValue({})", id, path);
  return fdn::rc::kOk;
}

int SettingsManager::SetSetting(uvc::Path const& path, Setting const& setting) {
  try {
    Check(path);
    if (setting.valueless_by_exception()) throw kInvalidValue;
    CheckDepth(path, setting);
    Setting replacement = setting;
    auto const rows = MakeRawSetting(path, replacement);
    EventThread notify(*this);
    int const result = WithRoom([&] {
      WriterLock lock(treeLock);
      StoreChange change(*this, notify, "Set");
      Setting& node = uvc::GetItem(tree, path);
      if (node.index() != uvc::index::kNone && node.index() != replacement.index())
        SM_LOG(LogLevel::Error, kManagerSource, "SetSetting",
               "{} ### SetSetting({}): old/new setting type mismatch: {}/{}", id, path,
               node.index(), replacement.index());
      if (node == replacement) return fdn::rc::kFalse;
      // No read-only check: this is the privileged replacement.
      if (db) {
        db->Replace(rows);
        Commit_(change, rows.front().path);
      }
      node = replacement;
      PushEvent_(notify, uvc::Path(path), event::kSetting);
      return fdn::rc::kOk;
    });
    if (result != fdn::rc::kOk) return result;
  } catch (std::exception const&) {
    return Failed("SetSetting", __LINE__, path);
  }
  SM_LOG(LogLevel::Trace, kManagerSource, "SetSetting", "{} SetSetting({})", id, path);
  return fdn::rc::kOk;
}

int SettingsManager::SetAttribute(uvc::Path const& path, Attributes const& attributes) {
  try {
    Check(path);
    auto const key = MakeStringPath(path);
    impl::RawAttrib const record(attributes);
    EventThread notify(*this);
    int const result = WithRoom([&] {
      WriterLock lock(treeLock);
      StoreChange change(*this, notify, "Upd");
      Setting& node = uvc::GetItem(tree, path);
      if (node.attributes == attributes) return fdn::rc::kFalse;
      if (db) {
        if (db->Upd(key, record) != 1) throw kAttribDiffers;
        Commit_(change, key);
      }
      node.attributes = attributes;
      PushEvent_(notify, uvc::Path(path), event::kAttributes);
      return fdn::rc::kOk;
    });
    if (result != fdn::rc::kOk) return result;
  } catch (std::exception const&) {
    return Failed("SetAttribute", __LINE__, path);
  }
  SM_LOG(LogLevel::Trace, kManagerSource, "SetAttribute", "{} SetAttribute({}) = {}", id, path,
         attributes.readOnly);
  return fdn::rc::kOk;
}

int SettingsManager::DeleteSetting(uvc::Path const& path) {
  int removed = fdn::rc::kOk;
  try {
    Check(path);
    if (path.back().index() != 1)
      throw uvc::Error(fdn::rc::kProhibited, "Only Tree item can be removed");
    auto const key = MakeStringPath(path);
    EventThread notify(*this);
    removed = WithRoom([&] {
      WriterLock lock(treeLock);
      StoreChange change(*this, notify, "Del");
      int const rows = db ? db->Del(key) : -1;
      // Rows removed are committed whatever the tree holds.
      if (rows > 0) Commit_(change, key);
      int const deleted = uvc::DelItem(tree, path, false);
      if (deleted == fdn::rc::kOk) {
        // The removal stands even when the database had no row for it.
        PushEvent_(notify, uvc::Path(path), event::kDeleted);
        if (rows == 0) throw kDeleteDiffers;
      } else if (rows == 1) {
        throw kDeleteDiffers;
      }
      return deleted;
    });
  } catch (std::exception const&) {
    return Failed("DeleteSetting", __LINE__, path);
  }
  if (removed >= 0)
    SM_LOG(LogLevel::Debug, kManagerSource, "DeleteSetting", "{} DeleteSetting({})", id, path);
  return removed;
}

}  // namespace settings_manager
