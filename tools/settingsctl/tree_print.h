#pragma once

#include <string>

#include "settings_manager/setting.h"

namespace settingsctl {

// The listing of `setting` under the name `name`, one line a node, two blanks of indent
// a level, children in key or index order:
//
//   network: map
//     dns: list
//       0: string = "192.0.2.53"
//     port: uint16 = 8080
//   version: string = "1.4.2" [read-only]
std::string TreeText(std::string const& name, settings_manager::Setting const& setting);

// The listing of the children of a map or list, each at the left margin.
std::string ChildrenText(settings_manager::Setting const& container);

}  // namespace settingsctl
