#pragma once

// The byte framing the fuzz targets read their records from (make_seeds.cpp writes it), and
// row lists compared byte for byte. A target stops the run
// (__builtin_trap) when a property breaks; crashes and sanitizer reports stop it by themselves.

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "raw_setting.h"

namespace fuzz {

// Reads the input front to back; past its end every read gives zeros or nothing.
class Input {
 public:
  Input(std::uint8_t const* data, std::size_t size) : data_(data), size_(size) {}
  bool Empty() const { return at_ >= size_; }
  std::uint8_t Byte() { return at_ < size_ ? data_[at_++] : 0; }
  std::size_t Length16() { return Byte() | std::size_t{Byte()} << 8; }
  std::vector<std::uint8_t> Bytes(std::size_t n) {
    n = std::min(n, size_ - std::min(at_, size_));
    at_ += n;
    return std::vector<std::uint8_t>(data_ + at_ - n, data_ + at_);
  }
  std::string Text(std::size_t n) {
    auto const bytes = Bytes(n);
    return std::string(bytes.begin(), bytes.end());
  }
  // One record: [path length][path][attrib length][attrib][value length, 2 bytes LE][value].
  settings_manager::impl::RawItem Record() {
    std::string path = Text(Byte());
    auto attrib = Bytes(Byte());
    return settings_manager::impl::RawItem(std::move(attrib), Bytes(Length16()), std::move(path));
  }

 private:
  std::uint8_t const* data_;
  std::size_t size_, at_ = 0;
};

// Two row lists alike byte for byte (doubles too: NaN payloads and the sign of zero count).
inline bool SameRows(std::vector<settings_manager::impl::RawItem> const& a,
                     std::vector<settings_manager::impl::RawItem> const& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](auto const& x, auto const& y) {
    return x.path == y.path && x.value == y.value && x.attrib == y.attrib;
  });
}

}  // namespace fuzz
