#include "settings_manager/paths.h"

#include <exception>

#include "settings_manager/format.h"

namespace settings_manager {
namespace meta {

uvc::IdSpec const& GetIdSpecification() {
  // The percent sign and the underscore are LIKE wildcards: no stored key may hold one.
  static uvc::IdSpec const spec{"/\\\"'`%_ ", 65535};
  return spec;
}

}  // namespace meta

std::string PathToStr(uvc::Path const& path) noexcept {
  try {
    auto [text, state] = uvc::ToString(path, meta::GetIdSpecification());
    if (state == uvc::IdState::Ok) return std::move(text);
    return fmt::format("<path to str fail: state = {}>", state);
  } catch (std::exception const&) {
    return fmt::format("<path to str fail: '{}'>", uvc::ProcessException().second);
  }
}

}  // namespace settings_manager
