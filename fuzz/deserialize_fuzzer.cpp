// Any list of records: Deserialize rebuilds a subtree or returns a failure code, never
// throws or crashes; a subtree it rebuilds serializes and deserializes to itself.

#include <cstdint>

#include "fuzz_input.h"
#include "raw_conversion.h"

using settings_manager::Setting;

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  fuzz::Input input(data, size);
  std::vector<settings_manager::impl::RawItem> items;
  while (!input.Empty() && items.size() < 256) items.push_back(input.Record());

  uvc::Path head{uvc::Id("untouched")};
  Setting tree(std::int8_t{7});
  auto const result = settings_manager::Deserialize(items, head, tree);
  if (result.first < 0) {
    // Refused: the outputs as they were.
    if (head != uvc::Path{uvc::Id("untouched")} || tree.index() != uvc::index::kInt8)
      __builtin_trap();
    return 0;
  }
  if (result.first != 0) __builtin_trap();

  std::vector<settings_manager::impl::RawItem> rows;
  if (settings_manager::Serialize(head, tree, rows).first != 0 || rows.empty()) __builtin_trap();
  uvc::Path headAgain;
  Setting treeAgain;
  std::vector<settings_manager::impl::RawItem> again;
  if (settings_manager::Deserialize(rows, headAgain, treeAgain).first != 0 ||
      settings_manager::Serialize(headAgain, treeAgain, again).first != 0)
    __builtin_trap();
  if (headAgain != head || !fuzz::SameRows(again, rows)) __builtin_trap();
  return 0;
}
