// One store for every manager of a file: changes decided against the file as it is, and
// the tree brought up to date with what the other managers committed.

#include <filesystem>

#include "log.h"
#include "raw_conversion.h"
#include "settings_manager.h"
#include "settings_manager/paths.h"
#include "tree_diff.h"
#include "uvc/tree.h"

namespace settings_manager {

using log::kManagerSource;
using log::LogLevel;

SettingsManager::StoreChange::StoreChange(SettingsManager& manager, EventThread& guard,
                                          char const* what) {
  if (!manager.db) return;
  // Never written to a file that no longer has the path (checked once the watcher saw
  // the name change: a stat costs more than the rest of this).
  if (manager.renamed) manager.db->CheckSameFile();
  // Begun first: from here on no other manager commits until this change ends.
  transaction_.emplace(*manager.db, what);
  manager.CatchUp_(guard);
}

bool SettingsManager::StoreChange::Commit(std::string const& key, std::uint64_t generation) {
  if (!transaction_) return false;
  transaction_->Commit(key, generation);
  return true;
}

void SettingsManager::Commit_(StoreChange& change, std::string const& key) {
  // Caught up inside this transaction: the file's generation is the one seen.
  auto const next = settings_db::SettingsDB::NextGeneration(seenGeneration);
  if (change.Commit(key, next)) seenGeneration = next;
}

void SettingsManager::StartWatcher(std::string const& dbPath) {
  std::filesystem::path const file(dbPath);
  auto folder = file.parent_path().string();
  if (folder.empty()) folder = ".";
  auto const name = file.filename().string();
  try {
    // A commit writes the log (WAL) or the file and its journal (rollback journal).
    watcher = std::make_unique<tern::rtl::FileWatcher>(
        folder, std::vector<std::string>{name, name + "-wal", name + "-journal"},
        [this](bool replaced) { return FileChanged(replaced); });
    watching = true;
  } catch (std::exception const&) {
    // Without a watcher every read and change looks at the file: slower, never stale.
    stale = true;
    renamed = true;
    auto const result = uvc::ProcessException();
    SM_LOG(LogLevel::Warning, kManagerSource, "SettingsManager",
           "{} Watch: every read checks the file: {}", id, result);
  }
}

bool SettingsManager::FileChanged(bool replaced) noexcept {
  if (replaced) renamed = true;
  stale = true;
  if (!eventsEnabled) return false;
  // Observers hear other processes' changes without anyone reading. A change being
  // committed elsewhere usually ends within one fsync; a longer one is taken in by a
  // later try, so that readers are held up for no longer than this.
  Refresh_(true, std::chrono::milliseconds(5));
  return stale;
}

void SettingsManager::Refresh() noexcept { Refresh_(false, std::chrono::microseconds(0)); }

void SettingsManager::Refresh_(bool onlyIfStale, std::chrono::microseconds patience) noexcept {
  if (!db) return;
  try {
    EventThread notify(*this);
    WriterLock lock(treeLock);
    if (onlyIfStale && !stale) return;  // brought up to date while this waited
    db->ReopenIfImmutable();
    // Cleared only when the file's write lock was free: a commit whose writes woke the
    // watcher has then ended, and is taken in here. Otherwise the next read tries again.
    settings_db::SettingsDB::Snapshot const snapshot(*db, patience);
    CatchUp_(notify);
    if (watching && snapshot.Complete()) stale = false;
  } catch (...) {
    auto const result = uvc::ProcessException();
    SM_LOG_NOEXCEPT(LogLevel::Error, kManagerSource, "Refresh", "{} Refresh: {}", id, result);
  }
}

void SettingsManager::CatchUp_(EventThread& guard) {
  auto const generation = db->Generation();
  if (generation == seenGeneration) return;
  auto const changed = db->ChangedSince(seenGeneration);
  bool whole = !changed;
  for (std::size_t i = 0; !whole && i < changed->size(); ++i)
    whole = (*changed)[i].empty() || !ReloadSubtree_(guard, (*changed)[i]);
  if (whole) ReloadAll_(guard);
  seenGeneration = generation;
}

void SettingsManager::ReloadAll_(EventThread& guard) {
  std::size_t nodes = 1;
  settings_db::SettingsDB::Reader rows(*db, std::string());
  Setting fresh = LoadTree(rows, nodes);
  PushDiff_(guard, uvc::Root(), &tree, &fresh);
  std::swap(tree, fresh);
}

bool SettingsManager::ReloadSubtree_(EventThread& guard, std::string const& key) {
  auto const [path, state] = uvc::FromString(key, meta::GetIdSpecification());
  if (state != uvc::IdState::Ok || path.empty()) return false;
  Setting* parent = &tree;
  for (std::size_t i = 0; parent != nullptr && i + 1 < path.size(); ++i)
    parent = uvc::FindItem(*parent, path[i]);
  settings_db::SettingsDB::Reader rows(*db, key);
  if (parent == nullptr) {
    // Read through all the same: a row that cannot be read fails here, as it always did.
    for (impl::RawView row; rows.Next(row);) {
    }
    return rows.AtLeast() == 0;
  }
  Setting* node = uvc::FindItem(*parent, path.back());
  auto* map = std::get_if<uvc::index::kMap>(parent);
  auto const* name = std::get_if<1>(&path.back());

  if (rows.Empty()) {
    if (node == nullptr) return true;
    if (map == nullptr) return false;  // a list keeps its elements
    PushDiff_(guard, path, node, nullptr);
    map->erase(*name);
    return true;
  }
  uvc::Path head;
  Setting fresh;
  auto const result = Deserialize(rows, head, fresh);
  if (result.first < 0) throw uvc::Error(result.first, result.second);
  if (node != nullptr) {
    PushDiff_(guard, path, node, &fresh);
    std::swap(*node, fresh);
    return true;
  }
  if (map == nullptr || name == nullptr) return false;
  PushDiff_(guard, path, nullptr, &fresh);
  map->emplace(*name, std::move(fresh));
  return true;
}

void SettingsManager::PushDiff_(EventThread& guard, uvc::Path const& path, Setting const* before,
                                Setting const* after) {
  if (!eventsEnabled) return;
  if (before == nullptr || after == nullptr) {
    PushEvent_(guard, uvc::Path(path), before == nullptr ? event::kCreated : event::kDeleted);
    return;
  }
  uvc::Path at = path;
  auto const push = [&](uvc::Path const& changed, unsigned char kind)
                        REQUIRES(treeLock) { PushEvent_(guard, uvc::Path(changed), kind); };
  DiffTrees(*before, *after, at, push);
}

}  // namespace settings_manager
