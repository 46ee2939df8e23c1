#include "tern/rtl/random.h"

#include <sys/random.h>

#include <cerrno>
#include <cstdint>

namespace tern::rtl {

int TernRandomGenerate(void* buffer, std::size_t size) noexcept {
  auto* out = static_cast<std::uint8_t*>(buffer);
  while (size > 0) {
    ssize_t const got = getrandom(out, size, 0);
    if (got < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    out += got;
    size -= static_cast<std::size_t>(got);
  }
  return 0;
}

}  // namespace tern::rtl
