#include "failure.h"

#include <exception>
#include <string>

#include "settings_db_check.h"
#include "settings_manager/last_result.h"

namespace settings_manager {
namespace {

thread_local uvc::Result last{fdn::rc::kOk, std::string()};

}  // namespace

uvc::Result RecordFailure() noexcept {
  auto result = uvc::ProcessException();
  try {
    try {
      throw;
    } catch (settings_db::StoreError const& error) {
      if (!error.Reason().empty()) result.second += ": " + error.Reason();
    } catch (...) {
    }
    last = result;
  } catch (...) {
    // Out of memory while completing the text: the result stands as converted.
  }
  return result;
}

uvc::Result LastResult() { return last; }

}  // namespace settings_manager
