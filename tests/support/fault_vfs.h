#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <random>

namespace test_support {

// An SQLite VFS of the tests' own, layered over the default one. While a FaultVfs lives it
// is the default VFS, so every connection opened by path goes through it, the library's
// own included. It
// - makes the Nth read, write, sync, truncate or delete fail, once or from then on, with
//   the kind's I/O error or a code;
// - plays a power cut: from a chosen change of a file on, every change fails as if the
//   machine had stopped; ApplyPowerLoss then rewrites the files to what a restart finds:
//   the content synced last, plus none, some, or a torn part of the writes made since.
//   An unlink is undone too, unless a directory sync followed it.
// Syncs are bookkeeping only: durability is modelled here, so the tests need not wait for
// the disk. Only one may exist at a time; every connection must be closed before it ends.
class FaultVfs {
 public:
  enum Call : std::uint8_t { kRead, kWrite, kSync, kTruncate, kDelete };

  struct Fault {
    Call call = kWrite;
    std::uint64_t nth = 1;    // the Nth call of the kind after Arm, from 1
    bool persistent = false;  // every later call of the kind fails too
    int code = 0;             // the SQLite code returned; 0: the kind's own I/O error
  };

  enum class Loss : std::uint8_t {
    kDropUnsynced,  // nothing written since a file's last sync reaches the disk
    kKeepSome,      // each unsynced change reaches it or not (a disk reorders writes)
    kTornPrefix,    // the unsynced changes reach it in order up to one, which is torn
                    // at a 512-byte sector boundary
    kKeepAll,       // everything reached the disk: a crash of the program alone
  };

  FaultVfs();
  ~FaultVfs();
  FaultVfs(FaultVfs const&) = delete;
  FaultVfs& operator=(FaultVfs const&) = delete;

  // Writes, truncates, syncs and deletes so far: the moments a power cut can fall on.
  std::uint64_t Changes() const;

  // Fails calls as `fault` says, counting from now; replaces an earlier fault (nullopt:
  // none from now on).
  void Arm(std::optional<Fault> const& fault);
  // Calls failed by the armed fault.
  std::uint64_t Injected() const;

  // The next `changes` changes of files succeed; the one after that, and every later one,
  // fails: the power is off.
  void CutAfter(std::uint64_t changes);
  // Rewrites every file seen into what a restart after the cut would find, forgets what
  // was tracked and turns the power back on: whether it was off. Every connection must
  // be closed.
  bool ApplyPowerLoss(Loss loss, std::mt19937_64& random);
  // Syncs everything tracked so far, as a clean shutdown would.
  void SyncAll();

  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace test_support
