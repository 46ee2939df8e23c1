#include "path_text.h"

#include <fmt/format.h>

#include <algorithm>

#include "failure.h"
#include "settings_manager/paths.h"
#include "uvc/path.h"

namespace settingsctl {
namespace {

char const* StateText(uvc::IdState state) {
  switch (state) {
    case uvc::IdState::Ok:
      return "ok";
    case uvc::IdState::IndexTooBig:
      return "a list index above 65535";
    case uvc::IdState::NumberError:
      return "a number that cannot be read";
    case uvc::IdState::EmptyName:
    case uvc::IdState::EmptyId:
      return "an empty step";
    case uvc::IdState::DigitFirst:
      return "a key that begins with a digit";
    case uvc::IdState::BadChar:
      return "a character keys may not hold (/ \\ \" ' ` % _ or a blank)";
    case uvc::IdState::InvalidId:
    case uvc::IdState::NoSeparator:
      break;
  }
  return "an invalid step";
}

}  // namespace

uvc::Path ParsePath(std::string_view text) {
  if (text == "/") return uvc::Path();
  auto [path, state] = uvc::FromString(text, settings_manager::meta::GetIdSpecification());
  if (state != uvc::IdState::Ok)
    throw UsageFailure(fmt::format("invalid path '{}': {}", text, StateText(state)));
  return std::move(path);
}

bool IsValidKey(std::string const& key, std::string& reason) {
  auto const state = uvc::aux::CheckId(uvc::Id(std::in_place_index<1>, key),
                                       settings_manager::meta::GetIdSpecification());
  if (state == uvc::IdState::Ok) return true;
  reason = StateText(state);
  return false;
}

std::string PathField(uvc::Path const& path) {
  auto text = uvc::ToString(path, settings_manager::meta::GetIdSpecification()).first;
  if (!text.empty()) text.pop_back();  // the separator that ends every step
  return text;
}

std::string ShowPath(uvc::Path const& path) {
  if (path.empty()) return "/";
  auto text = PathField(path);
  // A path that made it into the tree always has a text; this covers the impossible.
  return text.empty() ? settings_manager::PathToStr(path) : text;
}

bool IsWithin(uvc::Path const& path, uvc::Path const& ancestor) {
  return ancestor.size() <= path.size() &&
         std::equal(ancestor.begin(), ancestor.end(), path.begin());
}

}  // namespace settingsctl
