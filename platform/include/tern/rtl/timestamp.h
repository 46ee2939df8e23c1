#pragma once

#include <cstdint>

namespace tern::rtl {

// A point in time: microseconds since the Unix epoch (UTC). Eight bytes, value semantics;
// stored as its eight bytes and carried through unchanged.
class Timestamp {
 public:
  constexpr Timestamp() noexcept = default;
  constexpr explicit Timestamp(std::int64_t microseconds) noexcept : value_(microseconds) {}

  static Timestamp Now() noexcept;

  constexpr std::int64_t Microseconds() const noexcept { return value_; }

  friend constexpr bool operator==(Timestamp a, Timestamp b) noexcept { return a.value_ == b.value_; }
  friend constexpr bool operator!=(Timestamp a, Timestamp b) noexcept { return a.value_ != b.value_; }
  friend constexpr bool operator<(Timestamp a, Timestamp b) noexcept { return a.value_ < b.value_; }

 private:
  std::int64_t value_ = 0;
};

static_assert(sizeof(Timestamp) == 8, "a Timestamp is stored as exactly eight bytes");

}  // namespace tern::rtl
