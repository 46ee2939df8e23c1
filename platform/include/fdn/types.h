#pragma once

namespace fdn::types {

// The SQL NULL of the database value variant: carries nothing, all NULLs are equal.
struct NullType {
  friend constexpr bool operator==(NullType, NullType) noexcept { return true; }
  friend constexpr bool operator!=(NullType, NullType) noexcept { return false; }
};

}  // namespace fdn::types
