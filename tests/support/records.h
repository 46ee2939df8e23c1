#pragma once

// The records as the file holds them, written out byte by byte rather than taken from the
// library, so that a wrong encoder there shows. Used by the suites and by the writer of
// the fuzz seeds; no test framework needed.

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace test_support {

using ByteVector = std::vector<std::uint8_t>;

// A value record: the variant index in its first word, the payload word from byte 8 in
// little-endian order, then `tail` (a string's bytes and its NUL, a byte string's bytes).
inline ByteVector ValueRecord(std::uint8_t index, std::uint64_t payload,
                              std::size_t payloadSize = 8, std::string_view tail = {}) {
  ByteVector bytes(16, 0);
  bytes[0] = index;
  for (std::size_t i = 0; i < payloadSize && i < 8; ++i)
    bytes[8 + i] = static_cast<std::uint8_t>(payload >> (8 * i));
  bytes.insert(bytes.end(), tail.begin(), tail.end());
  return bytes;
}
inline ByteVector Int32Record(std::int32_t v) {
  return ValueRecord(6, static_cast<std::uint32_t>(v), 4);
}
// A string's length word counts its closing NUL.
inline ByteVector StringRecord(std::string_view text) {
  return ValueRecord(10, text.size() + 1, 8, std::string(text) + '\0');
}
inline ByteVector AttribRecord(bool readOnly, std::uint32_t version = 0x10000) {
  ByteVector bytes(16, 0);
  for (int i = 0; i < 4; ++i) bytes[i] = static_cast<std::uint8_t>(version >> (8 * i));
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

}  // namespace test_support
