#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "settings_manager/settings_manager.h"

namespace settingsctl {

// One manager and its role interfaces, as a device program holds them. Every operation
// turns a library failure into a Failure whose text says what went wrong and carries the
// library's result text; "unchanged" answers come back as false.
class Session {
 public:
  // Opens (or creates) the database at `dbPath`; an empty path keeps the tree in memory.
  explicit Session(std::string const& dbPath);

  settings_manager::Setting Get(uvc::Path const& path) const;
  // The node at `path`, or nothing when there is none.
  std::optional<settings_manager::Setting> Find(uvc::Path const& path) const;
  settings_manager::Attributes GetAttributes(uvc::Path const& path) const;

  // Each returns true when it changed the tree and false when there was nothing to change.
  bool Create(uvc::Path const& path, settings_manager::Setting const& setting);
  bool SetValue(uvc::Path const& path, settings_manager::Setting::Value const& value);
  bool Replace(uvc::Path const& path, settings_manager::Setting const& setting);
  bool SetAttributes(uvc::Path const& path, settings_manager::Attributes const& attributes);
  void Delete(uvc::Path const& path);

  settings_manager::SubscriptionId Subscribe(
      uvc::Path const& path, std::shared_ptr<settings_manager::ISettingsUpdateObserver> observer);
  void Unsubscribe(settings_manager::SubscriptionId id);

  // The paths this session changed since the last call, in the order of the changes: each
  // is one change event of the library.
  std::vector<uvc::Path> TakeChanges();

 private:
  bool Changed(int code, uvc::Path const& path, char const* hint);

  std::shared_ptr<settings_manager::ISettingsManager> manager_;
  std::shared_ptr<settings_manager::ISettingsGetter> getter_;
  std::shared_ptr<settings_manager::ISettingsCreator> creator_;
  std::shared_ptr<settings_manager::ISettingsValueSetter> valueSetter_;
  std::shared_ptr<settings_manager::ISettingsSetter> setter_;
  std::shared_ptr<settings_manager::ISettingsDeleter> deleter_;
  std::shared_ptr<settings_manager::ISettingsUpdateSubscriber> subscriber_;
  std::vector<uvc::Path> changes_;
};

}  // namespace settingsctl
