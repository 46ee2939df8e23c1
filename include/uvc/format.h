#pragma once

/// \file
/// fmt formatters of the uvc vocabulary: uvc::IdState prints its number; a uvc::Result
/// prints the display text of its code (fdn::ResultCodeText; the pair's own text is not
/// printed).

#include <fmt/format.h>

#include <cstdint>

#include "fdn/result_codes.h"
#include "uvc/error.h"
#include "uvc/path.h"

/// \cond FORMATTERS
template <>
struct fmt::formatter<uvc::IdState> : fmt::formatter<unsigned> {
  template <typename Context>
  auto format(uvc::IdState state, Context& ctx) const {
    return fmt::formatter<unsigned>::format(static_cast<unsigned>(state), ctx);
  }
};
/// \endcond

/// \cond FORMATTERS
template <>
struct fmt::formatter<uvc::Result> : fmt::formatter<fmt::string_view> {
  template <typename Context>
  auto format(uvc::Result const& result, Context& ctx) const {
    auto const text = fdn::ResultCodeText(result.first);
    return fmt::formatter<fmt::string_view>::format(fmt::string_view(text), ctx);
  }
};
/// \endcond
