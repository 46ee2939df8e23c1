#pragma once

#include <cstddef>

namespace tern::rtl {

// Fills `size` bytes at `buffer` from the kernel's random source.
// Returns 0 on success, non-zero when the source fails (the buffer's content is then
// unspecified).
int TernRandomGenerate(void* buffer, std::size_t size) noexcept;

}  // namespace tern::rtl
