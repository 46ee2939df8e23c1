#include "session.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include "fdn/result_codes.h"

#include "failure.h"
#include "report.h"

namespace settingsctl {
namespace {

namespace rc = fdn::rc;
using settings_manager::Attributes;
using settings_manager::Setting;

// The exit status of a library failure code.
int StatusOf(int code) {
  switch (code) {
    case rc::kNotFound:
    case rc::kNotMatched:
      return status::kNotFound;
    case rc::kProhibited:
    case rc::kFound:
      return status::kRefused;
    case rc::kInvalidArgument:
    case rc::kInvalidState:
      return status::kBadInput;
    case rc::kInterfaceNotSupported:
    case rc::kOutOfMemory:
    case rc::kUnexpected:
    case rc::kUnknownException:
      return status::kFailed;
    default:
      // Everything else comes from the store: the file, its rows, SQLite.
      return status::kDatabase;
  }
}

char const* Hint(int code) {
  switch (code) {
    case rc::kNotFound:
    case rc::kNotMatched:
      return "no such setting";
    case rc::kFound:
      return "a different setting is already there";
    case rc::kInvalidArgument:
      return "invalid path";
    default:
      return nullptr;
  }
}

// "no such setting (Not found = 0x8000004c)": what the code means here, else the
// library's reason; the code's text unless the reason holds it already.
std::string Explain(char const* hint, LibraryCause const& cause) {
  std::string text = hint != nullptr ? hint : cause.reason;
  if (text.find(cause.codeText) == std::string::npos) text += " (" + cause.codeText + ')';
  return text;
}

[[noreturn]] void Fail(int code, char const* hint = nullptr) {
  auto cause = CauseOf(code);
  auto const text = Explain(hint != nullptr ? hint : Hint(code), cause);
  throw Failure(StatusOf(code), text, std::move(cause));
}

template <typename Role>
void Take(settings_manager::ISettingsManager& manager,
          int (settings_manager::ISettingsManager::*get)(std::shared_ptr<Role>&),
          std::shared_ptr<Role>& out) {
  if (int const code = (manager.*get)(out); code != rc::kOk)
    Fail(code, "the manager refused an interface");
}

// "cannot open the database 'x.db': {the library's reason}".
[[noreturn]] void FailFile(char const* what, char const* file, std::string const& path, int code,
                           int failStatus = status::kDatabase) {
  auto cause = CauseOf(code);
  auto const text = fmt::format("cannot {} {} '{}': {}", what, file, path, Explain(nullptr, cause));
  throw Failure(failStatus, text, std::move(cause));
}

char const* KindOf(mode_t mode) {
  if (S_ISDIR(mode)) return "a folder";
  if (S_ISFIFO(mode)) return "a FIFO";
  if (S_ISCHR(mode)) return "a character device";
  if (S_ISBLK(mode)) return "a block device";
  if (S_ISSOCK(mode)) return "a socket";
  return "not a regular file";
}

}  // namespace

void CheckFile(std::string const& file, char const* what, int failStatus) {
  struct stat info {};
  // A missing file is the library's to judge: reads refuse it, changes create it.
  if (::stat(file.c_str(), &info) != 0 || S_ISREG(info.st_mode)) return;
  throw Failure(failStatus,
                fmt::format("{} '{}' is {}, not a regular file", what, file, KindOf(info.st_mode)));
}

Session::Session(std::string dbPath) : dbPath_(std::move(dbPath)) {}

settings_manager::ISettingsManager& Session::Manager() {
  if (manager_) return *manager_;
  if (!InMemory()) CheckFile(dbPath_, "the database", status::kDatabase);
  std::shared_ptr<settings_manager::ISettingsManager> manager;
  if (int const code = settings_manager::CreateSettingsManager({dbPath_}, manager); code != rc::kOk)
    FailFile("open", "the database", dbPath_, code);
  using M = settings_manager::ISettingsManager;
  Take(*manager, &M::GetSettingsGetter, getter_);
  Take(*manager, &M::GetSettingsCreator, creator_);
  Take(*manager, &M::GetSettingsValueSetter, valueSetter_);
  Take(*manager, &M::GetSettingsSetter, setter_);
  Take(*manager, &M::GetSettingsDeleter, deleter_);
  Take(*manager, &M::GetSettingsUpdateSubscriber, subscriber_);
  manager_ = std::move(manager);
  return *manager_;
}

Setting Session::Read(uvc::Path const& path) {
  Setting node;
  int code = rc::kOk;
  if (manager_ || InMemory()) {
    auto& manager = Manager();
    code =
        path.empty() ? settings_manager::GetTree(manager, node) : getter_->GetSetting(path, node);
  } else {
    CheckFile(dbPath_, "the database", status::kDatabase);
    code = settings_manager::ReadSettingFromFile(dbPath_, path, node);
    // Nothing found is an answer; anything else is the file's failure.
    if (code != rc::kOk && StatusOf(code) == status::kDatabase)
      FailFile("read", "the database", dbPath_, code);
  }
  if (code != rc::kOk) Fail(code);
  return node;
}

std::optional<std::vector<settings_manager::ChildInfo>> Session::List(uvc::Path const& path) {
  std::vector<settings_manager::ChildInfo> children;
  if (manager_ || InMemory()) {
    int const code = settings_manager::ListChildren(Manager(), path, children);
    // "Not matched" is also a step of the wrong kind on the way; a scalar reads fine.
    Setting scalar;
    if (code == rc::kNotMatched && !path.empty() && getter_->GetSetting(path, scalar) == rc::kOk)
      return std::nullopt;
    if (code != rc::kOk) Fail(code);
    return children;
  }
  auto const node = Read(path);
  auto describe = [&children](Setting const& child) -> settings_manager::ChildInfo& {
    auto& info = children.emplace_back();
    info.type = child.index();
    info.attributes = child.attributes;
    return info;
  };
  if (auto const* map = std::get_if<uvc::index::kMap>(&node)) {
    for (auto const& [key, child] : *map) describe(child).id = key;
  } else if (auto const* list = std::get_if<uvc::index::kList>(&node)) {
    for (std::size_t i = 0; i < list->size(); ++i) describe((*list)[i]).id.emplace<0>(i);
  } else {
    return std::nullopt;
  }
  return children;
}

bool Session::Changed(int code, uvc::Path const& path) {
  if (code == rc::kOk) {
    changes_.push_back(path);
    return true;
  }
  if (code == rc::kFalse) return false;
  if (StatusOf(code) == status::kDatabase) FailFile("change", "the database", dbPath_, code);
  Fail(code);
}

bool Session::Create(uvc::Path const& path, Setting const& setting) {
  Manager();
  return Changed(creator_->CreateSetting(path, setting), path);
}

bool Session::SetValue(uvc::Path const& path, Setting::Value const& value) {
  Manager();
  int const code = valueSetter_->SetValue(path, value);
  if (code == rc::kProhibited) Fail(code, "read-only");
  return Changed(code, path);
}

bool Session::Replace(uvc::Path const& path, Setting const& setting) {
  Manager();
  return Changed(setter_->SetSetting(path, setting), path);
}

bool Session::SetAttributes(uvc::Path const& path, Attributes const& attributes) {
  Manager();
  return Changed(setter_->SetAttribute(path, attributes), path);
}

void Session::Delete(uvc::Path const& path) {
  Manager();
  int const code = deleter_->DeleteSetting(path);
  if (code == rc::kFalse) throw Failure(status::kNotFound, "no such setting");
  if (code == rc::kProhibited) Fail(code, "list elements cannot be deleted");
  Changed(code, path);
}

bool Session::Edit(std::function<void(Setting& tree)> const& edit) {
  std::optional<Failure> refusal;
  std::vector<uvc::Path> changed;
  int const code = settings_manager::EditTree(Manager(), [&](Setting& tree) {
    try {
      Setting const before = tree;
      edit(tree);
      // The events this edit will cause, for watch to wait for.
      return settings_manager::CompareTrees(
          before, tree,
          [&changed](uvc::Path const& path, unsigned char) { changed.push_back(path); });
    } catch (Failure const& failure) {
      refusal = failure;
      return rc::kProhibited;
    }
  });
  if (refusal) throw *refusal;
  if (code == rc::kFalse) return false;
  if (code != rc::kOk) Changed(code, uvc::Path());
  changes_.insert(changes_.end(), changed.begin(), changed.end());
  return true;
}

bool Session::Restore(std::string const& backup) {
  CheckFile(backup, "the backup", status::kBadInput);
  Setting restored;
  if (int const code = settings_manager::ReadSettingFromFile(backup, uvc::Path(), restored);
      code != rc::kOk)
    FailFile("read", "the backup", backup, code, status::kBadInput);
  return Edit([&restored](Setting& tree) { std::swap(tree, restored); });
}

void Session::Backup(std::string const& destination) {
  if (InMemory()) throw UsageFailure("a tree in memory has no database to back up");
  CheckFile(dbPath_, "the database", status::kDatabase);
  if (int const code = settings_manager::BackupDatabase(dbPath_, destination); code != rc::kOk)
    FailFile("back up", "the database", dbPath_, code);
}

settings_manager::SubscriptionId Session::Subscribe(
    uvc::Path const& path, std::shared_ptr<settings_manager::ISettingsUpdateObserver> observer) {
  Manager();
  settings_manager::SubscriptionId id{};
  if (int const code = subscriber_->Subscribe(path, std::move(observer), id); code != rc::kOk)
    Fail(code);
  return id;
}

void Session::Unsubscribe(settings_manager::SubscriptionId id) {
  if (int const code = subscriber_->Unsubscribe(id); code != rc::kOk) Fail(code);
}

std::vector<uvc::Path> Session::TakeChanges() { return std::exchange(changes_, {}); }

}  // namespace settingsctl
