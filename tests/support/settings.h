#pragma once

// Builders shared by every suite: paths and ids from text, settings of each shape, a node
// left valueless, the records as the file holds them, and result checks that print the
// code's text.

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "fdn/result_codes.h"
#include "settings_manager/paths.h"
#include "settings_manager/setting.h"
#include "uvc/error.h"
#include "uvc/path.h"

namespace test_support {

using settings_manager::Attributes;
using settings_manager::Setting;
using Map = std::map<std::string, Setting, std::less<>>;
using List = std::vector<Setting>;
using ByteVector = std::vector<std::uint8_t>;

// A code as the spec writes it; tests spell codes in hex so a wrong constant shows.
constexpr int Code(std::uint32_t bits) { return static_cast<int>(bits); }

// A path from its text form; the text must be valid.
inline uvc::Path P(std::string_view text) {
  auto [path, state] = uvc::FromString(text, settings_manager::meta::GetIdSpecification());
  EXPECT_EQ(state, uvc::IdState::Ok) << text;
  return path;
}
inline std::string Text(uvc::Path const& path) { return settings_manager::PathToStr(path); }
inline uvc::Id K(std::string key) { return uvc::Id(std::in_place_index<1>, std::move(key)); }
inline uvc::Id I(std::uint64_t index) { return uvc::Id(std::in_place_index<0>, index); }

inline Setting Int(std::int32_t value, bool readOnly = false) {
  return Setting(Setting::Value(value), Attributes{readOnly});
}
inline Setting Str(std::string text, bool readOnly = false) {
  return Setting(Setting::Value(std::move(text)), Attributes{readOnly});
}
inline Setting MapOf(std::initializer_list<Map::value_type> entries, bool readOnly = false) {
  return Setting(Setting::Value(Map(entries)), Attributes{readOnly});
}
inline Setting ListOf(std::initializer_list<Setting> items, bool readOnly = false) {
  return Setting(Setting::Value(List(items)), Attributes{readOnly});
}
inline Setting ReadOnly(Setting setting) {
  setting.attributes.readOnly = true;
  return setting;
}

// Leaves `node` holding no alternative, as a failed in-place build does; its attributes
// stay as they were.
inline void MakeValueless(Setting& node) {
  struct Failing {
    operator Map() const { throw 0; }
  };
  try {
    node.emplace<uvc::index::kMap>(Failing{});
  } catch (int) {
  }
}
inline Setting Valueless() {
  Setting node;
  MakeValueless(node);
  return node;
}

// The number of nodes of `s`, itself included: the rows it takes on disk.
inline std::size_t CountNodes(Setting const& s) {
  std::size_t count = 1;
  if (auto const* list = std::get_if<uvc::index::kList>(&s))
    for (auto const& child : *list) count += CountNodes(child);
  if (auto const* map = std::get_if<uvc::index::kMap>(&s))
    for (auto const& entry : *map) count += CountNodes(entry.second);
  return count;
}

// The records as the file holds them, written out byte by byte rather than taken from the
// library, so that a wrong encoder there shows. A value record: the variant index in its
// first byte, the payload from byte 8 in little-endian order.
inline ByteVector ValueRecord(std::uint8_t index, std::uint64_t payload, std::size_t payloadSize) {
  ByteVector bytes(8 + std::max<std::size_t>(payloadSize, 8), 0);
  bytes[0] = index;
  for (std::size_t i = 0; i < payloadSize && i < 8; ++i)
    bytes[8 + i] = static_cast<std::uint8_t>(payload >> (8 * i));
  return bytes;
}
inline ByteVector Int32Record(std::int32_t v) { return ValueRecord(6, static_cast<std::uint32_t>(v), 4); }
inline ByteVector AttribRecord(bool readOnly) {
  ByteVector bytes(16, 0);
  bytes[2] = 1;  // version 0x10000
  bytes[8] = readOnly ? 1 : 0;
  return bytes;
}

// "0a00 ff" gives the bytes 0a 00 ff; blanks are for the reader only.
inline ByteVector Hex(std::string_view text) {
  std::string digits;
  for (char c : text)
    if (c != ' ') digits += c;
  ByteVector bytes;
  for (std::size_t i = 0; i + 1 < digits.size(); i += 2)
    bytes.push_back(static_cast<std::uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
  return bytes;
}
// Lower-case hex with a blank after every eighth byte, so the header words stand apart.
inline std::string ToHex(ByteVector const& bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i != 0 && i % 8 == 0) text += ' ';
    text += kDigits[bytes[i] >> 4];
    text += kDigits[bytes[i] & 15];
  }
  return text;
}

// The code and message of the uvc::Error that `action` throws; {0, "nothing thrown"}
// when it returns.
template <typename Action>
uvc::Result ErrorOf(Action&& action) {
  try {
    action();
  } catch (uvc::Error const& error) {
    return {error.code, error.what()};
  }
  return {0, "nothing thrown"};
}

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
