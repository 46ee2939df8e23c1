#include "settings_db_check.h"

#include <fmt/format.h>

#include <utility>

#include "fdn/result_codes.h"
#include "uvc/error.h"

namespace settings_db {
namespace {

// Takes the reason of the database call that failed last, unless the message says it.
[[noreturn]] void Fail(int code, std::string const& message) {
  auto reason = db_wrappers::sqlite::TakeFailureReason();
  if (message.find(reason) != std::string::npos) reason.clear();
  throw StoreError(code, message, std::move(reason));
}

}  // namespace

void Check(bool condition, std::string_view what) {
  if (!condition) Fail(fdn::rc::kInvalidResult, fmt::format("[SMDB] {}", what));
}

void Check(bool condition, std::string_view what, int code) {
  if (!condition)
    Fail(fdn::rc::kMediaError, fmt::format("[SMDB] {}: '{}'", what, fdn::ResultCodeText(code)));
}

void Check(bool condition, std::string_view what, std::string_view text) {
  if (!condition) Fail(fdn::rc::kInvalidResult, fmt::format("[SMDB] {}: '{}'", what, text));
}

void Check(bool condition, std::string_view what, bool first, bool second) {
  if (!condition)
    Fail(fdn::rc::kInvalidResult, fmt::format("[SMDB] {}: '{}' / '{}'", what, first, second));
}

void Check(bool condition, std::string_view what, int code,
           db_wrappers::sqlite::IDatabase const& db) {
  if (!condition)
    Fail(fdn::rc::kMediaError,
         fmt::format("[SMDB] {}: '{}' / '{}'", what, fdn::ResultCodeText(code), db.LastError()));
}

void Check(bool condition, std::string_view what, int code, std::string_view statement,
           db_wrappers::sqlite::IDatabase const& db) {
  if (!condition)
    Fail(fdn::rc::kMediaError, fmt::format("[SMDB] {}: '{}' / '{}' , '{}'", what,
                                           fdn::ResultCodeText(code), statement, db.LastError()));
}

}  // namespace settings_db
