#pragma once

#include <cstdint>
#include <string_view>

#include "uvc/path.h"

namespace uvc::aux {

// The rules of one IdSpec prepared for checking many ids: the special characters become a
// bit table, so that a key costs one test per byte. Every operation checks its path, so
// this sits on the read path.
class IdRules {
 public:
  explicit IdRules(IdSpec const& spec) noexcept : indexLimit_(spec.indexLimit) {
    for (unsigned char c : spec.specialChars) special_[c >> 6] |= std::uint64_t{1} << (c & 63);
  }

  bool HasSpecial(std::string_view key) const noexcept {
    for (unsigned char c : key)
      if ((special_[c >> 6] >> (c & 63)) & 1) return true;
    return false;
  }

  bool IndexTooBig(std::uint64_t index) const noexcept {
    return indexLimit_ != 0 && index > indexLimit_;
  }

  // The state of one id; the digit test comes before the character test.
  IdState Check(Id const& id) const noexcept {
    if (auto const* key = std::get_if<1>(&id)) {
      if (key->empty()) return IdState::EmptyName;
      if (key->front() >= '0' && key->front() <= '9') return IdState::DigitFirst;
      return HasSpecial(*key) ? IdState::BadChar : IdState::Ok;
    }
    if (auto const* number = std::get_if<0>(&id))
      return IndexTooBig(*number) ? IdState::IndexTooBig : IdState::Ok;
    return IdState::InvalidId;
  }

 private:
  std::uint64_t special_[4] = {};
  std::uint64_t indexLimit_;
};

}  // namespace uvc::aux
