#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// Result codes of the platform: a signed 32-bit value. 0 is success, 1 success with a
// negative answer, a set top bit a failure. Bits 16 to 30 are the facility: 0 holds the
// general codes, 1 the platform codes.
namespace fdn {

constexpr int MakeCode(std::uint32_t bits) noexcept { return static_cast<int>(bits); }

constexpr int Facility(int code) noexcept {
  return static_cast<int>((static_cast<std::uint32_t>(code) >> 16) & 0x7FFFu);
}

constexpr bool Failed(int code) noexcept { return code < 0; }

namespace rc {
constexpr int kOk = 0;
constexpr int kFalse = 1;
constexpr int kInterfaceNotSupported = MakeCode(0x80000001u);
constexpr int kUnexpected = MakeCode(0x80000040u);
constexpr int kOutOfMemory = MakeCode(0x80000041u);
constexpr int kNotSupported = MakeCode(0x80000042u);
constexpr int kBufferTooSmall = MakeCode(0x80000044u);
constexpr int kInvalidArgument = MakeCode(0x80000046u);
constexpr int kNotMatched = MakeCode(0x8000004Au);
constexpr int kUnspecifiedError = MakeCode(0x8000004Bu);
constexpr int kNotFound = MakeCode(0x8000004Cu);
constexpr int kFound = MakeCode(0x8000004Du);
constexpr int kMediaError = MakeCode(0x80000059u);
constexpr int kInvalidVersion = MakeCode(0x8000005Bu);
constexpr int kInvalidSize = MakeCode(0x8000005Cu);
constexpr int kOutOfRange = MakeCode(0x8000005Eu);
constexpr int kLessThan = MakeCode(0x80000064u);
constexpr int kMoreThan = MakeCode(0x80000065u);
constexpr int kProhibited = MakeCode(0x80000066u);
constexpr int kBasesCorrupted = MakeCode(0x80000069u);
constexpr int kInvalidState = MakeCode(0x8000006Au);
constexpr int kInvalidResult = MakeCode(0x80000071u);
constexpr int kUnknownException = MakeCode(0x80000072u);
constexpr int kClassNotFound = MakeCode(0x80000100u);
constexpr int kSettingsAreRequired = MakeCode(0x80000101u);
}  // namespace rc

// The bare text of a general (facility 0) code, or nothing when the code has none.
std::optional<std::string_view> GeneralCodeText(int code) noexcept;

// The bare text of a platform (facility 1) code, or nothing when the code has none.
std::optional<std::string_view> PlatformCodeText(int code) noexcept;

// Display text of any code: the bare text (or "Unknown result code"), " = 0x" and the
// code in lower-case hex without leading zeros. Never fails.
std::string ResultCodeText(int code);

}  // namespace fdn
