#pragma once

// The typed JSON form of settings: every node an object that names its type, so that an
// export read back by import gives the same tree, bit for bit, read-only marks included.
//
//   {"format": "settingsctl/1", "path": "device", "node": NODE}
//   NODE: {"type": "uint16", "value": 8080, "readOnly": true}
//
// "readOnly" is written only when true. Values by type: none has none; list an array of
// nodes; map an object of nodes; bool true/false; integers JSON numbers; double a JSON
// number, or "inf", "-inf", "nan", "nan:0x<16 hex digits>" for the others; timestamp its
// microseconds since 1970; string its text, or "hex" instead of "value" for text that is
// not UTF-8; bytes hex text.

#include <nlohmann/json.hpp>
#include <string>

#include "settings_manager/setting.h"
#include "uvc/id.h"

namespace settingsctl {

inline constexpr char kTypedFormat[] = "settingsctl/1";

// The typed document of `node`, exported from `path`, as text ending in a newline.
std::string TypedDocumentText(uvc::Path const& path, settings_manager::Setting const& node);

nlohmann::ordered_json ToTypedJson(settings_manager::Setting const& node);

// Whether `json` is a typed document rather than plain JSON.
bool IsTypedDocument(nlohmann::json const& json);

struct TypedDocument {
  uvc::Path path;
  settings_manager::Setting node;
};

// Reads a typed document; throws a usage Failure naming the place of what is wrong.
TypedDocument FromTypedDocument(nlohmann::json const& json);

settings_manager::Setting FromTypedJson(nlohmann::json const& json,
                                        nlohmann::json::json_pointer const& where);

}  // namespace settingsctl
