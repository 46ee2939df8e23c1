#include "tern/rtl/timestamp.h"

#include <chrono>

namespace tern::rtl {

Timestamp Timestamp::Now() noexcept {
  using namespace std::chrono;
  return Timestamp(duration_cast<microseconds>(system_clock::now().time_since_epoch()).count());
}

}  // namespace tern::rtl
