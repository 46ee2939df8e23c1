#pragma once

#include <nlohmann/json.hpp>
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
// column, a bad typed node names its place in the document, and nesting beyond
// kMaxDepth is refused before the JSON is parsed.
Document LoadDocument(std::string const& file);

// Parses JSON text whose nesting was checked first. Throws a usage Failure for nesting
// beyond what kMaxDepth settings need, and for malformed JSON unless `lenient`, which
// answers nothing instead.
std::optional<nlohmann::json> ParseJson(std::string const& text, bool lenient = false);

// Throws a usage Failure when `node` placed at `at` nests deeper than kMaxDepth.
void CheckDepth(uvc::Path const& at, settings_manager::Setting const& node);

}  // namespace settingsctl
