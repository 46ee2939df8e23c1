#include "support/fault_vfs.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace test_support {
namespace {

using Bytes = std::vector<std::uint8_t>;
constexpr std::int64_t kSector = 512;

std::atomic<bool> alive{false};

// One change of a file not yet synced: what it wrote and what it overwrote, so that a
// power cut can take it back or replay part of it.
struct Change {
  bool truncate = false;
  std::int64_t offset = 0;  // a write's offset, or a truncate's new size
  Bytes data;               // the bytes written
  Bytes old;                // the bytes the change replaced, up to the old end of file
  std::int64_t sizeBefore = 0;
};

// A file descriptor that closes itself.
class Fd {
 public:
  Fd(std::string const& path, int flags) : fd_(::open(path.c_str(), flags | O_CLOEXEC, 0644)) {}
  ~Fd() {
    if (fd_ >= 0) ::close(fd_);
  }
  Fd(Fd const&) = delete;
  Fd& operator=(Fd const&) = delete;
  bool Ok() const { return fd_ >= 0; }
  void Write(Bytes const& bytes, std::int64_t offset, std::size_t count) const {
    if (count == 0) return;
    if (::pwrite(fd_, bytes.data(), count, offset) != static_cast<ssize_t>(count))
      throw std::runtime_error("fault_vfs: pwrite failed");
  }
  void Truncate(std::int64_t size) const {
    if (::ftruncate(fd_, size) != 0) throw std::runtime_error("fault_vfs: ftruncate failed");
  }
  Bytes ReadAll() const {
    Bytes all;
    std::uint8_t buffer[65536];
    for (std::int64_t at = 0;;) {
      auto const got = ::pread(fd_, buffer, sizeof buffer, at);
      if (got <= 0) break;
      all.insert(all.end(), buffer, buffer + got);
      at += got;
    }
    return all;
  }

 private:
  int fd_;
};

std::string DirectoryOf(std::string const& path) {
  auto const slash = path.rfind('/');
  return slash == std::string::npos ? std::string(".") : path.substr(0, slash);
}

// Takes `changes` back, last first, from the bytes of a file.
void Revert(Bytes& content, std::vector<Change> const& changes) {
  for (auto it = changes.rbegin(); it != changes.rend(); ++it) {
    auto const& c = *it;
    if (c.truncate) {
      content.resize(static_cast<std::size_t>(c.sizeBefore));
      std::copy(c.old.begin(), c.old.end(), content.begin() + c.offset);
    } else {
      std::copy(c.old.begin(), c.old.end(), content.begin() + c.offset);
      content.resize(static_cast<std::size_t>(c.sizeBefore));
    }
  }
}

}  // namespace

struct FaultVfs::Impl {
  // What SQLite sees of one open file; the underlying VFS's file follows it in memory.
  struct File {
    sqlite3_file base;  // first: SQLite's view
    Impl* owner;
    char const* name;  // SQLite keeps it valid until xClose; null for temporary files
    bool dirSyncPending;
    sqlite3_file* Real() {
      return reinterpret_cast<sqlite3_file*>(reinterpret_cast<char*>(this) + sizeof(File));
    }
  };

  explicit Impl(bool syncForReal) : realSync(syncForReal) {}

  sqlite3_vfs vfs{};
  sqlite3_io_methods methods{};
  sqlite3_vfs* base = nullptr;
  bool const realSync;

  mutable std::mutex lock;
  Counts calls{};                                       // guarded by lock
  std::uint64_t changes = 0;                            // guarded by lock
  std::optional<Fault> fault;                           // guarded by lock
  std::uint64_t seen = 0;                               // guarded by lock
  std::uint64_t injected = 0;                           // guarded by lock
  std::optional<std::uint64_t> cutAt;                   // guarded by lock
  bool powerOff = false;                                // guarded by lock
  std::map<std::string, std::vector<Change>> unsynced;  // guarded by lock; by file name
  // Files unlinked with no directory sync since: the content a restart brings back.
  std::map<std::string, Bytes> unlinked;  // guarded by lock

  static Impl& Of(sqlite3_vfs* v) { return *static_cast<Impl*>(v->pAppData); }
  static File& Of(sqlite3_file* f) { return *reinterpret_cast<File*>(f); }

  // Counts a call and decides its fate: SQLITE_OK to go ahead, or the code to fail with.
  int Enter(Call call, int ownError, bool isChange) {
    std::lock_guard<std::mutex> guard(lock);
    ++calls[static_cast<std::size_t>(call)];
    if (isChange) {
      if (powerOff) return ownError;
      ++changes;
      if (cutAt && changes > *cutAt) {
        powerOff = true;
        return ownError;
      }
    }
    if (fault && fault->call == call) {
      ++seen;
      if (seen == fault->nth || (fault->persistent && seen > fault->nth)) {
        ++injected;
        return fault->code != 0 ? fault->code : ownError;
      }
    }
    return SQLITE_OK;
  }

  void Track(File& f, Change change) {
    if (f.name == nullptr) return;
    std::lock_guard<std::mutex> guard(lock);
    unsynced[f.name].push_back(std::move(change));
  }

  // A directory sync makes every earlier unlink in that directory durable.
  void DirectorySynced(std::string const& directory) {
    for (auto it = unlinked.begin(); it != unlinked.end();)
      it = DirectoryOf(it->first) == directory ? unlinked.erase(it) : std::next(it);
  }

  static std::int64_t SizeOf(sqlite3_file* real) {
    sqlite3_int64 size = 0;
    real->pMethods->xFileSize(real, &size);
    return size;
  }

  // The bytes of the region [offset, offset + amount) that exist before a change.
  static Bytes OldBytes(sqlite3_file* real, std::int64_t offset, std::int64_t amount,
                        std::int64_t size) {
    auto const end = std::min(offset + amount, size);
    if (end <= offset) return {};
    Bytes old(static_cast<std::size_t>(end - offset));
    real->pMethods->xRead(real, old.data(), static_cast<int>(old.size()), offset);
    return old;
  }

  // --- file methods -------------------------------------------------------------------

  static int Close(sqlite3_file* file) {
    auto* real = Of(file).Real();
    return real->pMethods->xClose(real);
  }

  static int Read(sqlite3_file* file, void* out, int amount, sqlite3_int64 offset) {
    auto& f = Of(file);
    if (int rc = f.owner->Enter(Call::kRead, SQLITE_IOERR_READ, false); rc != SQLITE_OK) return rc;
    return f.Real()->pMethods->xRead(f.Real(), out, amount, offset);
  }

  static int Write(sqlite3_file* file, void const* data, int amount, sqlite3_int64 offset) {
    auto& f = Of(file);
    if (int rc = f.owner->Enter(Call::kWrite, SQLITE_IOERR_WRITE, true); rc != SQLITE_OK) return rc;
    auto* real = f.Real();
    Change change;
    change.offset = offset;
    change.sizeBefore = SizeOf(real);
    change.old = OldBytes(real, offset, amount, change.sizeBefore);
    auto const* bytes = static_cast<std::uint8_t const*>(data);
    change.data.assign(bytes, bytes + amount);
    int const rc = real->pMethods->xWrite(real, data, amount, offset);
    if (rc == SQLITE_OK) f.owner->Track(f, std::move(change));
    return rc;
  }

  static int Truncate(sqlite3_file* file, sqlite3_int64 size) {
    auto& f = Of(file);
    if (int rc = f.owner->Enter(Call::kTruncate, SQLITE_IOERR_TRUNCATE, true); rc != SQLITE_OK)
      return rc;
    auto* real = f.Real();
    Change change;
    change.truncate = true;
    change.offset = size;
    change.sizeBefore = SizeOf(real);
    change.old = OldBytes(real, size, change.sizeBefore - size, change.sizeBefore);
    int const rc = real->pMethods->xTruncate(real, size);
    if (rc == SQLITE_OK) f.owner->Track(f, std::move(change));
    return rc;
  }

  static int Sync(sqlite3_file* file, int flags) {
    auto& f = Of(file);
    auto& self = *f.owner;
    if (int rc = self.Enter(Call::kSync, SQLITE_IOERR_FSYNC, true); rc != SQLITE_OK) return rc;
    if (self.realSync) {
      if (int rc = f.Real()->pMethods->xSync(f.Real(), flags); rc != SQLITE_OK) return rc;
    }
    std::lock_guard<std::mutex> guard(self.lock);
    if (f.name != nullptr) self.unsynced.erase(f.name);
    // The default VFS syncs the directory with the first sync of a journal it created.
    if (f.dirSyncPending && f.name != nullptr) self.DirectorySynced(DirectoryOf(f.name));
    f.dirSyncPending = false;
    return SQLITE_OK;
  }

  static int FileSize(sqlite3_file* file, sqlite3_int64* size) {
    auto* real = Of(file).Real();
    return real->pMethods->xFileSize(real, size);
  }

  static int Lock(sqlite3_file* file, int level) {
    auto& f = Of(file);
    if (int rc = f.owner->Enter(Call::kLock, SQLITE_IOERR_LOCK, false); rc != SQLITE_OK) return rc;
    return f.Real()->pMethods->xLock(f.Real(), level);
  }

  static int Unlock(sqlite3_file* file, int level) {
    auto* real = Of(file).Real();
    return real->pMethods->xUnlock(real, level);
  }

  static int CheckReservedLock(sqlite3_file* file, int* out) {
    auto* real = Of(file).Real();
    return real->pMethods->xCheckReservedLock(real, out);
  }

  static int FileControl(sqlite3_file* file, int op, void* arg) {
    auto* real = Of(file).Real();
    return real->pMethods->xFileControl(real, op, arg);
  }

  static int SectorSize(sqlite3_file* file) {
    auto* real = Of(file).Real();
    return real->pMethods->xSectorSize(real);
  }

  static int DeviceCharacteristics(sqlite3_file* file) {
    auto* real = Of(file).Real();
    return real->pMethods->xDeviceCharacteristics(real);
  }

  static int ShmMap(sqlite3_file* file, int page, int size, int extend, void volatile** out) {
    auto* real = Of(file).Real();
    return real->pMethods->xShmMap(real, page, size, extend, out);
  }

  static int ShmLock(sqlite3_file* file, int offset, int n, int flags) {
    auto& f = Of(file);
    // Unlocking never fails; only taking a lock can be refused.
    if ((flags & SQLITE_SHM_LOCK) != 0) {
      if (int rc = f.owner->Enter(Call::kLock, SQLITE_IOERR_SHMLOCK, false); rc != SQLITE_OK)
        return rc;
    }
    return f.Real()->pMethods->xShmLock(f.Real(), offset, n, flags);
  }

  static void ShmBarrier(sqlite3_file* file) {
    auto* real = Of(file).Real();
    real->pMethods->xShmBarrier(real);
  }

  static int ShmUnmap(sqlite3_file* file, int deleteFlag) {
    auto* real = Of(file).Real();
    return real->pMethods->xShmUnmap(real, deleteFlag);
  }

  static int Fetch(sqlite3_file* file, sqlite3_int64 offset, int amount, void** out) {
    auto* real = Of(file).Real();
    return real->pMethods->xFetch(real, offset, amount, out);
  }

  static int Unfetch(sqlite3_file* file, sqlite3_int64 offset, void* p) {
    auto* real = Of(file).Real();
    return real->pMethods->xUnfetch(real, offset, p);
  }

  // --- VFS methods --------------------------------------------------------------------

  static int Open(sqlite3_vfs* v, sqlite3_filename name, sqlite3_file* file, int flags,
                  int* outFlags) {
    auto& self = Of(v);
    auto& f = Of(file);
    f.base.pMethods = nullptr;
    f.owner = &self;
    f.name = name;
    // As the default VFS does: a journal it creates gets its directory synced with its
    // first sync.
    int const journals = SQLITE_OPEN_MAIN_JOURNAL | SQLITE_OPEN_WAL | SQLITE_OPEN_SUPER_JOURNAL;
    f.dirSyncPending = (flags & SQLITE_OPEN_CREATE) != 0 && (flags & journals) != 0;
    if (int rc = self.Enter(Call::kOpen, SQLITE_CANTOPEN, false); rc != SQLITE_OK) return rc;
    int const rc = self.base->xOpen(self.base, name, f.Real(), flags, outFlags);
    if (f.Real()->pMethods != nullptr) f.base.pMethods = &self.methods;
    return rc;
  }

  static int Delete(sqlite3_vfs* v, char const* name, int syncDir) {
    auto& self = Of(v);
    if (int rc = self.Enter(Call::kDelete, SQLITE_IOERR_DELETE, true); rc != SQLITE_OK) return rc;
    std::string const path = name;
    std::lock_guard<std::mutex> guard(self.lock);
    if (syncDir != 0) {
      self.DirectorySynced(DirectoryOf(path));
    } else if (self.unlinked.count(path) == 0) {
      // Without a directory sync the unlink may not survive a power cut: remember the
      // content that was synced, which a restart would find again.
      Fd fd(path, O_RDONLY);
      if (fd.Ok()) {
        Bytes content = fd.ReadAll();
        auto const it = self.unsynced.find(path);
        if (it != self.unsynced.end()) Revert(content, it->second);
        self.unlinked[path] = std::move(content);
      }
    }
    self.unsynced.erase(path);
    return self.base->xDelete(self.base, name, syncDir);
  }

  static int Access(sqlite3_vfs* v, char const* name, int flags, int* out) {
    return Of(v).base->xAccess(Of(v).base, name, flags, out);
  }
  static int FullPathname(sqlite3_vfs* v, char const* name, int size, char* out) {
    return Of(v).base->xFullPathname(Of(v).base, name, size, out);
  }
  static void* DlOpen(sqlite3_vfs* v, char const* name) {
    return Of(v).base->xDlOpen(Of(v).base, name);
  }
  static void DlError(sqlite3_vfs* v, int size, char* out) {
    Of(v).base->xDlError(Of(v).base, size, out);
  }
  static void (*DlSym(sqlite3_vfs* v, void* handle, char const* symbol))(void) {
    return Of(v).base->xDlSym(Of(v).base, handle, symbol);
  }
  static void DlClose(sqlite3_vfs* v, void* handle) { Of(v).base->xDlClose(Of(v).base, handle); }
  static int Randomness(sqlite3_vfs* v, int size, char* out) {
    return Of(v).base->xRandomness(Of(v).base, size, out);
  }
  static int Sleep(sqlite3_vfs* v, int micros) { return Of(v).base->xSleep(Of(v).base, micros); }
  static int CurrentTime(sqlite3_vfs* v, double* out) {
    return Of(v).base->xCurrentTime(Of(v).base, out);
  }
  static int GetLastError(sqlite3_vfs* v, int size, char* out) {
    return Of(v).base->xGetLastError(Of(v).base, size, out);
  }
  static int CurrentTimeInt64(sqlite3_vfs* v, sqlite3_int64* out) {
    return Of(v).base->xCurrentTimeInt64(Of(v).base, out);
  }
};

FaultVfs::FaultVfs(bool realSync) : impl_(std::make_unique<Impl>(realSync)) {
  if (alive.exchange(true)) throw std::logic_error("fault_vfs: only one FaultVfs at a time");
  auto& self = *impl_;
  self.base = sqlite3_vfs_find(nullptr);
  if (self.base == nullptr || self.base->iVersion < 2) {
    alive = false;
    throw std::runtime_error("fault_vfs: no usable default VFS");
  }

  auto& m = self.methods;
  m.iVersion = 3;
  m.xClose = &Impl::Close;
  m.xRead = &Impl::Read;
  m.xWrite = &Impl::Write;
  m.xTruncate = &Impl::Truncate;
  m.xSync = &Impl::Sync;
  m.xFileSize = &Impl::FileSize;
  m.xLock = &Impl::Lock;
  m.xUnlock = &Impl::Unlock;
  m.xCheckReservedLock = &Impl::CheckReservedLock;
  m.xFileControl = &Impl::FileControl;
  m.xSectorSize = &Impl::SectorSize;
  m.xDeviceCharacteristics = &Impl::DeviceCharacteristics;
  m.xShmMap = &Impl::ShmMap;
  m.xShmLock = &Impl::ShmLock;
  m.xShmBarrier = &Impl::ShmBarrier;
  m.xShmUnmap = &Impl::ShmUnmap;
  m.xFetch = &Impl::Fetch;
  m.xUnfetch = &Impl::Unfetch;

  auto& v = self.vfs;
  v.iVersion = 2;
  v.szOsFile = static_cast<int>(sizeof(Impl::File)) + self.base->szOsFile;
  v.mxPathname = self.base->mxPathname;
  v.zName = Name();
  v.pAppData = &self;
  v.xOpen = &Impl::Open;
  v.xDelete = &Impl::Delete;
  v.xAccess = &Impl::Access;
  v.xFullPathname = &Impl::FullPathname;
  v.xDlOpen = &Impl::DlOpen;
  v.xDlError = &Impl::DlError;
  v.xDlSym = &Impl::DlSym;
  v.xDlClose = &Impl::DlClose;
  v.xRandomness = &Impl::Randomness;
  v.xSleep = &Impl::Sleep;
  v.xCurrentTime = &Impl::CurrentTime;
  v.xGetLastError = &Impl::GetLastError;
  v.xCurrentTimeInt64 = &Impl::CurrentTimeInt64;
  if (sqlite3_vfs_register(&v, 1) != SQLITE_OK) {
    alive = false;
    throw std::runtime_error("fault_vfs: register failed");
  }
}

FaultVfs::~FaultVfs() {
  // The previous default becomes the default again.
  sqlite3_vfs_unregister(&impl_->vfs);
  alive = false;
}

char const* FaultVfs::Name() { return "sm-fault"; }

char const* FaultVfs::CallName(Call call) {
  switch (call) {
    case Call::kRead:
      return "read";
    case Call::kWrite:
      return "write";
    case Call::kSync:
      return "sync";
    case Call::kLock:
      return "lock";
    case Call::kTruncate:
      return "truncate";
    case Call::kDelete:
      return "delete";
    case Call::kOpen:
      return "open";
  }
  return "?";
}

FaultVfs::Counts FaultVfs::Calls() const {
  std::lock_guard<std::mutex> guard(impl_->lock);
  return impl_->calls;
}

std::uint64_t FaultVfs::Changes() const {
  std::lock_guard<std::mutex> guard(impl_->lock);
  return impl_->changes;
}

void FaultVfs::ResetCalls() {
  std::lock_guard<std::mutex> guard(impl_->lock);
  impl_->calls = {};
  impl_->changes = 0;
}

void FaultVfs::Arm(Fault const& fault) {
  std::lock_guard<std::mutex> guard(impl_->lock);
  impl_->fault = fault;
  impl_->seen = 0;
  impl_->injected = 0;
}

void FaultVfs::Disarm() {
  std::lock_guard<std::mutex> guard(impl_->lock);
  impl_->fault.reset();
}

std::uint64_t FaultVfs::Injected() const {
  std::lock_guard<std::mutex> guard(impl_->lock);
  return impl_->injected;
}

void FaultVfs::CutAfter(std::uint64_t changes) {
  std::lock_guard<std::mutex> guard(impl_->lock);
  impl_->cutAt = impl_->changes + changes;
}

bool FaultVfs::PowerIsOff() const {
  std::lock_guard<std::mutex> guard(impl_->lock);
  return impl_->powerOff;
}

void FaultVfs::SyncAll() {
  std::lock_guard<std::mutex> guard(impl_->lock);
  impl_->unsynced.clear();
  impl_->unlinked.clear();
}

void FaultVfs::ApplyPowerLoss(Loss loss, std::mt19937_64& random) {
  std::lock_guard<std::mutex> guard(impl_->lock);
  auto coin = [&random] { return (random() & 1u) != 0; };
  for (auto const& [name, changes] : impl_->unsynced) {
    Fd fd(name, O_RDWR);
    if (!fd.Ok() || changes.empty()) continue;
    Bytes content = fd.ReadAll();
    Revert(content, changes);

    // Which changes reached the disk before the power went, and how much of the last.
    std::vector<Change const*> kept;
    std::size_t tornSectors = 0;
    Change const* torn = nullptr;
    switch (loss) {
      case Loss::kDropUnsynced:
        break;
      case Loss::kKeepAll:
        for (auto const& c : changes) kept.push_back(&c);
        break;
      case Loss::kKeepSome:
        for (auto const& c : changes)
          if (coin()) kept.push_back(&c);
        break;
      case Loss::kTornPrefix: {
        auto const count = static_cast<std::size_t>(random() % (changes.size() + 1));
        for (std::size_t i = 0; i < count; ++i) kept.push_back(&changes[i]);
        if (count < changes.size() && !changes[count].truncate) {
          torn = &changes[count];
          auto const sectors = (torn->data.size() + kSector - 1) / kSector;
          tornSectors = sectors > 1 ? static_cast<std::size_t>(random() % sectors) : 0;
        }
        break;
      }
    }
    auto apply = [&content](Change const& c, std::size_t bytes) {
      if (c.truncate) {
        content.resize(static_cast<std::size_t>(c.offset));
        return;
      }
      auto const end = static_cast<std::size_t>(c.offset) + bytes;
      if (content.size() < end) content.resize(end);
      std::copy(c.data.begin(), c.data.begin() + static_cast<std::ptrdiff_t>(bytes),
                content.begin() + c.offset);
    };
    for (auto const* c : kept) apply(*c, c->data.size());
    if (torn != nullptr)
      apply(*torn, std::min(torn->data.size(), tornSectors * static_cast<std::size_t>(kSector)));

    fd.Truncate(0);
    fd.Write(content, 0, content.size());
  }
  // Unlinks that no directory sync made durable are undone.
  for (auto const& [name, content] : impl_->unlinked) {
    Fd fd(name, O_RDWR | O_CREAT | O_TRUNC);
    if (fd.Ok()) fd.Write(content, 0, content.size());
  }
  impl_->unsynced.clear();
  impl_->unlinked.clear();
  impl_->cutAt.reset();
  impl_->powerOff = false;
}

}  // namespace test_support
