#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "locks.h"
#include "raw_setting.h"
#include "settings_db.h"
#include "settings_manager/interfaces.h"
#include "settings_manager/tree_access.h"
#include "tern/rtl/file_watcher.h"
#include "thread_annotations.h"
#include "uvc/error.h"

namespace settings_manager {

// The one object behind every client interface: the settings tree, the database that
// mirrors it, the pending change events and the observers.
//
// Every change validates and builds its records first; then, holding treeLock
// exclusively, it writes the database, changes the tree and queues its event; after the
// lock it lets the EventThread guard start delivery, and logs. Locks are never nested,
// and none is held while an observer is called. The clang build checks the locking
// (-Wthread-safety): members name the lock that guards them, functions the locks they
// need.
//
// The manager is always owned by a std::shared_ptr (the factory makes it so): the event
// thread tells by its weak self-reference whether the last owner has let go.
//
// The tree is a cache of the file, which other managers (in this process or others) may
// change too. A change is decided inside its own write transaction, after taking in what
// the others committed since; a watcher of the file marks the tree stale, so that the
// next read (or at once, while someone is subscribed) takes their changes in, and queues
// the events of what they changed.
class SettingsManager final : public ISettingsManager,
                              public ISettingsCreator,
                              public ISettingsGetter,
                              public ISettingsValueSetter,
                              public ISettingsSetter,
                              public ISettingsDeleter,
                              public ISettingsUpdateSubscriber,
                              public std::enable_shared_from_this<SettingsManager> {
 public:
  // Starts event delivery, after treeLock is released, when a change asked for it.
  class EventThread {
   public:
    explicit EventThread(SettingsManager& manager) noexcept : manager_(manager) {}
    ~EventThread() {
      if (scheduled_) manager_.StartEventThread();
    }
    EventThread(EventThread const&) = delete;
    EventThread& operator=(EventThread const&) = delete;
    void Schedule() noexcept { scheduled_ = true; }

   private:
    SettingsManager& manager_;
    bool scheduled_ = false;
  };

  // The file's side of one change, made while treeLock is held exclusively: begins the
  // change's write transaction and brings the tree up to date with what other managers
  // committed, so that the change is decided against the file as it is. Rolled back at
  // scope end unless committed (Commit_). Without a database it does nothing.
  class StoreChange {
   public:
    // `what` names the store operation in messages ("Set", "Upd", "Del").
    StoreChange(SettingsManager& manager, EventThread& guard, char const* what)
        REQUIRES(manager.treeLock);
    StoreChange(StoreChange const&) = delete;
    StoreChange& operator=(StoreChange const&) = delete;
    // Records the change of the subtree at `key` as `generation` and commits; false,
    // doing nothing, without a database.
    bool Commit(std::string const& key, std::uint64_t generation);

   private:
    std::optional<settings_db::SettingsDB::Transaction> transaction_;
  };

  // Loads the whole tree from the database of `config` (or starts with an empty root map
  // without one). Throws on any failure.
  explicit SettingsManager(SettingsManagerConfig const& config);
  // Stops delivery (an Update in progress on the event thread finishes first, pending
  // events are dropped) and releases every waiting Unsubscribe. Run on the event thread
  // (an observer let go of the last reference inside Update) it leaves that thread to
  // end by itself: the thread returns from Update without touching the manager again.
  ~SettingsManager() override;

  int GetSettingsCreator(std::shared_ptr<ISettingsCreator>& out) override;
  int GetSettingsGetter(std::shared_ptr<ISettingsGetter>& out) override;
  int GetSettingsValueSetter(std::shared_ptr<ISettingsValueSetter>& out) override;
  int GetSettingsSetter(std::shared_ptr<ISettingsSetter>& out) override;
  int GetSettingsDeleter(std::shared_ptr<ISettingsDeleter>& out) override;
  int GetSettingsUpdateSubscriber(std::shared_ptr<ISettingsUpdateSubscriber>& out) override;

  int CreateSetting(uvc::Path const& path, Setting const& value) override;
  int GetAttribute(uvc::Path const& path, Attributes& out) const override;
  int GetSetting(uvc::Path const& path, Setting& out) const override;
  int SetValue(uvc::Path const& path, uvc::TValue<Setting> const& value) override;
  int SetAttribute(uvc::Path const& path, Attributes const& attributes) override;
  int SetSetting(uvc::Path const& path, Setting const& setting) override;
  int DeleteSetting(uvc::Path const& path) override;
  int Subscribe(uvc::Path const& path, std::shared_ptr<ISettingsUpdateObserver> observer,
                SubscriptionId& subscription) override;
  int Unsubscribe(SubscriptionId subscription) override;

  // Whole-tree access of settings_manager/tree_access.h, which forwards to these
  // (settings_manager_tree_access.cpp). EditTree is the one whole-tree change.
  int ListChildren(uvc::Path const& path, std::vector<ChildInfo>& out) const;
  int GetTree(Setting& out) const;
  int EditTree(TreeEdit const& edit);

  // Takes in at once what other managers committed to the file, queuing the events of
  // what changed; failures are logged. Reads do it themselves when the tree is stale.
  void Refresh() noexcept;

  // The log prefix "[SM] " + sign ('+' with a database) + four hex digits + blank.
  static std::string MakeId(bool withDatabase);
  // Throws 0x8000005E for a path deeper than kMaxDepth, and 0x80000046 "Invalid path"
  // unless the path is non-empty, starts with a key and every id keeps the id rules.
  static void Check(uvc::Path const& path);
  // The database key of `path`; empty without a database.
  std::string MakeStringPath(uvc::Path const& path) const;
  // The records of `setting` placed at `path`; none without a database.
  std::vector<impl::RawItem> MakeRawSetting(uvc::Path const& path, Setting const& setting) const;
  std::vector<impl::RawItem> MakeRawSetting(uvc::aux::RefRange const& path,
                                            Setting const& setting) const;

 private:
  using EventMap = std::map<uvc::Path, unsigned char>;
  using ObserverSet = std::set<std::shared_ptr<ISettingsUpdateObserver>>;
  using ObserversByPath = std::map<uvc::Path, ObserverSet>;
  using SubscriptionEntry = std::pair<ObserversByPath::iterator, ObserverSet::iterator>;

  template <typename Interface>
  int GetInterface(std::shared_ptr<Interface>& out);

  // Converts the exception in flight, logs "{id} {function}({path}): {result}" at the
  // failure level and returns the code.
  int Failed(char const* function, int line, uvc::Path const& path) const noexcept;

  // The frame of a client operation: returns what `body` returns, or, when it throws, the
  // code of the failure, logged by Failed as `function`'s at `line`. The operation logs
  // its success itself, after the frame.
  template <typename Body>
  int Run(char const* function, int line, uvc::Path const& path, Body const& body) const {
    try {
      return body();
    } catch (std::exception const&) {
      return Failed(function, line, path);
    }
  }

  // The frame of a change: `attempt(change, guard)` runs holding treeLock exclusively,
  // inside the change's store transaction (`what` names it in messages), and once more
  // when the full disk refused it (WithRoom). Its events start delivery after the lock
  // is released.
  template <typename Attempt>
  int Change(char const* what, Attempt const& attempt) EXCLUDES(treeLock) {
    EventThread notify(*this);
    return WithRoom([&] {
      WriterLock lock(treeLock);
      StoreChange change(*this, notify, what);
      return attempt(change, notify);
    });
  }

  // The one write path of SetValue and SetSetting: replaces the node at `path` by `value`
  // with `attributes`, comparing, keeping and reporting as `how` says.
  struct Replacement;
  int Replace(uvc::Path const& path, Setting::Value const& value, Attributes const& attributes,
              Replacement const& how);

  // Runs `attempt` (one try of a change: lock, transaction, checks, write) and, when the
  // full disk refused it, once more after the log's room is given back, so that a change
  // that frees space gets through on a full disk. An attempt that fails leaves the tree
  // as it found it, but for what it took in of other managers' changes.
  template <typename Attempt>
  int WithRoom(Attempt const& attempt) EXCLUDES(treeLock) {
    try {
      return attempt();
    } catch (uvc::Error const&) {
      if (!db) throw;
      WriterLock lock(treeLock);
      if (!db->ReclaimRoom()) throw;
    }
    return attempt();
  }

  // The tree of the rows of a whole file, checked as start-up checks it; `nodes` gets
  // the number of rows.
  static Setting LoadTree(settings_db::SettingsDB::Reader& rows, std::size_t& nodes);
  // Refreshes when the watcher found the file changed since the tree was last brought up
  // to date. Costs one load of an atomic when nothing changed.
  void RefreshIfStale() const noexcept EXCLUDES(treeLock) {
    if (stale.load(std::memory_order_relaxed))
      const_cast<SettingsManager*>(this)->Refresh_(true, std::chrono::microseconds(0));
  }
  // `patience`: how long to wait for another connection's write to end.
  void Refresh_(bool onlyIfStale, std::chrono::microseconds patience) noexcept EXCLUDES(treeLock);
  // The watcher's call: the file or its log was written (`replaced`: the file's name was
  // made, removed or renamed). True: call again soon, the tree is still stale.
  bool FileChanged(bool replaced) noexcept EXCLUDES(treeLock);
  // Takes in the changes recorded after seenGeneration, subtree by subtree, or by a whole
  // reload when the log cannot tell (or names the root), and queues their events.
  // Failures throw; what was taken in stays.
  void CatchUp_(EventThread& guard) REQUIRES(treeLock);
  void ReloadAll_(EventThread& guard) REQUIRES(treeLock);
  // False when the tree has no place for the subtree (it took in nothing).
  bool ReloadSubtree_(EventThread& guard, std::string const& key) REQUIRES(treeLock);
  // Queues the events of what differs from `before` to `after` at `path` (null: the
  // subtree is not there), while someone listens.
  void PushDiff_(EventThread& guard, uvc::Path const& path, Setting const* before,
                 Setting const* after) REQUIRES(treeLock);
  // Watches the file so that a change of another manager marks the tree stale.
  void StartWatcher(std::string const& dbPath);

  // Commits `change`, recording the change of the subtree at `key`.
  void Commit_(StoreChange& change, std::string const& key) REQUIRES(treeLock);
  // Queues `kind` for `path` while someone listens.
  void PushEvent_(EventThread& guard, uvc::Path&& path, unsigned char kind) noexcept
      REQUIRES(treeLock);
  // The EventThread guard's work when a push asked for a thread: joins the previous event
  // thread and starts one. A failure is logged; the events then stay pending.
  void StartEventThread() noexcept EXCLUDES(treeLock, threadLock);
  // The event thread's body and its steps. `self` is the manager's weak self-reference:
  // NotifyEvent returns false, having touched nothing after the call, when the last owner
  // let go during an Update.
  void NotifyClients() EXCLUDES(treeLock, subscribersLock);
  bool TakeEvents(EventMap& batch) EXCLUDES(treeLock);
  bool NotifyEvent(EventMap& batch, std::weak_ptr<SettingsManager> const& self)
      EXCLUDES(treeLock, subscribersLock);
  // Counts the end of the callback in progress and wakes the Unsubscribe calls waiting
  // for it.
  void CallbackEnded() REQUIRES(subscribersLock);
  // Ends a delivery cut short (stop, failure): nobody may wait for the observers left.
  void EndDelivery() EXCLUDES(subscribersLock);
  // For the destructor: releases every waiting Unsubscribe and waits until each has left
  // its wait (so that the lock and condition it waits on outlive it).
  void ReleaseWaiters() EXCLUDES(subscribersLock);

  // Declaration order is construction order; destruction closes the database only
  // after the event thread has ended and the tree is gone. Atomics are sequentially
  // consistent unless their protocol says otherwise.
  std::string const id;
  // Set by the constructor and fixed from then on, so the pointer is read without a lock
  // (null: no database). The store is used by one thread at a time: under treeLock held
  // exclusively (the analysis can only ask for the lock, not for exclusive use).
  std::unique_ptr<settings_db::SettingsDB> db PT_GUARDED_BY(treeLock);
  // Set once, by the destructor before it joins the event thread; the event thread reads
  // it before each observer call and each batch, and stops. (It also stops as soon as the manager's
  // last owner has let go, which it tells by the weak self-reference.)
  std::atomic<bool> stopEvents{false};
  // The event thread started last; replaced only under threadLock. The destructor joins
  // it without the lock: no change can start a thread any more.
  std::thread eventThread GUARDED_BY(threadLock);
  // Shared for reads of the tree, exclusive for every change of the tree, the store and
  // the pending events.
  mutable SharedMutex treeLock;
  Setting tree GUARDED_BY(treeLock);  // always a map
  Mutex threadLock;
  // True while no event thread works on events. Whoever exchanges it from true to false
  // (PushEvent_, under treeLock) must start a thread: its EventThread guard does, after the
  // lock. It turns true again under treeLock when the event thread finds nothing left or
  // nobody listening, or, without the lock, when the guard could not start the thread;
  // the events then stay pending until a push of a new path tries again.
  std::atomic<bool> eventsIdle{true};
  EventMap events GUARDED_BY(treeLock);
  // Whether anyone is subscribed: written under subscribersLock; read without it by the
  // changes (under treeLock) to decide whether to queue, by the event thread (under
  // treeLock) to drop what is queued once nobody listens, and by the watcher to decide
  // whether to take other managers' changes in at once.
  std::atomic<bool> eventsEnabled{false};
  Mutex subscribersLock;
  std::map<SubscriptionId, SubscriptionEntry> subscriptions GUARDED_BY(subscribersLock);
  ObserversByPath observersByPath GUARDED_BY(subscribersLock);
  // The observers still to be called for the event being delivered, in call order; the
  // first is the one being called, or about to be. Empty between deliveries. Its
  // references are never the last: observersByPath, or the Unsubscribe waiting for the
  // observer, holds another until the entry is gone.
  ObserverSet activeObservers GUARDED_BY(subscribersLock);
  // Unsubscribe calls in the wait on callbackDone.
  std::uint64_t waitingUnsubscribers GUARDED_BY(subscribersLock) = 0;
  std::uint64_t lastSubscriptionId GUARDED_BY(subscribersLock) = 0;
  // Waited on with subscribersLock: finishedCallbacks moved, or a waiter left.
  std::condition_variable callbackDone;
  // Advances when the callback of the first active observer ends (or the delivery is cut
  // short, or the manager stops). An Unsubscribe that found its observer active waits
  // until it has moved past the value it saw: the end of the very callback in progress.
  std::uint64_t finishedCallbacks GUARDED_BY(subscribersLock) = 0;

  // Coherence with the other managers of the file.
  std::uint64_t seenGeneration GUARDED_BY(treeLock) = 0;  // the generation the tree holds
  // Set by the watcher when the file may have changed; cleared by whoever then brings
  // the tree up to date while holding the file's write lock, so that a commit still in
  // flight when the watcher spoke is waited for. Stays set without a watcher: every read
  // then looks at the file. RefreshIfStale reads it with relaxed order: a read racing the
  // watcher's set may miss it, as it may miss a commit made a moment before it.
  std::atomic<bool> stale{false};
  // Set by the watcher when the file's name changed: from then on every change checks
  // that the path still names the file opened.
  std::atomic<bool> renamed{false};
  bool watching = false;  // set once by the constructor: the watcher runs
  // Last: stopped first, before anything its calls touch.
  std::unique_ptr<tern::rtl::FileWatcher> watcher;
};

}  // namespace settings_manager
