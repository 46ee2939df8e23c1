#include "value_text.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <ctime>
#include <iomanip>
#include <limits>
#include <nlohmann/json.hpp>
#include <sstream>

#include "failure.h"

namespace settingsctl {
namespace {

using uvc::index::kCount;

constexpr std::int64_t kMicrosPerSecond = 1000000;

template <typename T>
std::optional<T> ParseInteger(std::string_view text) {
  T value{};
  auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || text.empty()) return std::nullopt;
  return value;
}

template <typename T>
Value IntegerOrFail(std::size_t index, std::string const& text) {
  if (auto value = ParseInteger<T>(text)) return Value(std::in_place_type<T>, *value);
  // Widened so that int8 and uint8 print as numbers.
  throw UsageFailure(fmt::format("'{}' is not {} ({} to {})", text, ATypeName(index),
                                 std::intmax_t{std::numeric_limits<T>::min()},
                                 std::uintmax_t{std::numeric_limits<T>::max()}));
}

}  // namespace

std::vector<std::string> const& TypeNames() {
  static std::vector<std::string> const names{
      "none",   "list",      "map",    "bool",  "int8",  "int16",  "int32",  "int64",
      "double", "timestamp", "string", "bytes", "uint8", "uint16", "uint32", "uint64"};
  return names;
}

std::string const& TypeName(std::size_t index) {
  static std::string const unknown = "valueless";
  return index < kCount ? TypeNames()[index] : unknown;
}

std::optional<std::size_t> TypeIndex(std::string_view name) {
  auto const& names = TypeNames();
  auto const it = std::find(names.begin(), names.end(), name);
  if (it == names.end()) return std::nullopt;
  return static_cast<std::size_t>(it - names.begin());
}

std::string ATypeName(std::size_t index) {
  auto const& name = TypeName(index);
  return (name.front() == 'i' ? "an " : "a ") + name;
}

bool IsContainer(std::size_t index) {
  return index == uvc::index::kList || index == uvc::index::kMap;
}

Value ParseScalar(std::size_t index, std::string const& text) {
  namespace ix = uvc::index;
  auto fail = [&]() { return UsageFailure(fmt::format("'{}' is not {}", text, ATypeName(index))); };
  switch (index) {
    case ix::kNone:
      if (!text.empty() && text != "null")
        throw UsageFailure(fmt::format("a none value has no text, not '{}'", text));
      return Value();
    case ix::kBool:
      if (text == "true") return Value(true);
      if (text == "false") return Value(false);
      throw fail();
    case ix::kInt8:
      return IntegerOrFail<std::int8_t>(index, text);
    case ix::kInt16:
      return IntegerOrFail<std::int16_t>(index, text);
    case ix::kInt32:
      return IntegerOrFail<std::int32_t>(index, text);
    case ix::kInt64:
      return IntegerOrFail<std::int64_t>(index, text);
    case ix::kUint8:
      return IntegerOrFail<std::uint8_t>(index, text);
    case ix::kUint16:
      return IntegerOrFail<std::uint16_t>(index, text);
    case ix::kUint32:
      return IntegerOrFail<std::uint32_t>(index, text);
    case ix::kUint64:
      return IntegerOrFail<std::uint64_t>(index, text);
    case ix::kDouble:
      if (auto value = ParseDouble(text)) return Value(*value);
      throw fail();
    case ix::kTimestamp:
      if (auto value = ParseTimestamp(text)) return Value(*value);
      throw UsageFailure(fmt::format(
          "'{}' is not a timestamp (microseconds since 1970, or like 2024-05-01T12:00:00Z)", text));
    case ix::kString:
      return Value(text);
    case ix::kBytes:
      if (auto value = ParseHex(text)) return Value(std::move(*value));
      throw UsageFailure(fmt::format("'{}' is not bytes (an even number of hex digits)", text));
    default:
      break;
  }
  throw UsageFailure(fmt::format("{} takes no value text here", ATypeName(index)));
}

std::string ScalarText(Value const& value) {
  return std::visit(
      [](auto const& v) -> std::string {
        using T = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<T, uvc_sm::None>)
          return std::string();
        else if constexpr (std::is_same_v<T, bool>)
          return v ? "true" : "false";
        else if constexpr (std::is_same_v<T, double>)
          return DoubleText(v);
        else if constexpr (std::is_same_v<T, tern::rtl::Timestamp>)
          return TimestampText(v);
        else if constexpr (std::is_same_v<T, std::string>)
          return v;
        else if constexpr (std::is_same_v<T, Bytes>)
          return HexText(v);
        else if constexpr (std::is_integral_v<T>)
          return fmt::format("{}", v);
        else
          return fmt::format("({} entries)", v.size());
      },
      value);
}

std::string ShownScalar(Value const& value) {
  if (auto const* text = std::get_if<std::string>(&value))
    return nlohmann::json(*text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  return ScalarText(value);
}

std::string HexText(Bytes const& bytes) { return fmt::format("{:02x}", fmt::join(bytes, "")); }

std::optional<Bytes> ParseHex(std::string_view text) {
  if (text.size() % 2 != 0) return std::nullopt;
  Bytes bytes;
  bytes.reserve(text.size() / 2);
  for (std::size_t i = 0; i < text.size(); i += 2) {
    std::uint8_t byte = 0;
    auto const pair = text.substr(i, 2);
    auto const [end, error] = std::from_chars(pair.data(), pair.data() + 2, byte, 16);
    if (error != std::errc() || end != pair.data() + 2) return std::nullopt;
    bytes.push_back(byte);
  }
  return bytes;
}

std::string DoubleText(double value) {
  char buffer[64];
  auto const result = std::to_chars(buffer, buffer + sizeof buffer, value);
  return std::string(buffer, result.ptr);
}

std::optional<double> ParseDouble(std::string_view text) {
  double value = 0;
  auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || text.empty()) return std::nullopt;
  return value;
}

std::string TimestampText(tern::rtl::Timestamp value) {
  auto const micros = value.Microseconds();
  auto seconds = micros / kMicrosPerSecond;
  auto fraction = micros % kMicrosPerSecond;
  if (fraction < 0) {
    fraction += kMicrosPerSecond;
    --seconds;
  }
  std::time_t const time = static_cast<std::time_t>(seconds);
  std::tm parts{};
  if (gmtime_r(&time, &parts) == nullptr || parts.tm_year < -1900 || parts.tm_year > 9999 - 1900)
    return fmt::format("{}", micros);
  auto text = fmt::format("{:%Y-%m-%dT%H:%M:%S}", parts);
  if (fraction != 0) text += fmt::format(".{:06}", fraction);
  return text + 'Z';
}

std::optional<tern::rtl::Timestamp> ParseTimestamp(std::string_view text) {
  if (auto micros = ParseInteger<std::int64_t>(text)) return tern::rtl::Timestamp(*micros);
  // 2024-05-01T12:00:00[.ffffff]Z
  std::tm parts{};
  std::istringstream in{std::string(text)};
  in >> std::get_time(&parts, "%Y-%m-%dT%H:%M:%S");
  if (!in) return std::nullopt;
  std::string rest;
  std::getline(in, rest);
  std::int64_t fraction = 0;
  if (!rest.empty() && rest.front() == '.') {
    auto const end = std::min(rest.find_first_not_of("0123456789", 1), rest.size());
    auto const digits = rest.substr(1, end - 1);
    if (digits.empty() || digits.size() > 6) return std::nullopt;
    fraction = *ParseInteger<std::int64_t>(digits);
    for (auto i = digits.size(); i < 6; ++i) fraction *= 10;
    rest.erase(0, end);
  }
  if (rest != "Z") return std::nullopt;
  std::time_t const seconds = timegm(&parts);
  return tern::rtl::Timestamp(static_cast<std::int64_t>(seconds) * kMicrosPerSecond + fraction);
}

}  // namespace settingsctl
