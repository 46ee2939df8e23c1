#pragma once

/// \file
/// The id rules of settings paths, and paths as text for messages.

#include <string>

#include "settings_manager/export.h"
#include "uvc/id.h"
#include "uvc/path.h"

namespace settings_manager {
namespace meta {

/// The id rules of every settings path: keys may not hold `/`, the backslash, the
/// double and single quotes, the back-quote, `%`, `_` or a blank (the slash separates),
/// and list indices go up to 65535.
SETTINGS_MANAGER_API uvc::IdSpec const& GetIdSpecification();

}  // namespace meta

/// The text of a path for messages: its text form, or `<path to str fail: state = N>`
/// when it cannot be written. Never fails.
SETTINGS_MANAGER_API std::string PathToStr(uvc::Path const& path) noexcept;

}  // namespace settings_manager
