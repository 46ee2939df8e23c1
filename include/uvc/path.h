#pragma once

/// \file
/// The text form of paths, and the rules that ids must follow.

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "settings_manager/export.h"
#include "uvc/id.h"

namespace uvc {

/// The rules for ids: the first special character is the path separator, and no special
/// character may appear in a key; a non-zero index limit refuses larger indices.
struct IdSpec {
  std::string specialChars;      ///< the separator first, then the other barred characters
  std::uint64_t indexLimit = 0;  ///< the largest index allowed; 0: no limit
};

/// The outcome of a check or conversion.
enum class IdState : std::uint8_t {
  Ok = 0,           ///< valid
  InvalidId = 1,    ///< the id holds no alternative
  IndexTooBig = 2,  ///< an index above a non-zero limit
  NumberError = 3,  ///< a number that cannot be read or written
  EmptyName = 4,    ///< an empty key
  EmptyId = 5,      ///< an empty segment in a text
  DigitFirst = 6,   ///< a key that begins with a digit
  BadChar = 7,      ///< a special character in a key, or a non-digit in a numeric segment
  NoSeparator = 8,  ///< the IdSpec has no special characters
};

namespace aux {
/// Checks one id against `spec`: Ok, or the first rule it breaks.
SETTINGS_MANAGER_API IdState CheckId(Id const& id, IdSpec const& spec);
}  // namespace aux

/// The text form of a path: every id followed by the separator ("net/3/name/"); the root
/// is the empty text. On a non-Ok state the text is empty.
SETTINGS_MANAGER_API std::pair<std::string, IdState> ToString(Path const& path, IdSpec const& spec);

/// Parses the text form; a final separator is optional ("a/b" and "a/b/" give the same
/// path). On a non-Ok state the path is empty.
SETTINGS_MANAGER_API std::pair<Path, IdState> FromString(std::string_view text, IdSpec const& spec);

}  // namespace uvc
