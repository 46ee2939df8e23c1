#include "path_text.h"

#include <fmt/format.h>

#include <algorithm>

#include "failure.h"
#include "settings_manager/paths.h"
#include "uvc/path.h"

namespace settingsctl {
namespace {

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

std::string CharName(char c) {
  if (c == ' ') return "' ' (a blank)";
  return fmt::format("'{}'", c);
}

// The index a step of digits names, or nothing above the library's limit.
std::optional<std::uint64_t> Index(std::string_view step) {
  auto const limit = settings_manager::meta::GetIdSpecification().indexLimit;
  if (step.size() > 19) return std::nullopt;  // beyond 64 bits
  std::uint64_t value = 0;
  for (char c : step) value = value * 10 + static_cast<std::uint64_t>(c - '0');
  if (limit != 0 && value > limit) return std::nullopt;
  return value;
}

}  // namespace

std::optional<std::string> KeyProblem(std::string_view key) {
  if (key.empty()) return std::string("a key must not be empty");
  if (IsDigit(key.front())) return std::string("a key must not begin with a digit");
  auto const& special = settings_manager::meta::GetIdSpecification().specialChars;
  if (auto const at = key.find_first_of(special); at != std::string_view::npos)
    return "a key must not hold " + CharName(key[at]);
  return std::nullopt;
}

uvc::Path ParsePath(std::string_view text) {
  std::string_view rest = text;
  if (!rest.empty() && rest.front() == '/') rest.remove_prefix(1);
  if (!rest.empty() && rest.back() == '/') rest.remove_suffix(1);
  uvc::Path path;
  if (rest.empty()) return path;
  auto fail = [&](std::string const& rule) {
    return UsageFailure(fmt::format("invalid path '{}': {}", text, rule));
  };
  for (std::size_t start = 0;;) {
    auto const end = std::min(rest.find('/', start), rest.size());
    auto const step = rest.substr(start, end - start);
    if (step.empty()) throw fail("a path has no empty steps");
    if (std::all_of(step.begin(), step.end(), IsDigit)) {
      if (path.empty())
        throw fail(fmt::format("a path begins with a key, not a list index ('{}')", step));
      auto const index = Index(step);
      if (!index)
        throw fail(fmt::format("a list index goes up to {} ('{}')",
                               settings_manager::meta::GetIdSpecification().indexLimit, step));
      path.emplace_back(std::in_place_index<0>, *index);
    } else if (auto const problem = KeyProblem(step)) {
      throw fail(fmt::format("{} ('{}')", *problem, step));
    } else {
      path.emplace_back(std::in_place_index<1>, std::string(step));
    }
    if (path.size() > kMaxDepth)
      throw UsageFailure(fmt::format("invalid path: a path has at most {} steps", kMaxDepth));
    if (end == rest.size()) return path;
    start = end + 1;
  }
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
