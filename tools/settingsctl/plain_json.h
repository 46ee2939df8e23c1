#pragma once

#include <nlohmann/json.hpp>

#include "settings_manager/setting.h"

namespace settingsctl {

// A setting made from plain JSON with the default types: object -> map, array -> list,
// string -> string, true/false -> bool, integer -> int64 (uint64 above the int64 range),
// other numbers -> double, null -> none. Throws a usage Failure for a key that may not
// name a setting, naming where it is in the document.
settings_manager::Setting FromPlainJson(
    nlohmann::json const& json,
    nlohmann::json::json_pointer const& where = nlohmann::json::json_pointer());

// The plain JSON of a setting for people and scripts: maps as objects, lists as arrays,
// numbers, booleans and strings as such, none as null, timestamps as their ISO text and
// bytes as hex text. Types and read-only marks are left out (the typed form keeps them).
nlohmann::ordered_json ToPlainJson(settings_manager::Setting const& setting);

// The text of a JSON value, two blanks an indent, text that is not UTF-8 replaced.
std::string JsonText(nlohmann::ordered_json const& json);

// Where a part of a document is, for messages: "/node/value/port", or "the top".
std::string Where(nlohmann::json::json_pointer const& where);

}  // namespace settingsctl
