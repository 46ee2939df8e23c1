#pragma once

#include "uvc/error.h"

namespace settings_manager {

// Call inside a catch block: the exception in flight as uvc::ProcessException gives it,
// its text completed with the reason of a failed database call, and remembered as the
// calling thread's LastResult. Never throws.
uvc::Result RecordFailure() noexcept;

}  // namespace settings_manager
