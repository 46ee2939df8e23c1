#pragma once

// The one message form of every failure of the settings store: "[SMDB] " and the step.

#include <string>
#include <string_view>
#include <utility>

#include "db_wrappers/sqlite/database.h"
#include "uvc/error.h"

namespace settings_db {

// A failure of the store: its code and message are those of the forms below; `Reason`
// holds SQLite's own words for what went wrong when a database call failed ("database or
// disk is full"), for the caller to pass on.
class StoreError : public uvc::Error {
 public:
  StoreError(int errorCode, std::string const& message, std::string reason)
      : uvc::Error(errorCode, message), reason_(std::move(reason)) {}
  std::string const& Reason() const noexcept { return reason_; }

 private:
  std::string reason_;
};

// Each returns when `condition` holds and otherwise throws a StoreError:
//   "[SMDB] {what}"                                   0x80000071
void Check(bool condition, std::string_view what);
//   "[SMDB] {what}: '{code text}'"                    0x80000059
void Check(bool condition, std::string_view what, int code);
//   "[SMDB] {what}: '{text}'"                         0x80000071
void Check(bool condition, std::string_view what, std::string_view text);
//   "[SMDB] {what}: '{flag}' / '{flag}'"              0x80000071
void Check(bool condition, std::string_view what, bool first, bool second);
//   "[SMDB] {what}: '{code text}' / '{db error}'"     0x80000059
void Check(bool condition, std::string_view what, int code,
           db_wrappers::sqlite::IDatabase const& db);
//   "[SMDB] {what}: '{code text}' / '{statement}' , '{db error}'"   0x80000059
void Check(bool condition, std::string_view what, int code, std::string_view statement,
           db_wrappers::sqlite::IDatabase const& db);

}  // namespace settings_db
