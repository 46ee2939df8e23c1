#pragma once

// The stored form of one node: the three columns of a row of `data` (path text, value
// record, attribute record). Their byte layout, with worked examples, is
// docs/file-format.md; a change of these records changes that document too.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "settings_manager/setting.h"
#include "uvc/id.h"

namespace settings_manager::impl {

using Bytes = std::vector<std::uint8_t>;

// Bytes of a record that something else owns.
struct ByteView {
  std::uint8_t const* data = nullptr;
  std::size_t size = 0;
};

// Size checks and word packing shared by the records.
struct Raw {
  static constexpr std::size_t kHeaderSize = 16;
  static constexpr std::uint64_t kAttribVersion = 0x10000;

  // Throws 0x8000005C "[RawSetting] Insufficient raw data size: fact/plan = {}/{}" when
  // `data` holds fewer than `need` bytes.
  static void Check(Bytes const& data, std::size_t need);
  static void Check(ByteView data, std::size_t need);

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

// The three fields of a record without owning them: a row as the store reads it, or a
// RawItem. Decodes them exactly as RawItem does (the same checks, codes and messages).
struct RawView {
  std::string_view path;
  ByteView value;
  ByteView attrib;

  void DeserializeAttrib(Attributes& out) const;
  void DeserializeValue(Setting& out, std::size_t reserveAtMost) const;
  void DeserializePath(uvc::Path& out) const;
};

// Records in ascending byte order of path text, one at a time: the rows of a subtree as
// the store reads them, or a vector of RawItem.
class RawSource {
 public:
  virtual ~RawSource() = default;
  // The next record, or false after the last. The views stay valid until the next call.
  // A source that cannot read a record throws.
  virtual bool Next(RawView& record) = 0;
  // How many records there are in all; a source that has to count may throw as Next does.
  virtual std::size_t Total() = 0;
  // A number of records there surely are, known without counting: Total() when known,
  // else those handed out so far.
  virtual std::size_t AtLeast() const noexcept = 0;
  // True once Next or Total threw: the failure is the source's own, not a record's.
  virtual bool Failed() const noexcept = 0;
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

  RawView View() const noexcept;

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
