#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "settings_manager/setting.h"

namespace settingsctl {

using Value = settings_manager::Setting::Value;
using Bytes = std::vector<std::uint8_t>;

// The names of the sixteen value alternatives, in their order: none, list, map, bool,
// int8 .. int64, double, timestamp, string, bytes, uint8 .. uint64.
std::vector<std::string> const& TypeNames();
std::string const& TypeName(std::size_t index);
std::optional<std::size_t> TypeIndex(std::string_view name);

// Whether alternative `index` holds children (list or map).
bool IsContainer(std::size_t index);

// "an int8", "a uint16": the type's name for messages.
std::string ATypeName(std::size_t index);

// Parses the text of a value of alternative `index` (anything but a list or a map):
// "true"/"false", decimal integers in the type's range, doubles ("0.1", "1e-3", "inf",
// "nan"), timestamps (microseconds since 1970 or "2024-05-01T12:00:00.25Z"), strings as
// they are, bytes as hex, none as the empty text. Throws a usage Failure that says why.
Value ParseScalar(std::size_t index, std::string const& text);

// The text of a scalar as `get` prints it: strings as they are, the rest as ParseScalar
// reads it back. None is the empty text.
std::string ScalarText(Value const& value);

// The same for listings, where strings are quoted so that blanks and empty ones show.
std::string ShownScalar(Value const& value);

std::string HexText(Bytes const& bytes);
std::optional<Bytes> ParseHex(std::string_view text);

// The shortest text that reads back as the same double.
std::string DoubleText(double value);
std::optional<double> ParseDouble(std::string_view text);

// UTC ISO 8601 with microseconds where there are any ("2024-05-01T12:00:00Z"); a time
// outside the years 0 to 9999 prints as its microseconds.
std::string TimestampText(tern::rtl::Timestamp value);
std::optional<tern::rtl::Timestamp> ParseTimestamp(std::string_view text);

}  // namespace settingsctl
