#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "settings_manager/settings_manager.h"
#include "settings_manager/tree_access.h"

namespace settingsctl {

// The database of one run, as a device program holds it. Reads go straight to the file
// (only the rows asked for, and a missing file is an error, never a new database) until
// something needs a manager: a change or a watch makes one, and from then on everything
// goes through it. Every operation turns a library failure into a Failure whose exit
// status and text say what went wrong; "unchanged" answers come back as false.
class Session {
 public:
  // `dbPath` empty: a tree in memory, without a database.
  explicit Session(std::string dbPath);

  bool InMemory() const noexcept { return dbPath_.empty(); }
  // Makes the manager now, so that the reads and changes that follow see one tree; verbs
  // that check the current setting before they change it call it once their input is
  // known to be good.
  void Open() { Manager(); }
  std::string const& DatabasePath() const noexcept { return dbPath_; }

  // The node at `path`; the empty path reads the whole tree.
  settings_manager::Setting Read(uvc::Path const& path);
  // The children of the map or list at `path`; nothing for a scalar.
  std::optional<std::vector<settings_manager::ChildInfo>> List(uvc::Path const& path);

  // Each returns true when it changed the tree and false when there was nothing to change.
  bool Create(uvc::Path const& path, settings_manager::Setting const& setting);
  bool SetValue(uvc::Path const& path, settings_manager::Setting::Value const& value);
  bool Replace(uvc::Path const& path, settings_manager::Setting const& setting);
  bool SetAttributes(uvc::Path const& path, settings_manager::Attributes const& attributes);
  void Delete(uvc::Path const& path);
  // Runs `edit` on the whole tree under the manager's lock and stores the result in one
  // transaction. A Failure thrown by `edit` leaves everything as it was and is rethrown.
  bool Edit(std::function<void(settings_manager::Setting& tree)> const& edit);
  bool Restore(std::string const& backup);
  void Backup(std::string const& destination);

  settings_manager::SubscriptionId Subscribe(
      uvc::Path const& path, std::shared_ptr<settings_manager::ISettingsUpdateObserver> observer);
  void Unsubscribe(settings_manager::SubscriptionId id);

  // The paths this session changed since the last call, in the order of the changes.
  std::vector<uvc::Path> TakeChanges();

 private:
  // The manager, made on first use; the database file is checked and may be created.
  settings_manager::ISettingsManager& Manager();
  bool Changed(int code, uvc::Path const& path);

  std::string dbPath_;
  std::shared_ptr<settings_manager::ISettingsManager> manager_;
  std::shared_ptr<settings_manager::ISettingsGetter> getter_;
  std::shared_ptr<settings_manager::ISettingsCreator> creator_;
  std::shared_ptr<settings_manager::ISettingsValueSetter> valueSetter_;
  std::shared_ptr<settings_manager::ISettingsSetter> setter_;
  std::shared_ptr<settings_manager::ISettingsDeleter> deleter_;
  std::shared_ptr<settings_manager::ISettingsUpdateSubscriber> subscriber_;
  std::vector<uvc::Path> changes_;
};

// Refuses `file` when it names a FIFO, a device, a folder or a socket, before anything
// opens it (a FIFO would block the reader, a device take a journal beside it). A missing
// file passes: the library refuses it to reads and creates it for changes. `what` names
// the file in messages ("the database", "the backup"). Throws a Failure with `failStatus`.
void CheckFile(std::string const& file, char const* what, int failStatus);

}  // namespace settingsctl
