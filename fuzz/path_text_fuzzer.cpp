// Path text, as rows and command lines give it: parsing never crashes, and a parsed path
// writes back to a text that parses to the same path.

#include <cstdint>
#include <string_view>

#include "settings_manager/paths.h"
#include "uvc/path.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::string_view const text(reinterpret_cast<char const*>(data), size);
  auto const& rules = settings_manager::meta::GetIdSpecification();
  auto const [path, state] = uvc::FromString(text, rules);
  if (state != uvc::IdState::Ok) {
    if (!path.empty()) __builtin_trap();  // a refused text gives no path
    return 0;
  }
  for (auto const& id : path)
    if (uvc::aux::CheckId(id, rules) != uvc::IdState::Ok) __builtin_trap();
  auto const [written, writtenState] = uvc::ToString(path, rules);
  if (writtenState != uvc::IdState::Ok) __builtin_trap();
  auto const [again, againState] = uvc::FromString(written, rules);
  if (againState != uvc::IdState::Ok || again != path) __builtin_trap();
  if (settings_manager::PathToStr(path) != written) __builtin_trap();
  return 0;
}
