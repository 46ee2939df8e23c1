#pragma once

// The six role interfaces of one manager, for the suites and the fuzz targets alike.

#include <memory>

#include "settings_manager/settings_manager.h"

namespace test_support {

// The six role interfaces of one manager.
struct Roles {
  // Fills every pointer from `manager`; true when all six accessors answered 0.
  bool From(settings_manager::ISettingsManager& manager) {
    return manager.GetSettingsCreator(creator) == 0 && manager.GetSettingsGetter(getter) == 0 &&
           manager.GetSettingsValueSetter(valueSetter) == 0 &&
           manager.GetSettingsSetter(setter) == 0 && manager.GetSettingsDeleter(deleter) == 0 &&
           manager.GetSettingsUpdateSubscriber(subscriber) == 0;
  }
  void Reset() { *this = Roles(); }

  std::shared_ptr<settings_manager::ISettingsCreator> creator;
  std::shared_ptr<settings_manager::ISettingsGetter> getter;
  std::shared_ptr<settings_manager::ISettingsValueSetter> valueSetter;
  std::shared_ptr<settings_manager::ISettingsSetter> setter;
  std::shared_ptr<settings_manager::ISettingsDeleter> deleter;
  std::shared_ptr<settings_manager::ISettingsUpdateSubscriber> subscriber;
};

}  // namespace test_support
