#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <iterator>
#include <map>
#include <ostream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "settings_manager/setting.h"
#include "uvc/error.h"
#include "uvc/id.h"
#include "uvc/path.h"
#include "uvc/value.h"

namespace uvc {
// States print as their number in failure messages instead of raw bytes.
inline void PrintTo(IdState state, std::ostream* os) {
  *os << "IdState " << static_cast<unsigned>(state);
}
}  // namespace uvc

namespace values_test {

using settings_manager::Attributes;
using settings_manager::Setting;
using Map = std::map<std::string, Setting, std::less<>>;
using List = std::vector<Setting>;

constexpr int Code(std::uint32_t bits) { return static_cast<int>(bits); }

// Written out here rather than taken from the library, so a wrong constant there shows.
inline uvc::Result const kFound{Code(0x8000004Du), "uvc: Item with given id already exists"};
inline uvc::Result const kNotFound{Code(0x8000004Cu), "uvc: Item with given id does not exist"};
inline uvc::Result const kNotMatched{Code(0x8000004Au),
                                     "uvc: Path or id does not correspond to contained item"};

inline uvc::Id K(std::string key) { return uvc::Id(std::in_place_index<1>, std::move(key)); }
inline uvc::Id I(std::uint64_t index) { return uvc::Id(std::in_place_index<0>, index); }

inline Setting Int(std::int32_t value, bool readOnly = false) {
  return Setting(Setting::Value(value), Attributes{readOnly});
}
inline Setting MapOf(std::initializer_list<Map::value_type> entries, bool readOnly = false) {
  return Setting(Setting::Value(Map(entries)), Attributes{readOnly});
}
inline Setting ListOf(std::initializer_list<Setting> items, bool readOnly = false) {
  return Setting(Setting::Value(List(items)), Attributes{readOnly});
}

// The code and message of the uvc::Error that `action` throws; other exceptions escape.
template <typename F>
uvc::Result ErrorOf(F&& action) {
  try {
    action();
  } catch (uvc::Error const& error) {
    return {error.code, error.what()};
  }
  ADD_FAILURE() << "no uvc::Error thrown";
  return {};
}

// An input iterator whose every read throws: a map built from it fails halfway through
// an emplace, which leaves the variant valueless.
struct ThrowingEntryIterator {
  using iterator_category = std::input_iterator_tag;
  using value_type = Map::value_type;
  using difference_type = std::ptrdiff_t;
  using pointer = value_type const*;
  using reference = value_type const&;

  int position = 0;

  reference operator*() const { throw std::runtime_error("entry copy failed"); }
  ThrowingEntryIterator& operator++() {
    ++position;
    return *this;
  }
  ThrowingEntryIterator operator++(int) {
    auto const before = *this;
    ++position;
    return before;
  }
  friend bool operator==(ThrowingEntryIterator a, ThrowingEntryIterator b) {
    return a.position == b.position;
  }
  friend bool operator!=(ThrowingEntryIterator a, ThrowingEntryIterator b) { return !(a == b); }
};

// Leaves `node` valueless; its attributes are not touched.
inline void MakeValueless(Setting& node) {
  try {
    node.emplace<uvc::index::kMap>(ThrowingEntryIterator{0}, ThrowingEntryIterator{1});
  } catch (std::runtime_error const&) {
  }
}

}  // namespace values_test
