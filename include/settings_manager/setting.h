#pragma once

#include "settings_manager/export.h"
#include "uvc/value.h"

namespace settings_manager {

// The attributes of one node.
struct Attributes {
  // The value may not be changed through the value setter. A read-only node also makes
  // every ancestor count as read-only (see IsReadOnly).
  bool readOnly = false;

  friend bool operator==(Attributes const& a, Attributes const& b) { return a.readOnly == b.readOnly; }
  friend bool operator!=(Attributes const& a, Attributes const& b) { return !(a == b); }
};

// One node of the settings tree: a value of sixteen alternatives (uvc::TValue) and the
// node's attributes. Lists and maps own their children by value; copying a Setting copies
// its subtree with every node's attributes. A default Setting holds uvc_sm::None.
//
// The variant operations work on it directly: s.index(), std::get<std::string>(s),
// std::holds_alternative<bool>(s); a wrong alternative throws std::bad_variant_access.
struct Setting : uvc::TValue<Setting> {
  using Value = uvc::TValue<Setting>;
  using Value::Value;
  using Value::operator=;

  Setting() = default;
  Setting(Value value, Attributes attrs = {}) : Value(std::move(value)), attributes(attrs) {}

  Value& value() & { return *this; }
  Value const& value() const& { return *this; }

  Attributes attributes;
};

// Equal when both hold the same alternative with equal contents and equal attributes;
// children compare recursively, attributes included.
inline bool operator==(Setting const& a, Setting const& b) {
  return a.attributes == b.attributes && a.value() == b.value();
}
inline bool operator!=(Setting const& a, Setting const& b) { return !(a == b); }

// True when `setting` or any node below it has readOnly set. A valueless node answers
// false.
SETTINGS_MANAGER_API bool IsReadOnly(Setting const& setting);

}  // namespace settings_manager
