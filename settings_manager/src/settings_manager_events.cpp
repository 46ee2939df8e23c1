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

void SettingsManager::StartEventThread() noexcept {
  try {
    MutexLock lock(threadLock);
    // The previous thread has already found nothing left and is ending.
    if (eventThread.joinable()) eventThread.join();
    eventThread = std::thread(&SettingsManager::NotifyClients, this);
  } catch (std::exception const&) {
    // The events stay pending; the next new path tries again.
    eventsIdle = true;
    auto const result = uvc::ProcessException();
    SM_LOG_NOEXCEPT(LogLevel::Error, kManagerSource, "~EventThread",
                    "{} EventThread: could not start client notification: {}", id, result);
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
  // Tells, without touching the manager, whether its last owner has let go.
  std::weak_ptr<SettingsManager> const self = weak_from_this();
  EventMap batch;
  while (!self.expired() && TakeEvents(batch) && !batch.empty())
    if (!NotifyEvent(batch, self)) return;
}

bool SettingsManager::TakeEvents(EventMap& batch) {
  try {
    if (stopEvents) return false;
    EventMap taken;  // dropped after the lock when nobody listens any more
    {
      WriterLock lock(treeLock);
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

bool SettingsManager::NotifyEvent(EventMap& batch, std::weak_ptr<SettingsManager> const& self) {
  auto const taken = batch.extract(batch.begin());
  uvc::Path const& path = taken.key();
  unsigned char const kind = taken.mapped();
  try {
    // Held while its Update runs: if the manager is destroyed meanwhile, the observer
    // still outlives its own call.
    std::shared_ptr<ISettingsUpdateObserver> current;
    std::size_t clients = 0;
    {
      MutexLock lock(subscribersLock);
      ObserverSet selected;
      // Every listener of the path or an ancestor sorts at or before the path itself.
      for (auto it = observersByPath.upper_bound(path); it != observersByPath.begin();) {
        --it;
        if (!Covers(it->first, path)) continue;
        if (stopEvents) {
          selected.clear();  // shutting down: the event is abandoned
          break;
        }
        selected.insert(it->second.begin(), it->second.end());
      }
      if (!selected.empty()) {
        activeObservers.swap(selected);
        clients = activeObservers.size();
        current = *activeObservers.begin();
      }
    }
    if (current)
      SM_LOG(LogLevel::Debug, kManagerSource, "NotifyEvent", "{} Update({}) = {} {} client(s)", id,
             path, KindText(kind), clients);
    while (current && !stopEvents && !self.expired()) {
      current->Update(path, kind);
      // Let go before the end is told: a waiting Unsubscribe then holds the library's
      // last reference, and the client may destroy the observer as soon as it returns.
      current.reset();
      // The last owner let go during the call: the manager is gone (destroyed on this
      // very thread) or going (its destructor waits to join this thread).
      if (self.expired()) return false;
      MutexLock lock(subscribersLock);
      activeObservers.erase(activeObservers.begin());
      CallbackEnded();
      if (!activeObservers.empty()) current = *activeObservers.begin();
    }
  } catch (...) {
    // Thrown from an Update during which the last owner let go: leave the manager alone.
    if (self.expired()) return false;
    // Whatever an observer throws, standard or not, must not end the thread; the rest of
    // this event's observers are skipped.
    auto const result = uvc::ProcessException();
    SM_LOG_NOEXCEPT(LogLevel::Error, kManagerSource, "NotifyEvent",
                    "{} NotifyEvent: could not notify clients: {}", id, result);
  }
  EndDelivery();
  return true;
}

void SettingsManager::CallbackEnded() {
  ++finishedCallbacks;
  if (waitingUnsubscribers != 0) callbackDone.notify_all();
}

void SettingsManager::EndDelivery() {
  MutexLock lock(subscribersLock);
  if (activeObservers.empty()) return;
  activeObservers.clear();
  CallbackEnded();
}

void SettingsManager::ReleaseWaiters() {
  MutexLock lock(subscribersLock);
  CallbackEnded();
  while (waitingUnsubscribers != 0) lock.Wait(callbackDone);
}

}  // namespace settings_manager
