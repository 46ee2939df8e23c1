#include "settings_manager/setting.h"

#include "uvc/tree.h"

namespace settings_manager {

bool IsReadOnly(Setting const& setting) {
  auto const result = uvc::ForEach(setting, [](Setting const& node, uvc::Path const&) {
    // A valueless node's flag is not trusted; the walk ends on it with its own result.
    if (node.valueless_by_exception()) return uvc::for_each::Continue;
    return node.attributes.readOnly ? uvc::for_each::Stop : uvc::for_each::Continue;
  });
  return result == uvc::for_each::Stop;
}

}  // namespace settings_manager
