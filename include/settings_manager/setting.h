#pragma once

/// \file
/// The node of the settings tree, settings_manager::Setting, and its attributes.

#include "settings_manager/export.h"
#include "uvc/value.h"

namespace settings_manager {

/// The attributes of one node.
struct Attributes {
  /// The value may not be changed through the value setter. A read-only node also makes
  /// every ancestor count as read-only (see IsReadOnly).
  bool readOnly = false;

  /// Equal when every attribute is equal.
  friend bool operator==(Attributes const& a, Attributes const& b) {
    return a.readOnly == b.readOnly;
  }
  /// The negation of ==.
  friend bool operator!=(Attributes const& a, Attributes const& b) { return !(a == b); }
};

/// One node of the settings tree: a value of sixteen alternatives (uvc::TValue) and the
/// node's attributes. Lists and maps own their children by value; copying a Setting copies
/// its subtree with every node's attributes. A default Setting holds uvc_sm::None.
///
/// The variant operations work on it directly: s.index(), std::get<std::string>(s),
/// std::holds_alternative<bool>(s); a wrong alternative throws std::bad_variant_access.
struct Setting : uvc::TValue<Setting> {
  /// The value alone, without attributes: what ISettingsValueSetter::SetValue takes.
  using Value = uvc::TValue<Setting>;
  using Value::Value;
  using Value::operator=;

  Setting() = default;
  /// A node holding `value`, with the attributes `attrs`.
  Setting(Value value, Attributes attrs = {}) : Value(std::move(value)), attributes(attrs) {}

  /// The node's value, without its attributes.
  Value& value() & { return *this; }
  /// The node's value, without its attributes.
  Value const& value() const& { return *this; }

  /// The node's own attributes; each child carries its own.
  Attributes attributes;
};

/// Equal when both hold the same alternative with equal contents and equal attributes;
/// children compare the same way, attributes included. Doubles compare by their bits, so
/// that equal means stored alike: -0.0 differs from 0.0, and a NaN equals the NaN of the
/// same payload. Two valueless nodes are equal. Does not recurse: any depth is safe.
SETTINGS_MANAGER_API bool operator==(Setting const& a, Setting const& b);
/// The negation of ==.
inline bool operator!=(Setting const& a, Setting const& b) { return !(a == b); }

/// Equal values, as for Setting ==, without the attributes of the two nodes themselves
/// (those of their children count): what SetValue compares to decide "unchanged".
SETTINGS_MANAGER_API bool operator==(Setting::Value const& a, Setting::Value const& b);
/// The negation of ==.
inline bool operator!=(Setting::Value const& a, Setting::Value const& b) { return !(a == b); }

/// True when `setting` or any node below it has readOnly set. A valueless node answers
/// false.
SETTINGS_MANAGER_API bool IsReadOnly(Setting const& setting);

}  // namespace settings_manager
