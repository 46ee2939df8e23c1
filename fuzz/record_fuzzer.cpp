// One stored row: its attribute record, value record and path text are decoded or
// refused with the records' own errors; whatever decodes, encodes and decodes again to
// the same.

#include <cstdint>
#include <stdexcept>

#include "fuzz_input.h"
#include "uvc/error.h"

using settings_manager::Attributes;
using settings_manager::Setting;
using settings_manager::impl::RawItem;

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  fuzz::Input input(data, size);
  auto const attrib = input.Bytes(input.Byte());
  auto const value = input.Bytes(input.Length16());
  RawItem const item(attrib, value, input.Rest());

  Attributes attributes{true};
  try {
    item.DeserializeAttrib(attributes);
    settings_manager::impl::RawAttrib const again(attributes);
    Attributes back;
    again.DeserializeAttrib(back);
    if (back != attributes) __builtin_trap();
  } catch (uvc::Error const&) {
  }

  Setting setting(std::string("old"));
  try {
    item.DeserializeValue(setting);
    RawItem const again(std::vector<std::uint8_t>(), RawItem::SerializeValue(setting), "");
    Setting back;
    again.DeserializeValue(back);
    if (!fuzz::Same(back, setting)) __builtin_trap();
  } catch (uvc::Error const&) {
    // Refused before the target was touched.
    auto const* old = std::get_if<std::string>(&setting);
    if (old == nullptr || *old != "old") __builtin_trap();
  } catch (std::length_error const&) {
    // A string whose stored length word is 0: documented, the target left valueless.
    if (!setting.valueless_by_exception()) __builtin_trap();
  }

  uvc::Path path;
  try {
    item.DeserializePath(path);
    if (RawItem::SerializePath(path).empty() != path.empty()) __builtin_trap();
  } catch (uvc::Error const&) {
    if (!path.empty()) __builtin_trap();  // refused: the target unchanged
  }
  return 0;
}
