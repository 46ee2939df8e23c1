#pragma once

#include <cstddef>
#include <string>
#include <vector>

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

// One line of `ls`: a child's name, type and read-only mark.
struct ListedChild {
  std::string name;
  std::size_t type;
  bool readOnly;
};

// The lines of `ls`, one a child: "port: uint16", "version: string [read-only]".
std::string ListingText(std::vector<ListedChild> const& children);

}  // namespace settingsctl
