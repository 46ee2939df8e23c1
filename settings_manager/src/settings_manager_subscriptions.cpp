// The registry of observers by path.

#include "log.h"
#include "settings_manager.h"

namespace settings_manager {

using log::kManagerSource;
using log::LogLevel;

int SettingsManager::Subscribe(uvc::Path const& path,
                               std::shared_ptr<ISettingsUpdateObserver> observer,
                               SubscriptionId& subscription) {
  if (!observer) return fdn::rc::kClassNotFound;
  SubscriptionId issued{};
  try {
    // The root can always be listened to; another path need not exist yet.
    if (!path.empty()) Check(path);
    uvc::Path key = path;
    MutexLock lock(subscribersLock);
    auto const entry = observersByPath.try_emplace(std::move(key)).first;
    auto const [position, added] = entry->second.insert(std::move(observer));
    // A path entry made just now cannot be empty here: its set took the observer.
    if (!added) return fdn::rc::kFound;
    issued = SubscriptionId{++lastSubscriptionId};
    subscriptions.emplace(issued, SubscriptionEntry(entry, position));
    eventsEnabled = true;
  } catch (std::exception const&) {
    auto const result = uvc::ProcessException();
    SM_LOG_NOEXCEPT(LogLevel::Error, kManagerSource, "Subscribe", "{} Subscribe({}): {}", id, path,
                    result);
    return result.first;
  }
  subscription = issued;
  SM_LOG(LogLevel::Debug, kManagerSource, "Subscribe", "{} Subscribe({}): {}", id, path, issued);
  return fdn::rc::kOk;
}

int SettingsManager::Unsubscribe(SubscriptionId subscription) {
  if (subscription == SubscriptionId{0}) return fdn::rc::kInvalidArgument;
  try {
    // Declared so that they are destroyed outside the mutex in this order: the index
    // entry, the emptied path entry, then the observer (whose destructor may call us).
    ObserverSet::node_type observerNode;
    ObserversByPath::node_type pathNode;
    decltype(subscriptions)::node_type indexNode;
    MutexLock lock(subscribersLock);
    auto const found = subscriptions.find(subscription);
    if (found == subscriptions.end()) return fdn::rc::kNotFound;
    indexNode = subscriptions.extract(found);
    eventsEnabled = !subscriptions.empty();
    auto const [entry, position] = indexNode.mapped();
    observerNode = entry->second.extract(position);
    if (entry->second.empty()) pathNode = observersByPath.extract(entry);

    auto const active = activeObservers.find(observerNode.value());
    if (active != activeObservers.end()) {
      // Not called yet in this delivery: it will not be. Being called: wait for the end
      // of the callback in progress, that of the first active observer. Also a wait for
      // a later one lasts until then: this keeps the rule simple.
      if (active != activeObservers.begin()) activeObservers.erase(active);
      auto const seen = finishedCallbacks;
      ++waitingUnsubscribers;
      while (finishedCallbacks == seen) lock.Wait(callbackDone);
      // The destructor waits for the last waiter to leave.
      if (--waitingUnsubscribers == 0 && stopEvents) callbackDone.notify_all();
    }
  } catch (std::exception const&) {
    auto const result = uvc::ProcessException();
    SM_LOG_NOEXCEPT(LogLevel::Error, kManagerSource, "Unsubscribe", "{} Unsubscribe(): {}: '{}'",
                    id, subscription, result);
    return result.first;
  }
  SM_LOG(LogLevel::Debug, kManagerSource, "Unsubscribe", "{} Unsubscribe(): {}", id, subscription);
  return fdn::rc::kOk;
}

}  // namespace settings_manager
