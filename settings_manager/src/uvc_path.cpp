#include <limits>

#include "uvc/path.h"

#include "id_rules.h"

namespace uvc {
namespace {

constexpr std::uint64_t kMaxWritable = 9999999999999999999ull;  // 19 digits

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// A digit-led segment: decimal digits only, fitting 64 bits, within the index limit.
IdState ParseIndex(std::string_view segment, aux::IdRules const& rules, std::uint64_t& out) {
  for (char c : segment)
    if (!IsDigit(c)) return IdState::BadChar;
  std::uint64_t value = 0;
  constexpr auto kMax = std::numeric_limits<std::uint64_t>::max();
  for (char c : segment) {
    auto const digit = static_cast<std::uint64_t>(c - '0');
    if (value > (kMax - digit) / 10) return IdState::NumberError;
    value = value * 10 + digit;
  }
  if (rules.IndexTooBig(value)) return IdState::IndexTooBig;
  out = value;
  return IdState::Ok;
}

}  // namespace

namespace aux {

IdState CheckId(Id const& id, IdSpec const& spec) { return IdRules(spec).Check(id); }

}  // namespace aux

std::pair<std::string, IdState> ToString(Path const& path, IdSpec const& spec) {
  if (spec.specialChars.empty()) return {std::string(), IdState::NoSeparator};
  char const separator = spec.specialChars.front();
  aux::IdRules const rules(spec);
  std::string text;
  for (auto const& id : path) {
    auto const state = rules.Check(id);
    if (state != IdState::Ok) return {std::string(), state};
    if (auto const* key = std::get_if<1>(&id)) {
      text += *key;
    } else {
      auto const number = std::get<0>(id);
      // Twenty digits cannot be written; reachable only without an index limit.
      if (number > kMaxWritable) return {std::string(), IdState::NumberError};
      text += std::to_string(number);
    }
    text += separator;
  }
  return {std::move(text), IdState::Ok};
}

std::pair<Path, IdState> FromString(std::string_view text, IdSpec const& spec) {
  if (spec.specialChars.empty()) return {Path(), IdState::NoSeparator};
  char const separator = spec.specialChars.front();
  aux::IdRules const rules(spec);
  Path path;
  std::size_t pos = 0;
  while (pos < text.size()) {
    auto const end = text.find(separator, pos);
    auto const segment = text.substr(pos, end == std::string_view::npos ? text.npos : end - pos);
    if (segment.empty()) return {Path(), IdState::EmptyId};
    if (IsDigit(segment.front())) {
      std::uint64_t number = 0;
      auto const state = ParseIndex(segment, rules, number);
      if (state != IdState::Ok) return {Path(), state};
      path.emplace_back(std::in_place_index<0>, number);
    } else {
      if (rules.HasSpecial(segment)) return {Path(), IdState::BadChar};
      path.emplace_back(std::in_place_index<1>, segment);
    }
    if (end == std::string_view::npos) break;
    pos = end + 1;
  }
  return {std::move(path), IdState::Ok};
}

}  // namespace uvc
