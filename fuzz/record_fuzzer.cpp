// One stored row: its attribute record, value record and path text are decoded or
// refused with the records' own errors; whatever decodes, encodes and decodes again to
// the same.

#include <cstdint>
#include <stdexcept>

#include "fuzz_input.h"
#include "uvc/error.h"

using settings_manager::Setting;
using settings_manager::impl::RawItem;

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  fuzz::Input input(data, size);
  auto attrib = input.Bytes(input.Byte());
  auto value = input.Bytes(input.Length16());
  RawItem const item(std::move(attrib), std::move(value), input.Text(size));
  try {
    settings_manager::Attributes attributes{true}, back;
    item.DeserializeAttrib(attributes);
    settings_manager::impl::RawAttrib(attributes).DeserializeAttrib(back);
    if (back != attributes) __builtin_trap();
  } catch (uvc::Error const&) {
  }
  Setting setting(std::string("old")), back;
  try {
    item.DeserializeValue(setting);
    auto const bytes = RawItem::SerializeValue(setting);
    RawItem({}, bytes, "").DeserializeValue(back);
    if (RawItem::SerializeValue(back) != bytes) __builtin_trap();
  } catch (uvc::Error const&) {  // refused before the target was touched
    if (setting != Setting(std::string("old"))) __builtin_trap();
  } catch (std::length_error const&) {  // a string whose length word is 0: left valueless
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
