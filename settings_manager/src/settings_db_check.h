#pragma once

// The one message form of every failure of the settings store: "[SMDB] " and the step.

#include <string>
#include <string_view>

#include "db_wrappers/sqlite/database.h"

namespace settings_db {

// Each returns when `condition` holds and otherwise throws uvc::Error:
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
