#pragma once

// Byte and tree helpers of the record suites.

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "raw_setting.h"
#include "settings_manager/paths.h"
#include "settings_manager/setting.h"
#include "uvc/error.h"
#include "uvc/path.h"

namespace records_test {

using settings_manager::Attributes;
using settings_manager::Setting;
using settings_manager::impl::Bytes;
using Map = std::map<std::string, Setting, std::less<>>;

// "0a00 ff" gives the bytes 0a 00 ff; blanks are for the reader only.
inline Bytes Hex(std::string_view text) {
  std::string digits;
  for (char c : text)
    if (c != ' ') digits += c;
  Bytes bytes;
  for (std::size_t i = 0; i + 1 < digits.size(); i += 2)
    bytes.push_back(static_cast<std::uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
  return bytes;
}

// Lower-case hex with a blank after every eighth byte, so the two header words stand apart.
inline std::string ToHex(Bytes const& bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i != 0 && i % 8 == 0) text += ' ';
    text += kDigits[bytes[i] >> 4];
    text += kDigits[bytes[i] & 15];
  }
  return text;
}

inline uvc::Path P(std::string_view text) {
  return uvc::FromString(text, settings_manager::meta::GetIdSpecification()).first;
}

inline Setting List(std::vector<Setting> items) {
  return Setting(Setting::Value(std::move(items)));
}
inline Setting MapOf(Map entries) { return Setting(Setting::Value(std::move(entries))); }
inline Setting ReadOnly(Setting setting) {
  setting.attributes.readOnly = true;
  return setting;
}

// A node whose value is gone, as after a failed in-place build.
inline Setting Valueless() {
  struct Failing {
    operator Map() const { throw 0; }
  };
  Setting setting;
  try {
    setting.emplace<uvc::index::kMap>(Failing{});
  } catch (int) {
  }
  return setting;
}

// A failure result from the code as written in hex.
inline uvc::Result Failure(std::uint32_t code, std::string text) {
  return {static_cast<int>(code), std::move(text)};
}

// The code and message of the uvc::Error that `action` throws.
template <typename Action>
uvc::Result ErrorOf(Action&& action) {
  try {
    action();
  } catch (uvc::Error const& error) {
    return {error.code, error.what()};
  }
  return {0, "nothing thrown"};
}

}  // namespace records_test
