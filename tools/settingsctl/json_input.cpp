#include "json_input.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>

#include "failure.h"
#include "plain_json.h"
#include "typed_json.h"

namespace settingsctl {
namespace {

nlohmann::json Parse(std::istream& in) {
  try {
    return nlohmann::json::parse(in);
  } catch (nlohmann::json::parse_error const& error) {
    // What follows the "[json.exception.parse_error.101] " tag names line and column.
    std::string text = error.what();
    if (auto const tag = text.find("] "); text.front() == '[' && tag != std::string::npos)
      text.erase(0, tag + 2);
    throw UsageFailure("malformed JSON: " + text);
  }
}

}  // namespace

Document LoadDocument(std::string const& file) {
  nlohmann::json json;
  if (file == "-") {
    json = Parse(std::cin);
  } else {
    std::ifstream in(file, std::ios::binary);
    if (!in) throw UsageFailure(fmt::format("cannot read '{}': {}", file, std::strerror(errno)));
    json = Parse(in);
  }
  if (!IsTypedDocument(json)) return Document{std::nullopt, FromPlainJson(json)};
  auto typed = FromTypedDocument(json);
  return Document{std::move(typed.path), std::move(typed.node)};
}

}  // namespace settingsctl
