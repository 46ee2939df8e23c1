#include "support/fault_vfs.h"

#include <sqlite3.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <mutex>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace test_support {

struct FaultVfs::Impl {
  // One change of a file not yet synced: what it wrote and what it overwrote, so that a
  // power cut can take it back or replay part of it.
  struct Change {
    sqlite3_int64 offset = 0;  // a write's offset, or a truncate's new size
    std::string data;          // the bytes written
    bool truncate = false;
    std::string old;  // the bytes the change replaced, up to the old end of file
    sqlite3_int64 sizeBefore = 0;
  };
  sqlite3_vfs vfs{};
  sqlite3_vfs* base = nullptr;
  std::mutex lock;
  std::uint64_t changes = 0, seen = 0, injected = 0;  // these and the rest guarded by lock
  std::optional<Fault> fault;
  std::optional<std::uint64_t> cutAt;
  bool powerOff = false;
  std::map<std::string, std::vector<Change>> unsynced;  // by file name
  // Files unlinked with no directory sync since: the content a restart brings back.
  std::map<std::string, std::string> unlinked;
};

namespace {

using Change = FaultVfs::Impl::Change;
FaultVfs::Impl* active = nullptr;
constexpr std::size_t kSector = 512;

// What the VFS keeps with each open file, behind the default VFS's own file. The file
// keeps the default VFS's methods, but for the four that change or read it.
struct Extra {
  sqlite3_io_methods methods;
  sqlite3_io_methods const* real;
  char const* name;  // SQLite keeps it valid until xClose; null for temporary files
  bool dirSyncPending;
};

// The default VFS's file is a struct, a multiple of 8 bytes long: Extra fits right behind
// it.
Extra& ExtraOf(sqlite3_file* file) {
  return *std::launder(
      reinterpret_cast<Extra*>(reinterpret_cast<char*>(file) + active->base->szOsFile));
}

void Redo(std::string& content, Change const& c, std::size_t bytes) {
  auto const at = static_cast<std::size_t>(c.offset);
  if (c.truncate) return content.resize(at);
  content.resize(std::max(content.size(), at + bytes));
  content.replace(at, bytes, c.data, 0, bytes);
}

// The content a file had when it was last synced.
std::string Synced(std::string const& path, std::vector<Change> const& changes) {
  std::ifstream in(path, std::ios::binary);
  std::string content(std::istreambuf_iterator<char>(in), {});
  for (auto c = changes.rbegin(); c != changes.rend(); ++c) {
    content.resize(std::max(content.size(), static_cast<std::size_t>(c->sizeBefore)));
    content.replace(static_cast<std::size_t>(c->offset), c->old.size(), c->old);
    content.resize(static_cast<std::size_t>(c->sizeBefore));
  }
  return content;
}

// A directory sync makes every earlier unlink in that directory durable.
void DirectorySynced(std::string const& path) {
  auto const folder = std::filesystem::path(path).parent_path();
  for (auto it = active->unlinked.begin(); it != active->unlinked.end();)
    it = std::filesystem::path(it->first).parent_path() == folder ? active->unlinked.erase(it)
                                                                  : std::next(it);
}

// Counts a call and decides its fate: SQLITE_OK to go ahead, or the code to fail with.
int Enter(FaultVfs::Call call, int ownError) {
  auto& s = *active;
  std::lock_guard<std::mutex> guard(s.lock);
  if (call != FaultVfs::kRead) {
    if (s.powerOff) return ownError;
    if (++s.changes > s.cutAt.value_or(UINT64_MAX)) return s.powerOff = true, ownError;
  }
  if (!s.fault || s.fault->call != call) return SQLITE_OK;
  if (++s.seen != s.fault->nth && !(s.fault->persistent && s.seen > s.fault->nth)) return SQLITE_OK;
  ++s.injected;
  return s.fault->code != 0 ? s.fault->code : ownError;
}

// Runs a write or truncate at `offset`, remembering the bytes up to `end` it replaces.
int Modify(sqlite3_file* file, FaultVfs::Call call, int ownError, sqlite3_int64 offset,
           std::string data, sqlite3_int64 end) {
  if (int rc = Enter(call, ownError); rc != SQLITE_OK) return rc;
  auto& x = ExtraOf(file);
  Change c{offset, std::move(data), call == FaultVfs::kTruncate, {}, 0};
  x.real->xFileSize(file, &c.sizeBefore);
  c.old.resize(static_cast<std::size_t>(
      std::max<sqlite3_int64>(0, std::min(end, c.sizeBefore) - std::min(offset, c.sizeBefore))));
  if (!c.old.empty()) x.real->xRead(file, c.old.data(), static_cast<int>(c.old.size()), offset);
  int const rc = c.truncate
                     ? x.real->xTruncate(file, offset)
                     : x.real->xWrite(file, c.data.data(), static_cast<int>(c.data.size()), offset);
  std::lock_guard<std::mutex> guard(active->lock);
  if (rc == SQLITE_OK && x.name != nullptr) active->unsynced[x.name].push_back(std::move(c));
  return rc;
}

int Read(sqlite3_file* file, void* out, int amount, sqlite3_int64 offset) {
  if (int rc = Enter(FaultVfs::kRead, SQLITE_IOERR_READ); rc != SQLITE_OK) return rc;
  return ExtraOf(file).real->xRead(file, out, amount, offset);
}

int Write(sqlite3_file* file, void const* data, int amount, sqlite3_int64 offset) {
  return Modify(file, FaultVfs::kWrite, SQLITE_IOERR_WRITE, offset,
                std::string(static_cast<char const*>(data), static_cast<std::size_t>(amount)),
                offset + amount);
}

int Truncate(sqlite3_file* file, sqlite3_int64 size) {
  return Modify(file, FaultVfs::kTruncate, SQLITE_IOERR_TRUNCATE, size, {}, INT64_MAX);
}

int Sync(sqlite3_file* file, int) {
  if (int rc = Enter(FaultVfs::kSync, SQLITE_IOERR_FSYNC); rc != SQLITE_OK) return rc;
  auto& x = ExtraOf(file);
  std::lock_guard<std::mutex> guard(active->lock);
  if (x.name != nullptr) active->unsynced.erase(x.name);
  // The default VFS syncs the directory with the first sync of a journal it created.
  if (x.dirSyncPending && x.name != nullptr) DirectorySynced(x.name);
  x.dirSyncPending = false;
  return SQLITE_OK;
}

int Open(sqlite3_vfs*, sqlite3_filename name, sqlite3_file* file, int flags, int* outFlags) {
  int const rc = active->base->xOpen(active->base, name, file, flags, outFlags);
  if (file->pMethods == nullptr) return rc;
  int const journals = SQLITE_OPEN_MAIN_JOURNAL | SQLITE_OPEN_WAL | SQLITE_OPEN_SUPER_JOURNAL;
  auto* x = new (reinterpret_cast<char*>(file) + active->base->szOsFile)
      Extra{*file->pMethods, file->pMethods, name,
            (flags & SQLITE_OPEN_CREATE) != 0 && (flags & journals) != 0};
  x->methods.xRead = &Read;
  x->methods.xWrite = &Write;
  x->methods.xTruncate = &Truncate;
  x->methods.xSync = &Sync;
  file->pMethods = &x->methods;
  return rc;
}

int Delete(sqlite3_vfs*, char const* name, int syncDir) {
  if (int rc = Enter(FaultVfs::kDelete, SQLITE_IOERR_DELETE); rc != SQLITE_OK) return rc;
  {
    std::lock_guard<std::mutex> guard(active->lock);
    if (syncDir != 0) {
      DirectorySynced(name);
    } else if (active->unlinked.count(name) == 0 && std::filesystem::exists(name)) {
      // Without a directory sync the unlink may not survive a power cut: a restart would
      // find the content that was synced.
      active->unlinked[name] = Synced(name, active->unsynced[name]);
    }
    active->unsynced.erase(name);
  }
  return active->base->xDelete(active->base, name, syncDir);
}

}  // namespace

FaultVfs::FaultVfs() : impl_(std::make_unique<Impl>()) {
  auto& s = *impl_;
  s.base = sqlite3_vfs_find(nullptr);
  s.vfs = *s.base;  // the rest of the VFS is the default one's
  s.vfs.pNext = nullptr;
  active = &s;
  s.vfs.szOsFile = s.base->szOsFile + static_cast<int>(sizeof(Extra));
  s.vfs.zName = "sm-fault";
  s.vfs.xOpen = &Open;
  s.vfs.xDelete = &Delete;
  if (sqlite3_vfs_register(&s.vfs, 1) != SQLITE_OK) throw std::runtime_error("fault_vfs");
}

FaultVfs::~FaultVfs() {
  sqlite3_vfs_unregister(&impl_->vfs);  // the previous default becomes the default again
  active = nullptr;
}

template <typename Action>
auto Locked(FaultVfs::Impl& s, Action action) {
  std::lock_guard<std::mutex> guard(s.lock);
  return action(s);
}

std::uint64_t FaultVfs::Changes() const {
  return Locked(*impl_, [](Impl& s) { return s.changes; });
}
void FaultVfs::Arm(std::optional<Fault> const& fault) {
  Locked(*impl_, [&](Impl& s) { s.fault = fault, s.seen = s.injected = 0; });
}
std::uint64_t FaultVfs::Injected() const {
  return Locked(*impl_, [](Impl& s) { return s.injected; });
}
void FaultVfs::CutAfter(std::uint64_t changes) {
  Locked(*impl_, [&](Impl& s) { s.cutAt = s.changes + changes; });
}
void FaultVfs::SyncAll() {
  Locked(*impl_, [](Impl& s) { s.unsynced.clear(), s.unlinked.clear(); });
}

bool FaultVfs::ApplyPowerLoss(Loss loss, std::mt19937_64& random) {
  auto& s = *impl_;
  std::lock_guard<std::mutex> guard(s.lock);
  bool const wasOff = s.powerOff;
  for (auto const& [name, changes] : s.unsynced) {
    if (changes.empty() || !std::filesystem::exists(name)) continue;
    std::string content = Synced(name, changes);
    // The changes that reached the disk in order before the power went; with kTornPrefix a
    // part of the next one too.
    std::size_t const reached = loss == Loss::kKeepAll      ? changes.size()
                                : loss == Loss::kTornPrefix ? random() % (changes.size() + 1)
                                                            : 0;
    for (std::size_t i = 0; i < changes.size(); ++i) {
      auto const& c = changes[i];
      if (i < reached || (loss == Loss::kKeepSome && (random() & 1) != 0))
        Redo(content, c, c.data.size());
      else if (i == reached && loss == Loss::kTornPrefix && !c.truncate)
        Redo(content, c, kSector * (random() % (c.data.size() / kSector + 1)));
    }
    std::ofstream(name, std::ios::binary | std::ios::trunc) << content;
  }
  for (auto const& [name, content] : s.unlinked)  // unlinks no directory sync made durable
    std::ofstream(name, std::ios::binary | std::ios::trunc) << content;
  s.unsynced.clear();
  s.unlinked.clear();
  s.cutAt.reset();
  s.powerOff = false;
  return wasOff;
}

}  // namespace test_support
