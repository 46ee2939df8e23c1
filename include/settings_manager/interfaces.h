#pragma once

/// \file
/// The client interface of the settings manager.
///
/// Every operation returns an int result code: 0 success, 1 where the operation found
/// nothing to change ("unchanged"), a negative code (top bit set) for failure; the codes
/// and their texts are those of fdn::ResultCodeText. No exception leaves an operation.
/// Any thread may call any operation at any time. Paths name nodes from the root map; the
/// root itself can only be subscribed to. A path's first id must be a key, and keys may
/// not hold `/`, the backslash, the double and single quotes, the back-quote, `%`, `_` or
/// a blank; indices go up to 65535. Every operation refuses a path of more than kMaxDepth
/// ids, and a setting that would put a node deeper, with 0x8000005E (limits.h).
/// LastResult (last_result.h) tells why a call failed.

#include <cstdint>
#include <memory>

#include "settings_manager/config.h"
#include "settings_manager/export.h"
#include "settings_manager/setting.h"
#include "uvc/id.h"

namespace settings_manager {

/// Handle of one subscription; issued from 1 upwards, never reused by one manager.
enum class SubscriptionId : std::uint64_t {};

/// The kinds of change an observer is told about; bit flags.
namespace event {
constexpr unsigned char kCreated = 0x01;     ///< CreateSetting
constexpr unsigned char kValue = 0x02;       ///< SetValue
constexpr unsigned char kAttributes = 0x04;  ///< SetAttribute
constexpr unsigned char kSetting = 0x06;     ///< SetSetting: value and attributes
constexpr unsigned char kDeleted = 0x08;     ///< DeleteSetting
}  // namespace event

/// An observer of changes, implemented by clients. Update is called on the manager's own
/// event thread, one call at a time, with no lock of the manager held: it may call the
/// manager, but must not Unsubscribe an observer of the delivery in progress (that call
/// would never return).
class SETTINGS_MANAGER_API ISettingsUpdateObserver {
 public:
  virtual ~ISettingsUpdateObserver() = default;
  /// `path` changed in the way `kind` (event::*) tells; the observer was subscribed at
  /// `path` or at one of its ancestors. Repeated changes of a path before delivery give
  /// one call with the last kind.
  virtual void Update(uvc::Path const& path, unsigned char kind) = 0;
};

/// Creates settings. Obtained from ISettingsManager::GetSettingsCreator.
class SETTINGS_MANAGER_API ISettingsCreator {
 public:
  virtual ~ISettingsCreator() = default;
  /// Creates `value` (with its attributes and subtree) at `path`, and any missing map
  /// levels above it. Returns 0 created (and stored in the database before returning), 1
  /// an identical setting is already there, 0x8000004D a different one is, 0x80000046 an
  /// invalid path, 0x8000006A a valueless value, or a failure code (nothing changed).
  virtual int CreateSetting(uvc::Path const& path, Setting const& value) = 0;
};

/// Reads settings. Obtained from ISettingsManager::GetSettingsGetter.
class SETTINGS_MANAGER_API ISettingsGetter {
 public:
  virtual ~ISettingsGetter() = default;
  /// Copies the attributes of the node at `path` into `out`. 0, or a failure code
  /// (0x8000004C no such node, 0x8000004A a step of the wrong kind, 0x80000046 an invalid
  /// path) with `out` unchanged.
  virtual int GetAttribute(uvc::Path const& path, Attributes& out) const = 0;
  /// Copies the node at `path` (value, subtree, attributes) into `out`, replacing what it
  /// held. 0, or a failure code as GetAttribute with `out` unchanged.
  virtual int GetSetting(uvc::Path const& path, Setting& out) const = 0;
};

/// Changes the values of settings that are not read-only. Obtained from
/// ISettingsManager::GetSettingsValueSetter.
class SETTINGS_MANAGER_API ISettingsValueSetter {
 public:
  virtual ~ISettingsValueSetter() = default;
  /// Gives the existing node at `path` the value `value`, keeping its attributes (and
  /// possibly changing its type). 0 changed, 1 equal value already there, 0x80000066 the
  /// node or something below it is read-only, 0x8000006A a valueless value, or a failure
  /// code (nothing changed).
  virtual int SetValue(uvc::Path const& path, uvc::TValue<Setting> const& value) = 0;
};

/// Changes attributes, and replaces settings whether read-only or not: the privileged
/// setter. Obtained from ISettingsManager::GetSettingsSetter.
class SETTINGS_MANAGER_API ISettingsSetter {
 public:
  virtual ~ISettingsSetter() = default;
  /// Sets the attributes of the node at `path` (the node alone). 0 changed, 1 equal
  /// attributes already there, or a failure code (nothing changed).
  virtual int SetAttribute(uvc::Path const& path, Attributes const& attributes) = 0;
  /// Replaces the node at `path` by `setting`, value and attributes, read-only or not.
  /// 0 changed, 1 identical already, 0x8000006A a valueless setting, or a failure code.
  virtual int SetSetting(uvc::Path const& path, Setting const& setting) = 0;
};

/// Deletes settings. Obtained from ISettingsManager::GetSettingsDeleter.
class SETTINGS_MANAGER_API ISettingsDeleter {
 public:
  virtual ~ISettingsDeleter() = default;
  /// Removes the named node at `path` with its subtree. 0 removed, 1 the parent has no
  /// such name, 0x8000004A a step before the last is missing, 0x80000066 the last id is a
  /// list index (list elements cannot be deleted), or a failure code.
  virtual int DeleteSetting(uvc::Path const& path) = 0;
};

/// Subscribes observers to changes. Obtained from
/// ISettingsManager::GetSettingsUpdateSubscriber.
class SETTINGS_MANAGER_API ISettingsUpdateSubscriber {
 public:
  virtual ~ISettingsUpdateSubscriber() = default;
  /// Subscribes `observer` to changes of `path` and everything below it; the path need
  /// not exist yet, and the root (empty path) is allowed. 0 with `id` set, 0x80000100 an
  /// empty observer, 0x8000004D this observer is already subscribed at this path (`id`
  /// unchanged), 0x80000046 an invalid path.
  virtual int Subscribe(uvc::Path const& path, std::shared_ptr<ISettingsUpdateObserver> observer,
                        SubscriptionId& id) = 0;
  /// Ends the subscription `id`. When it returns 0 the observer is not being called for
  /// it and will not be again. 0x80000046 for id 0, 0x8000004C for an unknown id.
  virtual int Unsubscribe(SubscriptionId id) = 0;
};

/// The manager, which hands out the role interfaces. Each accessor stores into `out` a
/// role interface that shares ownership of the manager: the manager lives until the last
/// root or role pointer is released. Returns 0, or 0x80000001 (with `out` unchanged) when
/// the manager is being destroyed.
///
/// Releasing the last pointer destroys the manager on the releasing thread: it waits for
/// an Update in progress to return, calls no further observer, drops the notifications
/// not yet delivered and closes the database. An observer may itself end up holding the
/// last pointer (one it promoted from a std::weak_ptr inside Update): the manager is then
/// destroyed on the event thread, where the observer lets go of it, in the same way; the
/// observer object outlives its own Update, and the event thread ends by itself as soon
/// as that Update returns.
class SETTINGS_MANAGER_API ISettingsManager {
 public:
  virtual ~ISettingsManager() = default;
  /// Stores the creator role into `out`: 0, or 0x80000001 with `out` unchanged.
  virtual int GetSettingsCreator(std::shared_ptr<ISettingsCreator>& out) = 0;
  /// Stores the getter role into `out`: 0, or 0x80000001 with `out` unchanged.
  virtual int GetSettingsGetter(std::shared_ptr<ISettingsGetter>& out) = 0;
  /// Stores the value setter role into `out`: 0, or 0x80000001 with `out` unchanged.
  virtual int GetSettingsValueSetter(std::shared_ptr<ISettingsValueSetter>& out) = 0;
  /// Stores the setter role into `out`: 0, or 0x80000001 with `out` unchanged.
  virtual int GetSettingsSetter(std::shared_ptr<ISettingsSetter>& out) = 0;
  /// Stores the deleter role into `out`: 0, or 0x80000001 with `out` unchanged.
  virtual int GetSettingsDeleter(std::shared_ptr<ISettingsDeleter>& out) = 0;
  /// Stores the update subscriber role into `out`: 0, or 0x80000001 with `out` unchanged.
  virtual int GetSettingsUpdateSubscriber(std::shared_ptr<ISettingsUpdateSubscriber>& out) = 0;
};

/// Makes a manager: opens or creates the database of `config` and loads its whole tree.
/// Returns 0 with `out` set, or the failure's code with `out` unchanged (a level-5 log
/// record says why). Any number of managers, in this process or in others, may share one
/// file: each change is decided against the file as it is, and each manager's reads and
/// observers take in the changes of the others (not edits made without the library).
SETTINGS_MANAGER_API int CreateSettingsManager(SettingsManagerConfig const& config,
                                               std::shared_ptr<ISettingsManager>& out);

}  // namespace settings_manager
