#pragma once

/// \file
/// Result codes and their texts; libsettings_manager.so exports the functions declared
/// here.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// Result codes of the platform: a signed 32-bit value. 0 is success, 1 success with a
/// negative answer, a set top bit a failure. Bits 16 to 30 are the facility: 0 holds the
/// general codes, 1 the platform codes.
namespace fdn {

/// The code whose 32 bits are `bits`.
constexpr int MakeCode(std::uint32_t bits) noexcept { return static_cast<int>(bits); }

/// The facility of `code` (bits 16 to 30).
constexpr int Facility(int code) noexcept {
  return static_cast<int>((static_cast<std::uint32_t>(code) >> 16) & 0x7FFFu);
}

/// True for a failure: a code with the top bit set.
constexpr bool Failed(int code) noexcept { return code < 0; }

namespace rc {
constexpr int kOk = 0;     ///< Success.
constexpr int kFalse = 1;  ///< Success with a negative answer: nothing to change, nothing there.
constexpr int kInterfaceNotSupported = MakeCode(0x80000001u);  ///< "Interface not supported"
constexpr int kUnexpected = MakeCode(0x80000040u);             ///< "Unexpected"
constexpr int kOutOfMemory = MakeCode(0x80000041u);            ///< "Out of memory"
constexpr int kNotSupported = MakeCode(0x80000042u);           ///< "Not supported"
constexpr int kBufferTooSmall = MakeCode(0x80000044u);         ///< "Buffer too small"
constexpr int kInvalidArgument = MakeCode(0x80000046u);        ///< "Invalid argument"
constexpr int kNotMatched = MakeCode(0x8000004Au);             ///< "Not matched"
constexpr int kUnspecifiedError = MakeCode(0x8000004Bu);       ///< "Unspecified error"
constexpr int kNotFound = MakeCode(0x8000004Cu);               ///< "Not found"
constexpr int kFound = MakeCode(0x8000004Du);                  ///< "Found"
constexpr int kMediaError = MakeCode(0x80000059u);             ///< "Media error"
constexpr int kInvalidVersion = MakeCode(0x8000005Bu);         ///< "Invalid version"
constexpr int kInvalidSize = MakeCode(0x8000005Cu);            ///< "Invalid size"
constexpr int kOutOfRange = MakeCode(0x8000005Eu);             ///< "Out of range"
constexpr int kLessThan = MakeCode(0x80000064u);               ///< "Less than"
constexpr int kMoreThan = MakeCode(0x80000065u);               ///< "More than"
constexpr int kProhibited = MakeCode(0x80000066u);             ///< "Prohibited"
constexpr int kBasesCorrupted = MakeCode(0x80000069u);         ///< "Bases corrupted"
constexpr int kInvalidState = MakeCode(0x8000006Au);           ///< "Invalid state"
constexpr int kInvalidResult = MakeCode(0x80000071u);          ///< "Invalid result"
constexpr int kUnknownException = MakeCode(0x80000072u);       ///< "Unknown exception"
constexpr int kClassNotFound = MakeCode(0x80000100u);          ///< "Class not found"
constexpr int kSettingsAreRequired = MakeCode(0x80000101u);    ///< "Settings are required"
}  // namespace rc

/// The bare text of a general (facility 0) code, or nothing when the code has none.
std::optional<std::string_view> GeneralCodeText(int code) noexcept;

/// The bare text of a platform (facility 1) code, or nothing when the code has none.
std::optional<std::string_view> PlatformCodeText(int code) noexcept;

/// Display text of any code: the bare text (or "Unknown result code"), " = 0x" and the
/// code in lower-case hex without leading zeros. Never fails.
std::string ResultCodeText(int code);

}  // namespace fdn
