#pragma once

#include <optional>
#include <string>

#include "settings_manager/setting.h"
#include "uvc/id.h"

namespace settingsctl {

// A settings document read from a file: typed (with the path it was exported from) or
// plain JSON (no path).
struct Document {
  std::optional<uvc::Path> path;
  settings_manager::Setting node;
};

// Reads `file` ("-" for standard input) as a typed document or as plain JSON. Throws a
// usage Failure: a file that cannot be read says why, malformed JSON names its line and
// column, a bad typed node names its place in the document.
Document LoadDocument(std::string const& file);

}  // namespace settingsctl
