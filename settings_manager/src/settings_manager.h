#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <shared_mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "raw_setting.h"
#include "settings_db.h"
#include "settings_manager/interfaces.h"
#include "tern/rtl/semaphore.h"

namespace settings_manager {

// The one object behind every client interface: the settings tree, the database that
// mirrors it, the pending change events and the observers.
//
// Every change validates and builds its records first; then, holding treeLock
// exclusively, it writes the database, changes the tree and queues its event; after the
// lock it lets the EventThread guard start delivery, and logs. Locks are never nested,
// and none is held while an observer is called.
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
    ~EventThread();
    EventThread(EventThread const&) = delete;
    EventThread& operator=(EventThread const&) = delete;
    void Schedule() noexcept { scheduled_ = true; }

   private:
    SettingsManager& manager_;
    bool scheduled_ = false;
  };

  // Loads the whole tree from the database of `config` (or starts with an empty root map
  // without one). Throws on any failure.
  explicit SettingsManager(SettingsManagerConfig const& config);
  // Stops delivery (an Update in progress finishes, pending events are dropped) and
  // releases every waiting Unsubscribe. Must not run on the event thread.
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

  // Queues `kind` for `path` while someone listens; needs treeLock held exclusively.
  void PushEvent_(EventThread& guard, uvc::Path&& path, unsigned char kind) noexcept;
  // The event thread's body and its steps.
  void NotifyClients();
  bool TakeEvents(EventMap& batch);
  void NotifyEvent(EventMap& batch);
  // Releases every Unsubscribe waiting for the callback in progress to end.
  void PostCallbacks();

  // Declaration order is construction order; destruction closes the database only
  // after the event thread has ended and the tree is gone.
  std::string const id;
  std::unique_ptr<settings_db::SettingsDB> db;  // guarded by treeLock
  std::atomic<bool> stopEvents{false};
  std::thread eventThread;  // guarded by threadLock
  mutable std::shared_mutex treeLock;
  Setting tree;  // guarded by treeLock; always a map
  std::mutex threadLock;
  std::atomic<bool> eventsIdle{true};
  EventMap events;  // guarded by treeLock (exclusive)
  std::atomic<bool> eventsEnabled{false};
  std::mutex subscribersLock;
  std::map<SubscriptionId, SubscriptionEntry> subscriptions;  // guarded by subscribersLock
  ObserversByPath observersByPath;                            // guarded by subscribersLock
  std::set<ISettingsUpdateObserver*> activeObservers;         // guarded by subscribersLock
  std::atomic<std::uint64_t> waitingUnsubscribers{0};
  std::uint64_t lastSubscriptionId = 0;  // guarded by subscribersLock
  tern::rtl::Semaphore callbackDone;
};

}  // namespace settings_manager
