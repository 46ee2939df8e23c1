#pragma once

/// \file
/// Result codes with text, the library's one exception type, and their conversion.

#include <stdexcept>
#include <string>
#include <utility>

#include "fdn/result_codes.h"
#include "settings_manager/export.h"

namespace uvc {

/// A result: the code and a human-readable text.
using Result = std::pair<int, std::string>;

/// The one exception type raised inside the library: a logic error with a result code.
class SETTINGS_MANAGER_API Error : public std::logic_error {
 public:
  /// An error with the result code `errorCode` and the text `message` (what()).
  Error(int errorCode, std::string const& message) : std::logic_error(message), code(errorCode) {}
  /// An error with the result code `errorCode` and the text `message` (what()).
  Error(int errorCode, char const* message) : std::logic_error(message), code(errorCode) {}

  /// The result code, negative.
  int code;
};

/// The process-wide success result (0, empty text), made on first use.
SETTINGS_MANAGER_API Result const& ResultOk();

/// Classifies the exception in flight; call it only inside a catch block. Never throws.
/// - a thrown Result: its code and text;
/// - uvc::Error: its code and what();
/// - std::bad_variant_access: 0x8000004A "uvc: std::bad_variant_access";
/// - another std::exception: 0x8000004B "uvc: std::exception: " + what();
/// - anything else: 0x80000072 "uvc: non-std exception".
SETTINGS_MANAGER_API Result ProcessException() noexcept;

/// The errors of the tree operations, shared by everything that edits a tree: an item
/// that should be new exists already (0x8000004D).
inline Error const kErrorFound{fdn::rc::kFound, "uvc: Item with given id already exists"};
/// An item that should exist does not (0x8000004C).
inline Error const kErrorNotFound{fdn::rc::kNotFound, "uvc: Item with given id does not exist"};
/// A path or id does not fit the node it is applied to (0x8000004A).
inline Error const kErrorNotMatched{fdn::rc::kNotMatched,
                                    "uvc: Path or id does not correspond to contained item"};

}  // namespace uvc
