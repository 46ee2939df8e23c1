#pragma once

/// \file
/// fmt formatters of the settings vocabulary, for `fmt::format("{}", ...)`:
/// - `uvc::Path` prints its text form, or the failure text of settings_manager::PathToStr;
/// - settings_manager::SubscriptionId prints as its plain number; width, fill and the
///   other integer options apply as to any integer.

#include <fmt/format.h>

#include "settings_manager/paths.h"
#include "uvc/format.h"

/// \cond FORMATTERS
template <>
struct fmt::formatter<uvc::Path> : fmt::formatter<fmt::string_view> {
  template <typename Context>
  auto format(uvc::Path const& path, Context& ctx) const {
    auto const text = settings_manager::PathToStr(path);
    return fmt::formatter<fmt::string_view>::format(fmt::string_view(text), ctx);
  }
};
/// \endcond

#include "settings_manager/interfaces.h"

// A subscription id prints as its plain number; integer format options apply.
/// \cond FORMATTERS
template <>
struct fmt::formatter<settings_manager::SubscriptionId> : fmt::formatter<std::uint64_t> {
  template <typename Context>
  auto format(settings_manager::SubscriptionId value, Context& ctx) const {
    return fmt::formatter<std::uint64_t>::format(static_cast<std::uint64_t>(value), ctx);
  }
};
/// \endcond
