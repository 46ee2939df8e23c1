#pragma once

// The byte framing the fuzz targets read their records from, and tree equality with
// doubles compared by their bits. A target stops the run (__builtin_trap) when a
// property breaks; crashes and sanitizer reports stop it by themselves.

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
    std::vector<std::uint8_t> out(data_ + at_, data_ + at_ + n);
    at_ += n;
    return out;
  }
  std::string Text(std::size_t n) {
    auto const bytes = Bytes(n);
    return std::string(bytes.begin(), bytes.end());
  }
  std::string Rest() { return Text(size_); }

  // One record: [path length][path][attrib length][attrib][value length, 2 bytes LE][value].
  settings_manager::impl::RawItem Record() {
    std::string path = Text(Byte());
    auto attrib = Bytes(Byte());
    auto value = Bytes(Length16());
    return settings_manager::impl::RawItem(std::move(attrib), std::move(value), std::move(path));
  }

 private:
  std::uint8_t const* data_;
  std::size_t size_;
  std::size_t at_ = 0;
};

inline bool Same(settings_manager::Setting const& a, settings_manager::Setting const& b) {
  namespace ix = uvc::index;
  if (a.index() != b.index() || a.attributes != b.attributes) return false;
  if (auto const* x = std::get_if<ix::kList>(&a)) {
    auto const& y = std::get<ix::kList>(b);
    if (x->size() != y.size()) return false;
    for (std::size_t i = 0; i < x->size(); ++i)
      if (!Same((*x)[i], y[i])) return false;
    return true;
  }
  if (auto const* x = std::get_if<ix::kMap>(&a)) {
    auto const& y = std::get<ix::kMap>(b);
    if (x->size() != y.size()) return false;
    for (auto i = x->begin(), j = y.begin(); i != x->end(); ++i, ++j)
      if (i->first != j->first || !Same(i->second, j->second)) return false;
    return true;
  }
  if (auto const* x = std::get_if<ix::kDouble>(&a)) {
    double const y = std::get<ix::kDouble>(b);
    return std::memcmp(x, &y, sizeof y) == 0;
  }
  return a.value() == b.value();
}

}  // namespace fuzz
