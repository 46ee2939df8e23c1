#pragma once

// The stored form of one node: the three columns of a row of `data` (path text, value
// record, attribute record). Their byte layout, with worked examples, is
// docs/file-format.md; a change of these records changes that document too.

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "settings_manager/setting.h"
#include "uvc/id.h"

namespace settings_manager::impl {

using Bytes = std::vector<std::uint8_t>;

// Size checks and word packing shared by the records.
struct Raw {
  static constexpr std::size_t kHeaderSize = 16;
  static constexpr std::uint64_t kAttribVersion = 0x10000;

  // Throws 0x8000005C "[RawSetting] Insufficient raw data size: fact/plan = {}/{}" when
  // `data` holds fewer than `need` bytes.
  static void Check(Bytes const& data, std::size_t need);

  // The view's bytes in a zeroed word; throws 0x80000044 for a view over 8 bytes.
  static std::uint64_t Data(std::pair<void const*, std::size_t> view);
};

// An attribute record on its own.
struct RawAttrib : Raw {
  RawAttrib() = default;
  explicit RawAttrib(Attributes const& attributes);

  // Reads the record into `out`; throws on a short record or a foreign version, leaving
  // `out` as it was.
  void DeserializeAttrib(Attributes& out) const;

  Bytes attrib;
};

// One node: attribute record, value record and path text, in this order.
struct RawItem : RawAttrib {
  RawItem() = default;
  // Builds the three fields of `setting` placed at `path`; throws on a valueless setting
  // or a path that cannot be written.
  RawItem(uvc::Path const& path, Setting const& setting);
  RawItem(Bytes attribRecord, Bytes valueRecord, std::string pathText);

  static Bytes SerializeValue(Setting const& setting);
  static std::string SerializePath(uvc::Path const& path);

  // Replaces the value of `out` (attributes untouched) with the stored one. A list comes
  // back empty with its stored count reserved (at most the 65536 elements a path can
  // address, and at most `reserveAtMost`); its elements are records of their own. Size
  // checks run before `out` is touched.
  void DeserializeValue(Setting& out) const;
  void DeserializeValue(Setting& out, std::size_t reserveAtMost) const;
  template <std::size_t Index>
  void DeserializeValue(Setting& out, std::uint64_t word) const;

  // Parses the path text into `out`; `out` changes only on success.
  void DeserializePath(uvc::Path& out) const;

  Bytes value;
  std::string path;
};

// The routines of strings and byte strings; `word` is the record's word. A string word of
// 0 wraps the length: the old value is dropped, `out` is left valueless and
// std::length_error is thrown.
template <>
void RawItem::DeserializeValue<uvc::index::kString>(Setting& out, std::uint64_t word) const;
template <>
void RawItem::DeserializeValue<uvc::index::kBytes>(Setting& out, std::uint64_t word) const;

}  // namespace settings_manager::impl
