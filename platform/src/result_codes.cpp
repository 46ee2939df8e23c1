#include "fdn/result_codes.h"

#include <algorithm>
#include <iterator>

#include <fmt/format.h>

namespace fdn {
namespace {

struct CodeText {
  std::uint32_t code;
  std::string_view text;
};

// Sorted by code for binary search.
constexpr CodeText kGeneral[] = {
    {0x80000001u, "Interface not supported"},
    {0x80000040u, "Unexpected"},
    {0x80000041u, "Out of memory"},
    {0x80000042u, "Not supported"},
    {0x80000043u, "Not implemented"},
    {0x80000044u, "Buffer too small"},
    {0x80000045u, "Access denied"},
    {0x80000046u, "Invalid argument"},
    {0x80000047u, "Bad cast"},
    {0x8000004Au, "Not matched"},
    {0x8000004Bu, "Unspecified error"},
    {0x8000004Cu, "Not found"},
    {0x8000004Du, "Found"},
    {0x8000004Fu, "Locked"},
    {0x80000050u, "Not locked"},
    {0x80000051u, "Operation cancelled"},
    {0x80000057u, "Method not found"},
    {0x80000058u, "Stack is empty"},
    {0x80000059u, "Media error"},
    {0x8000005Au, "Invalid signature"},
    {0x8000005Bu, "Invalid version"},
    {0x8000005Cu, "Invalid size"},
    {0x8000005Du, "Invalid type"},
    {0x8000005Eu, "Out of range"},
    {0x80000062u, "Out of space"},
    {0x80000063u, "Not ready"},
    {0x80000064u, "Less than"},
    {0x80000065u, "More than"},
    {0x80000066u, "Prohibited"},
    {0x80000067u, "Already done"},
    {0x80000068u, "Need reboot"},
    {0x80000069u, "Bases corrupted"},
    {0x8000006Au, "Invalid state"},
    {0x8000006Bu, "Not initialized"},
    {0x8000006Cu, "Insufficient resources"},
    {0x80000071u, "Invalid result"},
    {0x80000072u, "Unknown exception"},
    {0x80000076u, "Meta information not found"},
    {0x80000077u, "Numerical type overflow"},
    {0x80000078u, "File is too big"},
    {0x80000079u, "Trace level ok"},
    {0x8000007Au, "Trace level prohibited"},
    {0x80000100u, "Class not found"},
    {0x80000101u, "Settings are required"},
    {0x80000102u, "Unexpected settings"},
    {0x80000103u, "Wrong settings type"},
    {0x80000104u, "Wrong settings revision"},
    {0x80000105u, "Settings not found"},
    {0x80000106u, "Object is untrusted"},
    {0x80000150u, "No current exception"},
    {0x80000151u, "Exception has no result code"},
    {0x80000152u, "Exception with successful result code"},
    {0x80000180u, "Property not found"},
    {0x80000221u, "Operation timeout"},
    {0x80000300u, "Invalid symbol"},
    {0x80000301u, "Non dec symbol"},
    {0x80000302u, "Non hex symbol"},
    {0x80000303u, "Non base64 symbol"},
    {0x80000310u, "Syntax error"},
    {0x80000311u, "GUID syntax error"},
    {0x80000312u, "OID syntax error"},
    {0x80000313u, "DateTime syntax error"},
};

// 0x80010100 + index; the empty entries have no text of their own.
constexpr std::string_view kPlatform[] = {
    "Unspecified platform error",
    "Invalid handle",
    "File not found",
    "Path not found",
    "Sharing violation",
    "Already exists",
    "Wait abandoned",
    "Symbol not found",
    "Sxs is incorrect",
    "Invalid path name",
    "", "", "", "", "", "",
    "Cannot open an anonymous level security token",
    "Password is invalid",
    "Module not found",
    "System image bad signature",
    "Cloud file request aborted",
    "Memory mapping failed",
    "Network error",
    "System image bad format",
};

constexpr std::string_view kUnknown = "Unknown result code";

}  // namespace

std::optional<std::string_view> GeneralCodeText(int code) noexcept {
  auto const bits = static_cast<std::uint32_t>(code);
  if (bits == 0) return "No error";
  if (bits == 1) return "False";
  auto const* begin = std::begin(kGeneral);
  auto const* end = std::end(kGeneral);
  auto const* it = std::lower_bound(begin, end, bits,
                                    [](CodeText const& e, std::uint32_t c) { return e.code < c; });
  if (it == end || it->code != bits) return std::nullopt;
  return it->text;
}

std::optional<std::string_view> PlatformCodeText(int code) noexcept {
  auto const bits = static_cast<std::uint32_t>(code);
  constexpr std::uint32_t first = 0x80010100u;
  if (bits < first || bits - first >= std::size(kPlatform)) return std::nullopt;
  auto const text = kPlatform[bits - first];
  if (text.empty()) return std::nullopt;
  return text;
}

std::string ResultCodeText(int code) {
  std::optional<std::string_view> text;
  switch (Facility(code)) {
    case 0: text = GeneralCodeText(code); break;
    case 1: text = PlatformCodeText(code); break;
    default: break;
  }
  auto const bare = text && !text->empty() ? *text : kUnknown;
  return fmt::format("{} = 0x{:x}", bare, static_cast<std::uint32_t>(code));
}

}  // namespace fdn
