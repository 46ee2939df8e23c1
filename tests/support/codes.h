#pragma once

// Result codes in checks: EXPECT_RC/ASSERT_RC compare a code with the expected one and name
// both by their texts on failure.

#include <gtest/gtest.h>

#include <cstdint>

#include "fdn/result_codes.h"

namespace test_support {

// A code written in hex, as tests spell them, so that a wrong constant shows.
constexpr int Code(std::uint32_t bits) { return static_cast<int>(bits); }

// A result code compared with the expected one; a failure names both by their texts.
inline ::testing::AssertionResult RcEquals(char const* expression, char const*, int actual,
                                           long long expected) {
  auto const want = static_cast<int>(expected);
  if (actual == want) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << expression << " gave " << fdn::ResultCodeText(actual)
                                       << ", expected " << fdn::ResultCodeText(want);
}

}  // namespace test_support

#define EXPECT_RC(expr, code) EXPECT_PRED_FORMAT2(::test_support::RcEquals, expr, code)
#define ASSERT_RC(expr, code) ASSERT_PRED_FORMAT2(::test_support::RcEquals, expr, code)
