#pragma once

// The byte framing the fuzz targets read their records from (make_seeds.cpp writes it), and
// tree equality with doubles compared by their bits. A target stops the run
// (__builtin_trap) when a property breaks; crashes and sanitizer reports stop it by themselves.

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "raw_setting.h"
#include "settings_manager/setting.h"

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

inline bool Same(settings_manager::Setting const& a, settings_manager::Setting const& b) {
  if (a.index() != b.index() || a.attributes != b.attributes) return false;
  if (auto const* x = std::get_if<uvc::index::kList>(&a)) {
    auto const& y = std::get<uvc::index::kList>(b);
    return std::equal(x->begin(), x->end(), y.begin(), y.end(), Same);
  }
  if (auto const* x = std::get_if<uvc::index::kMap>(&a)) {
    auto const& y = std::get<uvc::index::kMap>(b);
    return std::equal(x->begin(), x->end(), y.begin(), y.end(), [](auto& i, auto& j) {
      return i.first == j.first && Same(i.second, j.second);
    });
  }
  if (auto const* x = std::get_if<uvc::index::kDouble>(&a))
    return std::memcmp(x, &std::get<uvc::index::kDouble>(b), sizeof *x) == 0;
  return a.value() == b.value();
}

}  // namespace fuzz
