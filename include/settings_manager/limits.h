#pragma once

/// \file
/// The limits of the settings tree.

#include <cstddef>

namespace settings_manager {

/// The deepest a node may sit: the number of ids in its path. Every way in keeps to it:
/// a path given to an operation, a setting created or set at a path (the path's ids plus
/// the levels inside the setting), and every row of a database file read at start-up.
/// Deeper input is refused with 0x8000005E "Out of range" and a message that names the
/// limit, before anything is copied, and in time that does not grow with the input's
/// depth. So a tree of the manager is never deeper than this, and the library's walks of
/// it (copies, comparisons, the conversion to rows) stay within a small, fixed stack.
constexpr std::size_t kMaxDepth = 256;

}  // namespace settings_manager
