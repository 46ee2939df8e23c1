// Change events: queued under treeLock by the changes, delivered on the event thread.

#include <algorithm>

#include "log.h"
#include "settings_manager.h"

namespace settings_manager {

using log::kManagerSource;
using log::LogLevel;

namespace {

std::string KindText(unsigned char kind) {
  if (kind == 0) return "Nop";
  std::string text;
  if (kind & event::kCreated) text += "New:";
  if (kind & event::kValue) text += "Val:";
  if (kind & event::kAttributes) text += "Atr:";
  if (kind & event::kDeleted) text += "Del:";
  return text;
}

// Whether `listener` is `changed` or one of its ancestors (the root included).
bool Covers(uvc::Path const& listener, uvc::Path const& changed) {
  return listener.size() <= changed.size() &&
         std::equal(listener.begin(), listener.end(), changed.begin());
}

}  // namespace

SettingsManager::EventThread::~EventThread() {
  if (!scheduled_) return;
  try {
    std::lock_guard<std::mutex> lock(manager_.threadLock);
    // The previous thread has already found nothing left and is ending.
    if (manager_.eventThread.joinable()) manager_.eventThread.join();
    manager_.eventThread = std::thread(&SettingsManager::NotifyClients, &manager_);
  } catch (std::exception const&) {
    // The events stay pending; the next new path tries again.
    manager_.eventsIdle = true;
    auto const result = uvc::ProcessException();
    SM_LOG_NOEXCEPT(LogLevel::Error, kManagerSource, "~EventThread",
                    "{} EventThread: could not start client notification: {}", manager_.id, result);
  }
}

void SettingsManager::PushEvent_(EventThread& guard, uvc::Path&& path,
                                 unsigned char kind) noexcept {
  if (!eventsEnabled) return;
  // The last change of a path wins; only a new path can need a thread.
  bool const inserted = events.insert_or_assign(std::move(path), kind).second;
  if (inserted && eventsIdle.exchange(false)) guard.Schedule();
}

void SettingsManager::NotifyClients() {
  EventMap batch;
  while (TakeEvents(batch) && !batch.empty()) NotifyEvent(batch);
}

bool SettingsManager::TakeEvents(EventMap& batch) {
  try {
    if (stopEvents) return false;
    EventMap taken;  // dropped after the lock when nobody listens any more
    {
      std::unique_lock<std::shared_mutex> lock(treeLock);
      taken.swap(events);
      if (!eventsEnabled) {
        eventsIdle = true;
        return false;
      }
      // Idle only when nothing at all is left: this is what lets a push start exactly
      // one thread per burst.
      eventsIdle = batch.empty() && taken.empty();
    }
    // A newly taken kind replaces the older one of the same path. Only the new entries
    // move: the batch is refilled before every event, and it may be long.
    while (!taken.empty()) {
      auto entry = taken.extract(taken.begin());
      auto const placed = batch.insert(std::move(entry));
      if (!placed.inserted) placed.position->second = placed.node.mapped();
    }
    return true;
  } catch (...) {
    auto const result = uvc::ProcessException();
    SM_LOG_NOEXCEPT(LogLevel::Error, kManagerSource, "TakeEvents",
                    "{} TakeEvents: could not take new events: {}", id, result);
    return false;
  }
}

void SettingsManager::NotifyEvent(EventMap& batch) {
  auto const taken = batch.extract(batch.begin());
  uvc::Path const& path = taken.key();
  unsigned char const kind = taken.mapped();
  try {
    ISettingsUpdateObserver* current = nullptr;
    std::size_t clients = 0;
    {
      std::lock_guard<std::mutex> lock(subscribersLock);
      activeObservers.clear();
      std::set<ISettingsUpdateObserver*> selected;
      // Every listener of the path or an ancestor sorts at or before the path itself.
      for (auto it = observersByPath.upper_bound(path); it != observersByPath.begin();) {
        --it;
        if (!Covers(it->first, path)) continue;
        if (stopEvents) {
          selected.clear();  // shutting down: the event is abandoned
          break;
        }
        for (auto const& observer : it->second) selected.insert(observer.get());
      }
      if (!selected.empty()) {
        activeObservers.swap(selected);
        clients = activeObservers.size();
        current = *activeObservers.begin();
      }
    }
    if (current != nullptr)
      SM_LOG(LogLevel::Debug, kManagerSource, "NotifyEvent", "{} Update({}) = {} {} client(s)", id,
             path, KindText(kind), clients);
    while (!stopEvents && current != nullptr) {
      current->Update(path, kind);
      {
        // Re-key the observer just called as null, so that an Unsubscribe arriving now
        // no longer finds it and need not wait.
        std::lock_guard<std::mutex> lock(subscribersLock);
        activeObservers.erase(activeObservers.begin());
        activeObservers.insert(nullptr);
      }
      PostCallbacks();
      std::lock_guard<std::mutex> lock(subscribersLock);
      activeObservers.erase(activeObservers.begin());
      current = activeObservers.empty() ? nullptr : *activeObservers.begin();
    }
    // An Unsubscribe of a later observer that came in after the last post waits for a
    // callback; when none follows it must not wait for the next event.
    PostCallbacks();
  } catch (...) {
    // Whatever an observer throws, standard or not, must not end the thread.
    auto const result = uvc::ProcessException();
    SM_LOG_NOEXCEPT(LogLevel::Error, kManagerSource, "NotifyEvent",
                    "{} NotifyEvent: could not notify clients: {}", id, result);
    // The rest of this event's observers are skipped; nobody may wait for them.
    {
      std::lock_guard<std::mutex> lock(subscribersLock);
      activeObservers.clear();
    }
    PostCallbacks();
  }
}

void SettingsManager::PostCallbacks() {
  for (auto waiting = waitingUnsubscribers.load(); waiting != 0;
       waiting = waitingUnsubscribers.load()) {
    callbackDone.Post();
    --waitingUnsubscribers;
  }
}

}  // namespace settings_manager
