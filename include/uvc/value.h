#pragma once

/// \file
/// The value of a node: uvc::TValue, a variant of sixteen alternatives.

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <variant>
#include <vector>

#include "tern/rtl/timestamp.h"

namespace uvc_sm {

/// The value of an empty node. All None values are equal.
struct None {
  /// Always true.
  friend constexpr bool operator==(None, None) noexcept { return true; }
  /// Always false.
  friend constexpr bool operator!=(None, None) noexcept { return false; }
};

}  // namespace uvc_sm

namespace uvc {

/// The value of a node of type S without its attributes. The order of the alternatives is
/// stored in every database record and must never change; the unsigned integers come last.
template <typename S>
using TValue = std::variant<uvc_sm::None,                           // 0
                            std::vector<S>,                         // 1 list
                            std::map<std::string, S, std::less<>>,  // 2 map, byte order
                            bool,                                   // 3
                            std::int8_t,                            // 4
                            std::int16_t,                           // 5
                            std::int32_t,                           // 6
                            std::int64_t,                           // 7
                            double,                                 // 8
                            tern::rtl::Timestamp,                   // 9
                            std::string,                            // 10
                            std::vector<std::uint8_t>,              // 11
                            std::uint8_t,                           // 12
                            std::uint16_t,                          // 13
                            std::uint32_t,                          // 14
                            std::uint64_t>;                         // 15

/// Alternative indices of TValue, for the places that switch on them.
namespace index {
constexpr std::size_t kNone = 0;       ///< uvc_sm::None
constexpr std::size_t kList = 1;       ///< a list of nodes
constexpr std::size_t kMap = 2;        ///< a map of named nodes, in byte order of the names
constexpr std::size_t kBool = 3;       ///< bool
constexpr std::size_t kInt8 = 4;       ///< std::int8_t
constexpr std::size_t kInt16 = 5;      ///< std::int16_t
constexpr std::size_t kInt32 = 6;      ///< std::int32_t
constexpr std::size_t kInt64 = 7;      ///< std::int64_t
constexpr std::size_t kDouble = 8;     ///< double
constexpr std::size_t kTimestamp = 9;  ///< tern::rtl::Timestamp
constexpr std::size_t kString = 10;    ///< std::string
constexpr std::size_t kBytes = 11;     ///< a byte string, std::vector<std::uint8_t>
constexpr std::size_t kUint8 = 12;     ///< std::uint8_t
constexpr std::size_t kUint16 = 13;    ///< std::uint16_t
constexpr std::size_t kUint32 = 14;    ///< std::uint32_t
constexpr std::size_t kUint64 = 15;    ///< std::uint64_t
constexpr std::size_t kCount = 16;     ///< the number of alternatives
}  // namespace index

}  // namespace uvc
