#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "settings_manager/limits.h"
#include "uvc/id.h"

namespace settingsctl {

// The deepest nesting the tool accepts, in path steps from the root to the deepest node:
// paths, values and documents alike. The library's own limit, so that anything the tool
// accepts the library stores, and the tool refuses deeper input before parsing it.
using settings_manager::kMaxDepth;

// Parses a path as users write it: "network/port", with an optional leading and final
// slash; "" and "/" name the whole tree. Throws a usage Failure that names the rule the
// path breaks: "invalid path 'wifi/5ghz': a key must not begin with a digit ('5ghz')".
uvc::Path ParsePath(std::string_view text);

// The rule `key` breaks as a key of a map ("a key must not hold ' ' (a blank)"), or
// nothing when it may name a setting.
std::optional<std::string> KeyProblem(std::string_view key);

// The path as users write it: "network/port" without the final slash, "/" for the root.
std::string ShowPath(uvc::Path const& path);

// The path without the "/" of the root: for file formats, where the root is "".
std::string PathField(uvc::Path const& path);

// Whether `path` is `ancestor` or lies below it.
bool IsWithin(uvc::Path const& path, uvc::Path const& ancestor);

}  // namespace settingsctl
