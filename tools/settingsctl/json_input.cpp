#include "json_input.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>

#include "failure.h"
#include "path_text.h"
#include "plain_json.h"
#include "typed_json.h"

namespace settingsctl {
namespace {

// A typed document spends two JSON levels on each setting level ({"value": {...}}), plus
// the document's own.
constexpr std::size_t kMaxJsonDepth = 2 * kMaxDepth + 2;

// nlohmann's parser and the conversions recurse once per level, so the nesting is
// measured on the text first: brackets outside strings.
bool NestsTooDeep(std::string const& text) {
  std::size_t depth = 0;
  bool inString = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    char const c = text[i];
    if (inString) {
      if (c == '\\')
        ++i;
      else if (c == '"')
        inString = false;
    } else if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      if (++depth > kMaxJsonDepth) return true;
    } else if ((c == ']' || c == '}') && depth > 0) {
      --depth;
    }
  }
  return false;
}

// Levels below a node, counted no further than `limit`.
std::size_t Depth(settings_manager::Setting const& node, std::size_t limit) {
  if (limit == 0) return 0;
  std::size_t deepest = 0;
  if (auto const* map = std::get_if<uvc::index::kMap>(&node)) {
    for (auto const& [key, child] : *map) deepest = std::max(deepest, 1 + Depth(child, limit - 1));
  } else if (auto const* list = std::get_if<uvc::index::kList>(&node)) {
    for (auto const& child : *list) deepest = std::max(deepest, 1 + Depth(child, limit - 1));
  }
  return deepest;
}

std::string ReadAll(std::string const& file) {
  if (file == "-") {
    return std::string(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
  }
  std::ifstream in(file, std::ios::binary);
  if (!in) throw UsageFailure(fmt::format("cannot read '{}': {}", file, std::strerror(errno)));
  std::ostringstream text;
  text << in.rdbuf();
  if (in.bad()) throw UsageFailure(fmt::format("cannot read '{}': {}", file, std::strerror(errno)));
  return text.str();
}

}  // namespace

std::optional<nlohmann::json> ParseJson(std::string const& text, bool lenient) {
  if (NestsTooDeep(text))
    throw UsageFailure(
        fmt::format("settings nest at most {} levels deep, and the JSON goes deeper", kMaxDepth));
  try {
    return nlohmann::json::parse(text);
  } catch (nlohmann::json::parse_error const& error) {
    if (lenient) return std::nullopt;
    // What follows the "[json.exception.parse_error.101] " tag names line and column.
    std::string message = error.what();
    if (auto const tag = message.find("] "); message.front() == '[' && tag != std::string::npos)
      message.erase(0, tag + 2);
    throw UsageFailure("malformed JSON: " + message);
  }
}

void CheckDepth(uvc::Path const& at, settings_manager::Setting const& node) {
  if (at.size() + Depth(node, kMaxDepth + 1) > kMaxDepth)
    throw UsageFailure(
        fmt::format("settings nest at most {} levels deep, and this one goes deeper", kMaxDepth));
}

Document LoadDocument(std::string const& file) {
  auto const json = *ParseJson(ReadAll(file));
  if (!IsTypedDocument(json)) return Document{std::nullopt, FromPlainJson(json)};
  auto typed = FromTypedDocument(json);
  return Document{std::move(typed.path), std::move(typed.node)};
}

}  // namespace settingsctl
