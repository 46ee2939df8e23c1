#include "raw_setting.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <type_traits>
#include <variant>

#include "fdn/result_codes.h"
#include "settings_manager/paths.h"
#include "uvc/error.h"
#include "uvc/format.h"
#include "uvc/path.h"

namespace settings_manager::impl {
namespace {

namespace ix = uvc::index;

using View = std::pair<void const*, std::size_t>;
using Map = std::map<std::string, Setting, std::less<>>;

constexpr std::size_t kWordSize = 8;
constexpr std::size_t kSecondWord = 8;
// Paths name list indices up to 65535, so no stored list is longer; a larger count is
// damage and must not turn into a huge allocation.
constexpr std::uint64_t kMaxListReserve = 65536;

bool HostIsLittleEndian() noexcept {
  std::uint16_t const probe = 1;
  unsigned char first = 0;
  std::memcpy(&first, &probe, 1);
  return first == 1;
}

// Words are little-endian on disk whatever the host: written and read byte by byte.
void PutWord(Bytes& bytes, std::size_t offset, std::uint64_t word) noexcept {
  for (std::size_t i = 0; i < kWordSize; ++i)
    bytes[offset + i] = static_cast<std::uint8_t>(word >> (8 * i));
}

std::uint64_t GetWord(std::uint8_t const* bytes, std::size_t offset) noexcept {
  std::uint64_t word = 0;
  for (std::size_t i = 0; i < kWordSize; ++i) word |= std::uint64_t{bytes[offset + i]} << (8 * i);
  return word;
}

ByteView ViewOf(Bytes const& bytes) noexcept { return {bytes.data(), bytes.size()}; }

// Header plus a stored payload length; saturates so that a damaged length near 2^64
// cannot wrap into a need the record seems to meet.
std::size_t NeedWith(std::uint64_t payload) noexcept {
  constexpr auto kMax = std::numeric_limits<std::size_t>::max();
  if (payload > kMax - Raw::kHeaderSize) return kMax;
  return static_cast<std::size_t>(payload) + Raw::kHeaderSize;
}

// The low bytes of the word, by the width of T (narrow signed values were not extended).
template <typename T>
T LowBytes(std::uint64_t word) noexcept {
  return static_cast<T>(static_cast<std::make_unsigned_t<T>>(word));
}

// A value's bytes: a scalar's own, a string's characters, a byte string's bytes;
// containers and None have none.
struct ValueBytes {
  View operator()(uvc_sm::None const&) const noexcept { return {nullptr, 0}; }
  View operator()(std::vector<Setting> const&) const noexcept { return {nullptr, 0}; }
  View operator()(Map const&) const noexcept { return {nullptr, 0}; }
  View operator()(std::string const& text) const noexcept { return {text.data(), text.size()}; }
  View operator()(Bytes const& bytes) const noexcept { return {bytes.data(), bytes.size()}; }
  template <typename Scalar>
  View operator()(Scalar const& scalar) const noexcept {
    static_assert(std::is_trivially_copyable_v<Scalar> && sizeof(Scalar) <= kWordSize);
    return {&scalar, sizeof(Scalar)};
  }
};

// Leaves `out` valueless. std::variant has no direct way, and some libraries keep the old
// value when a string build fails; a failing in-place build of the map never does.
void DropValue(Setting& out) noexcept {
  struct Abandon {};
  struct Failing {
    operator Map() const { throw Abandon{}; }
  };
  try {
    out.emplace<ix::kMap>(Failing{});
  } catch (Abandon const&) {
  }
}

// The routines of strings and byte strings; `word` is the record's word. The word of a
// string counts the terminator. Word 0 wraps the length: the old value goes first, then
// the build throws std::length_error.
void ReadString(ByteView value, Setting& out, std::uint64_t word) {
  Raw::Check(value, NeedWith(word));
  if (word == 0) DropValue(out);
  auto const length = static_cast<std::size_t>(word - 1);
  auto& text = out.emplace<ix::kString>(length, '\0');
  if (length != 0) std::memcpy(text.data(), value.data + Raw::kHeaderSize, length);
}

void ReadBytes(ByteView value, Setting& out, std::uint64_t word) {
  Raw::Check(value, NeedWith(word));
  auto const* begin = value.data + Raw::kHeaderSize;
  out.emplace<ix::kBytes>(begin, begin + static_cast<std::ptrdiff_t>(word));
}

}  // namespace

void Raw::Check(Bytes const& data, std::size_t need) { Check(ViewOf(data), need); }

void Raw::Check(ByteView data, std::size_t need) {
  if (data.size < need)
    throw uvc::Error(
        fdn::rc::kInvalidSize,
        fmt::format("[RawSetting] Insufficient raw data size: fact/plan = {}/{}", data.size, need));
}

std::uint64_t Raw::Data(std::pair<void const*, std::size_t> view) {
  auto const size = view.second;
  if (size > kWordSize)
    throw uvc::Error(fdn::rc::kBufferTooSmall,
                     fmt::format("[RawSetting] Too big data view size: {}", size));
  // The view holds a value in host order; the word is that number, zero-extended.
  auto const* bytes = static_cast<unsigned char const*>(view.first);
  bool const little = HostIsLittleEndian();
  std::uint64_t word = 0;
  for (std::size_t i = 0; i < size; ++i)
    word |= std::uint64_t{bytes[i]} << (8 * (little ? i : size - 1 - i));
  return word;
}

RawAttrib::RawAttrib(Attributes const& attributes) : attrib(kHeaderSize, 0) {
  PutWord(attrib, 0, kAttribVersion);
  PutWord(attrib, kSecondWord, attributes.readOnly ? 1 : 0);
}

void RawAttrib::DeserializeAttrib(Attributes& out) const {
  RawView{{}, {}, ViewOf(attrib)}.DeserializeAttrib(out);
}

void RawView::DeserializeAttrib(Attributes& out) const {
  Raw::Check(attrib, Raw::kHeaderSize);
  auto const version = GetWord(attrib.data, 0);
  if (version != Raw::kAttribVersion)
    throw uvc::Error(fdn::rc::kInvalidVersion,
                     fmt::format("[RawSetting] Invalid attrib version: {:#x}", version));
  out.readOnly = (attrib.data[kSecondWord] & 1u) != 0;
}

RawItem::RawItem(uvc::Path const& nodePath, Setting const& setting)
    : RawAttrib(setting.attributes),
      value(SerializeValue(setting)),
      path(SerializePath(nodePath)) {}

RawItem::RawItem(Bytes attribRecord, Bytes valueRecord, std::string pathText)
    : value(std::move(valueRecord)), path(std::move(pathText)) {
  attrib = std::move(attribRecord);
}

Bytes RawItem::SerializeValue(Setting const& setting) {
  if (setting.valueless_by_exception())
    throw uvc::Error(fdn::rc::kInvalidState, "[RawSetting] Invalid value state");
  auto const index = setting.index();
  auto const view = std::visit(ValueBytes{}, setting.value());
  std::uint64_t word = 0;
  std::size_t payload = 0;
  switch (index) {
    case ix::kNone:
    case ix::kMap:
      break;
    case ix::kList:
      word = std::get<ix::kList>(setting).size();
      break;
    case ix::kString:
      word = view.second + 1;
      payload = view.second + 1;  // the terminator stays from the zero fill
      break;
    case ix::kBytes:
      word = view.second;
      payload = view.second;
      break;
    default:
      word = Data(view);
  }
  Bytes record(kHeaderSize + payload, 0);
  PutWord(record, 0, index);
  PutWord(record, kSecondWord, word);
  if (view.second != 0 && payload != 0)
    std::memcpy(record.data() + kHeaderSize, view.first, view.second);
  return record;
}

std::string RawItem::SerializePath(uvc::Path const& nodePath) {
  auto converted = uvc::ToString(nodePath, meta::GetIdSpecification());
  if (converted.second != uvc::IdState::Ok)
    throw uvc::Error(fdn::rc::kInvalidArgument,
                     fmt::format("[RawSetting] Path to str fail: state = {}", converted.second));
  return std::move(converted.first);
}

void RawItem::DeserializeValue(Setting& out) const {
  DeserializeValue(out, static_cast<std::size_t>(kMaxListReserve));
}

void RawItem::DeserializeValue(Setting& out, std::size_t reserveAtMost) const {
  View().DeserializeValue(out, reserveAtMost);
}

template <>
void RawItem::DeserializeValue<ix::kString>(Setting& out, std::uint64_t word) const {
  ReadString(ViewOf(value), out, word);
}

template <>
void RawItem::DeserializeValue<ix::kBytes>(Setting& out, std::uint64_t word) const {
  ReadBytes(ViewOf(value), out, word);
}

void RawItem::DeserializePath(uvc::Path& out) const { View().DeserializePath(out); }

RawView RawItem::View() const noexcept { return {path, ViewOf(value), ViewOf(attrib)}; }

void RawView::DeserializeValue(Setting& out, std::size_t reserveAtMost) const {
  Raw::Check(value, Raw::kHeaderSize);
  auto const index = GetWord(value.data, 0);
  if (index >= ix::kCount)
    throw uvc::Error(fdn::rc::kOutOfRange,
                     fmt::format("[RawSetting] Invalid value index: {}", index));
  auto const word = GetWord(value.data, kSecondWord);
  switch (index) {
    case ix::kNone:
      out.emplace<ix::kNone>();
      break;
    case ix::kList:
      out.emplace<ix::kList>().reserve(static_cast<std::size_t>(
          std::min({word, kMaxListReserve, std::uint64_t{reserveAtMost}})));
      break;
    case ix::kMap:
      out.emplace<ix::kMap>();
      break;
    case ix::kBool:
      out.emplace<ix::kBool>((word & 1u) != 0);
      break;
    case ix::kInt8:
      out.emplace<ix::kInt8>(LowBytes<std::int8_t>(word));
      break;
    case ix::kInt16:
      out.emplace<ix::kInt16>(LowBytes<std::int16_t>(word));
      break;
    case ix::kInt32:
      out.emplace<ix::kInt32>(LowBytes<std::int32_t>(word));
      break;
    case ix::kInt64:
      out.emplace<ix::kInt64>(LowBytes<std::int64_t>(word));
      break;
    case ix::kDouble: {
      double number = 0;
      std::memcpy(&number, &word, sizeof number);
      out.emplace<ix::kDouble>(number);
      break;
    }
    case ix::kTimestamp:
      out.emplace<ix::kTimestamp>(LowBytes<std::int64_t>(word));
      break;
    case ix::kString:
      ReadString(value, out, word);
      break;
    case ix::kBytes:
      ReadBytes(value, out, word);
      break;
    case ix::kUint8:
      out.emplace<ix::kUint8>(LowBytes<std::uint8_t>(word));
      break;
    case ix::kUint16:
      out.emplace<ix::kUint16>(LowBytes<std::uint16_t>(word));
      break;
    case ix::kUint32:
      out.emplace<ix::kUint32>(LowBytes<std::uint32_t>(word));
      break;
    default:
      out.emplace<ix::kUint64>(word);
  }
}

void RawView::DeserializePath(uvc::Path& out) const {
  auto parsed = uvc::FromString(path, meta::GetIdSpecification());
  if (parsed.second != uvc::IdState::Ok)
    throw uvc::Error(
        fdn::rc::kInvalidArgument,
        fmt::format("[RawSetting] Str to path fail: src = '{}', state = {}", path, parsed.second));
  out = std::move(parsed.first);
}

}  // namespace settings_manager::impl
