#pragma once

#include <string>
#include <string_view>

#include "uvc/id.h"

namespace settingsctl {

// Parses a path as users write it: "network/port", with an optional final slash; "" and
// "/" name the whole tree. Throws a usage Failure that says what is wrong with it.
uvc::Path ParsePath(std::string_view text);

// Whether `key` may name a setting; `reason` says why not.
bool IsValidKey(std::string const& key, std::string& reason);

// The path as users write it: "network/port" without the final slash, "/" for the root.
std::string ShowPath(uvc::Path const& path);

// The path without the "/" of the root: for file formats, where the root is "".
std::string PathField(uvc::Path const& path);

// Whether `path` is `ancestor` or lies below it.
bool IsWithin(uvc::Path const& path, uvc::Path const& ancestor);

}  // namespace settingsctl
