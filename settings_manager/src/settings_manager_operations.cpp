// The client operations on settings: read, create, change, delete.

#include "auto_del.h"
#include "depth.h"
#include "log.h"
#include "settings_manager.h"
#include "uvc/tree.h"

namespace settings_manager {

using log::kManagerSource;
using log::LogLevel;

// What a replacement of a node compares, keeps and reports: SetValue's or SetSetting's.
struct SettingsManager::Replacement {
  char const* operation;  // its name in its log records
  char const* noun;       // what it replaces, in the type-mismatch record
  bool withAttributes;    // compares and takes the attributes; else the node keeps its own
  bool honoursReadOnly;   // a read-only node refuses it (0x80000066)
  unsigned char kind;     // the event it queues

  static Replacement const kValue;
  static Replacement const kSetting;
};

SettingsManager::Replacement const SettingsManager::Replacement::kValue{"SetValue", "value", false,
                                                                        true, event::kValue};
// The privileged replacement: it takes read-only nodes too.
SettingsManager::Replacement const SettingsManager::Replacement::kSetting{
    "SetSetting", "setting", true, false, event::kSetting};

namespace {

uvc::Error const kInvalidValue{fdn::rc::kInvalidState, "Invalid value"};
uvc::Error const kAttribDiffers{fdn::rc::kBasesCorrupted,
                                "Run-time settings content differs from db data (attrib)"};
uvc::Error const kDeleteDiffers{fdn::rc::kBasesCorrupted,
                                "Run-time settings content differs from db data (delete)"};

}  // namespace

int SettingsManager::GetSetting(uvc::Path const& path, Setting& out) const {
  return Run("GetSetting", __LINE__, path, [&] {
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
  });
}

int SettingsManager::GetAttribute(uvc::Path const& path, Attributes& out) const {
  return Run("GetAttribute", __LINE__, path, [&] {
    Check(path);
    Attributes attributes;
    RefreshIfStale();
    {
      ReaderLock lock(treeLock);
      attributes = uvc::GetItem(tree, path).attributes;
    }
    out = attributes;
    return fdn::rc::kOk;
  });
}

int SettingsManager::CreateSetting(uvc::Path const& path, Setting const& value) {
  int const result = Run("CreateSetting", __LINE__, path, [&] {
    Check(path);
    if (value.valueless_by_exception()) throw kInvalidValue;
    CheckDepth(path, value);
    return Change("Set", [&](StoreChange& change, EventThread& notify) REQUIRES(treeLock) {
      uvc::Path target = path;
      Setting created = value;
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
  });
  if (result == fdn::rc::kOk)
    SM_LOG(LogLevel::Debug, kManagerSource, "CreateSetting", "{} CreateSetting({})", id, path);
  return result;
}

int SettingsManager::SetValue(uvc::Path const& path, uvc::TValue<Setting> const& value) {
  // A value carries no attributes: the rows get cleared ones, the node keeps its own.
  return Replace(path, value, Attributes(), Replacement::kValue);
}

int SettingsManager::SetSetting(uvc::Path const& path, Setting const& setting) {
  return Replace(path, setting, setting.attributes, Replacement::kSetting);
}

int SettingsManager::Replace(uvc::Path const& path, Setting::Value const& value,
                             Attributes const& attributes, Replacement const& how) {
  int const result = Run(how.operation, __LINE__, path, [&] {
    Check(path);
    if (value.valueless_by_exception()) throw kInvalidValue;
    CheckDepth(path, value);
    Setting replacement(value);
    replacement.attributes = attributes;
    auto const rows = MakeRawSetting(path, replacement);
    return Change("Set", [&](StoreChange& change, EventThread& notify) REQUIRES(treeLock) {
      Setting& node = uvc::GetItem(tree, path);
      // A change of type is reported, not refused.
      if (node.index() != uvc::index::kNone && node.index() != replacement.index())
        SM_LOG(LogLevel::Error, kManagerSource, how.operation,
               "{} ### {}({}): old/new {} type mismatch: {}/{}", id, how.operation, path, how.noun,
               node.index(), replacement.index());
      if (how.withAttributes ? node == replacement : node.value() == replacement.value())
        return fdn::rc::kFalse;
      if (how.honoursReadOnly && IsReadOnly(node)) return fdn::rc::kProhibited;
      if (db) {
        db->Replace(rows);
        Commit_(change, rows.front().path);
      }
      if (how.withAttributes)
        node = replacement;
      else
        node.value() = replacement.value();
      PushEvent_(notify, uvc::Path(path), how.kind);
      return fdn::rc::kOk;
    });
  });
  if (result == fdn::rc::kOk)
    SM_LOG(LogLevel::Trace, kManagerSource, how.operation, "{} {}({})", id, how.operation, path);
  return result;
}

int SettingsManager::SetAttribute(uvc::Path const& path, Attributes const& attributes) {
  int const result = Run("SetAttribute", __LINE__, path, [&] {
    Check(path);
    auto const key = MakeStringPath(path);
    impl::RawAttrib const record(attributes);
    return Change("Upd", [&](StoreChange& change, EventThread& notify) REQUIRES(treeLock) {
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
  });
  if (result == fdn::rc::kOk)
    SM_LOG(LogLevel::Trace, kManagerSource, "SetAttribute", "{} SetAttribute({}) = {}", id, path,
           attributes.readOnly);
  return result;
}

int SettingsManager::DeleteSetting(uvc::Path const& path) {
  int const removed = Run("DeleteSetting", __LINE__, path, [&] {
    Check(path);
    if (path.back().index() != 1)
      throw uvc::Error(fdn::rc::kProhibited, "Only Tree item can be removed");
    auto const key = MakeStringPath(path);
    return Change("Del", [&](StoreChange& change, EventThread& notify) REQUIRES(treeLock) {
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
  });
  if (removed >= 0)
    SM_LOG(LogLevel::Debug, kManagerSource, "DeleteSetting", "{} DeleteSetting({})", id, path);
  return removed;
}

}  // namespace settings_manager
