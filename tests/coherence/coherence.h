#pragma once

// What the coherence tests share with their writer program: a manager on a file with its
// roles, changes by letter, and its view of everything under "s" as text.

#include <string>

#include "support/manager_fixture.h"

namespace coherence {

using settings_manager::Setting;

struct Client : test_support::Roles {
  int Open(std::string const& db) {
    int const rc = settings_manager::CreateSettingsManager({db}, manager);
    return rc != 0 ? rc : From(*manager) ? 0 : -1;
  }
  // c create, v SetValue, a SetAttribute (value "0"/"1"), s SetSetting (read-only), d delete.
  int Change(char kind, std::string const& key, std::string const& value = "") {
    auto const path = test_support::P(key);
    if (kind == 'c') return creator->CreateSetting(path, Setting(value));
    if (kind == 'v') return valueSetter->SetValue(path, Setting::Value(value));
    if (kind == 'a') return setter->SetAttribute(path, settings_manager::Attributes{value == "1"});
    if (kind == 's') return setter->SetSetting(path, Setting(value, {true}));
    return deleter->DeleteSetting(path);
  }
  // Takes in what the others committed, as every change does first.
  Client& Sync() {
    Change('d', "sync/none");
    return *this;
  }
  // "path=value;" in tree order; '!' marks read-only.
  std::string Dump() {
    Setting s;
    std::string out;
    if (getter->GetSetting(test_support::P("s"), s) == 0) DumpInto(s, "s", out);
    return out;
  }
  static void DumpInto(Setting const& node, std::string const& path, std::string& out) {
    auto const* map = std::get_if<uvc::index::kMap>(&node);
    auto const* text = std::get_if<uvc::index::kString>(&node);
    out += path + "=" +
           (map    ? "{}"
            : text ? *text
                   : "#" + std::to_string(node.index())) +
           (node.attributes.readOnly ? "!;" : ";");
    if (map)
      for (auto const& [key, child] : *map) DumpInto(child, path + "/" + key, out);
  }
  std::shared_ptr<settings_manager::ISettingsManager> manager;
};

}  // namespace coherence
