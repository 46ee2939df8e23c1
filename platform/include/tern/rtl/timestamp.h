#pragma once

/// \file
/// tern::rtl::Timestamp, the time value of a setting.

#include <cstdint>

namespace tern::rtl {

/// A point in time: microseconds since the Unix epoch (UTC). Eight bytes, value semantics;
/// stored as its eight bytes and carried through unchanged.
class Timestamp {
 public:
  constexpr Timestamp() noexcept = default;
  /// The time `microseconds` after the epoch.
  constexpr explicit Timestamp(std::int64_t microseconds) noexcept : value_(microseconds) {}

  /// The current time of the system clock.
  static Timestamp Now() noexcept;

  /// Microseconds since the epoch.
  constexpr std::int64_t Microseconds() const noexcept { return value_; }

  /// Equal when the microseconds are.
  friend constexpr bool operator==(Timestamp a, Timestamp b) noexcept {
    return a.value_ == b.value_;
  }
  /// The negation of ==.
  friend constexpr bool operator!=(Timestamp a, Timestamp b) noexcept {
    return a.value_ != b.value_;
  }
  /// Earlier than.
  friend constexpr bool operator<(Timestamp a, Timestamp b) noexcept { return a.value_ < b.value_; }

 private:
  std::int64_t value_ = 0;
};

static_assert(sizeof(Timestamp) == 8, "a Timestamp is stored as exactly eight bytes");

}  // namespace tern::rtl
