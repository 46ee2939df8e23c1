#include "session.h"

#include <fmt/format.h>

#include <cstring>
#include <filesystem>
#include <fstream>

#include "fdn/result_codes.h"

#include "failure.h"

namespace settingsctl {
namespace {

namespace rc = fdn::rc;
using settings_manager::Attributes;
using settings_manager::Setting;

// "read-only (Prohibited = 0x80000066)": what it means here, then the library's text.
[[noreturn]] void Fail(int code, char const* hint) {
  auto const text = fdn::ResultCodeText(code);
  throw Failure(status::kFailed, hint != nullptr ? fmt::format("{} ({})", hint, text) : text);
}

char const* LookupHint(int code, uvc::Path const& path) {
  if (code == rc::kNotFound || code == rc::kNotMatched) return "no such setting";
  if (code == rc::kInvalidArgument)
    return path.empty() ? "the library reads named settings only, not the whole tree"
                        : "invalid path";
  return nullptr;
}

template <typename Role>
void Take(settings_manager::ISettingsManager& manager,
          int (settings_manager::ISettingsManager::*get)(std::shared_ptr<Role>&),
          std::shared_ptr<Role>& out) {
  if (int const code = (manager.*get)(out); code != rc::kOk)
    Fail(code, "the manager refused an interface");
}

// The library says only that the file would not open; the file system often says why.
std::string OpenHint(std::string const& file) {
  namespace fs = std::filesystem;
  std::error_code error;
  if (fs::is_directory(file, error)) return " (it is a folder)";
  auto const folder = fs::path(file).parent_path();
  if (!folder.empty() && !fs::is_directory(folder, error)) return " (its folder does not exist)";
  if (fs::exists(file, error) && fs::file_size(file, error) > 0) {
    char head[16] = {};
    std::ifstream(file, std::ios::binary).read(head, sizeof head);
    if (std::memcmp(head, "SQLite format 3", sizeof head) != 0)
      return " (not an SQLite database file)";
  }
  return std::string();
}

}  // namespace

Session::Session(std::string const& dbPath) {
  if (int const code = settings_manager::CreateSettingsManager({dbPath}, manager_); code != rc::kOk)
    throw Failure(status::kFailed, fmt::format("cannot open the database '{}': {}{}", dbPath,
                                               fdn::ResultCodeText(code), OpenHint(dbPath)));
  using M = settings_manager::ISettingsManager;
  Take(*manager_, &M::GetSettingsGetter, getter_);
  Take(*manager_, &M::GetSettingsCreator, creator_);
  Take(*manager_, &M::GetSettingsValueSetter, valueSetter_);
  Take(*manager_, &M::GetSettingsSetter, setter_);
  Take(*manager_, &M::GetSettingsDeleter, deleter_);
  Take(*manager_, &M::GetSettingsUpdateSubscriber, subscriber_);
}

Setting Session::Get(uvc::Path const& path) const {
  Setting node;
  if (int const code = getter_->GetSetting(path, node); code != rc::kOk)
    Fail(code, LookupHint(code, path));
  return node;
}

std::optional<Setting> Session::Find(uvc::Path const& path) const {
  Setting node;
  int const code = getter_->GetSetting(path, node);
  if (code == rc::kOk) return node;
  if (code == rc::kNotFound || code == rc::kNotMatched) return std::nullopt;
  Fail(code, LookupHint(code, path));
}

Attributes Session::GetAttributes(uvc::Path const& path) const {
  Attributes attributes;
  if (int const code = getter_->GetAttribute(path, attributes); code != rc::kOk)
    Fail(code, LookupHint(code, path));
  return attributes;
}

bool Session::Changed(int code, uvc::Path const& path, char const* hint) {
  if (code == rc::kOk) {
    changes_.push_back(path);
    return true;
  }
  if (code == rc::kFalse) return false;
  Fail(code, hint != nullptr ? hint : LookupHint(code, path));
}

bool Session::Create(uvc::Path const& path, Setting const& setting) {
  int const code = creator_->CreateSetting(path, setting);
  return Changed(code, path, code == rc::kFound ? "a different setting is already there" : nullptr);
}

bool Session::SetValue(uvc::Path const& path, Setting::Value const& value) {
  int const code = valueSetter_->SetValue(path, value);
  return Changed(code, path, code == rc::kProhibited ? "read-only" : nullptr);
}

bool Session::Replace(uvc::Path const& path, Setting const& setting) {
  return Changed(setter_->SetSetting(path, setting), path, nullptr);
}

bool Session::SetAttributes(uvc::Path const& path, Attributes const& attributes) {
  return Changed(setter_->SetAttribute(path, attributes), path, nullptr);
}

void Session::Delete(uvc::Path const& path) {
  int const code = deleter_->DeleteSetting(path);
  if (code == rc::kFalse) throw Failure(status::kFailed, "no such setting");
  Changed(code, path, code == rc::kProhibited ? "list elements cannot be deleted" : nullptr);
}

settings_manager::SubscriptionId Session::Subscribe(
    uvc::Path const& path, std::shared_ptr<settings_manager::ISettingsUpdateObserver> observer) {
  settings_manager::SubscriptionId id{};
  if (int const code = subscriber_->Subscribe(path, std::move(observer), id); code != rc::kOk)
    Fail(code, LookupHint(code, path));
  return id;
}

void Session::Unsubscribe(settings_manager::SubscriptionId id) {
  if (int const code = subscriber_->Unsubscribe(id); code != rc::kOk) Fail(code, nullptr);
}

std::vector<uvc::Path> Session::TakeChanges() { return std::exchange(changes_, {}); }

}  // namespace settingsctl
