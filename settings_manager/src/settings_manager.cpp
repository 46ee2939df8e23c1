#include "settings_manager.h"

#include <cstdint>
#include <stdexcept>

#include "depth.h"
#include "failure.h"
#include "id_rules.h"
#include "log.h"
#include "log_environment.h"
#include "raw_conversion.h"
#include "settings_manager/paths.h"
#include "tern/rtl/random.h"

namespace settings_manager {

using log::kManagerSource;
using log::LogLevel;

namespace {

constexpr int kInvalidHeadPath = fdn::MakeCode(0x80000073u);
constexpr int kWrongHeadType = fdn::MakeCode(0x80000075u);

template <typename PathLike>
std::vector<impl::RawItem> SerializeOrThrow(PathLike const& path, Setting const& setting) {
  std::vector<impl::RawItem> items;
  auto result = Serialize(path, setting, items);
  if (result.first < 0) throw uvc::Error(result.first, result.second);
  return items;
}

}  // namespace

std::string SettingsManager::MakeId(bool withDatabase) {
  std::uint32_t random = 0;
  if (tern::rtl::TernRandomGenerate(&random, sizeof random) != 0)
    throw std::runtime_error("TernRandomGenerate() fail");
  // Modulo 65535, not 65536: FFFF is never produced.
  return fmt::format("[SM] {}{:04X} ", withDatabase ? '+' : '-', random % 65535u);
}

void SettingsManager::Check(uvc::Path const& path) {
  static uvc::aux::IdRules const rules(meta::GetIdSpecification());
  CheckPathDepth(path);
  bool valid = !path.empty() && path.front().index() == 1;
  for (std::size_t i = 0; valid && i < path.size(); ++i)
    valid = rules.Check(path[i]) == uvc::IdState::Ok;
  if (!valid) throw uvc::Error(fdn::rc::kInvalidArgument, "Invalid path");
}

std::string SettingsManager::MakeStringPath(uvc::Path const& path) const {
  if (!db) return std::string();
  auto [text, state] = uvc::ToString(path, meta::GetIdSpecification());
  if (state != uvc::IdState::Ok)
    throw uvc::Error(fdn::rc::kInvalidArgument, fmt::format("Path to str fail: state = {}", state));
  return std::move(text);
}

std::vector<impl::RawItem> SettingsManager::MakeRawSetting(uvc::Path const& path,
                                                           Setting const& setting) const {
  return db ? SerializeOrThrow(path, setting) : std::vector<impl::RawItem>();
}

std::vector<impl::RawItem> SettingsManager::MakeRawSetting(uvc::aux::RefRange const& path,
                                                           Setting const& setting) const {
  return db ? SerializeOrThrow(path, setting) : std::vector<impl::RawItem>();
}

Setting SettingsManager::LoadTree(settings_db::SettingsDB::Reader& rows, std::size_t& nodes) {
  Setting root;
  if (rows.Empty()) {
    root.emplace<uvc::index::kMap>();
    nodes = 1;
    return root;
  }
  uvc::Path head;
  auto const result = Deserialize(rows, head, root);
  if (result.first < 0) throw uvc::Error(result.first, result.second);
  if (!head.empty())
    throw uvc::Error(kInvalidHeadPath, fmt::format("Invalid db nodes head path: '{}'", head));
  // The rest of the library relies on the root being a map of named children.
  if (root.index() != uvc::index::kMap)
    throw uvc::Error(kWrongHeadType, fmt::format("Wrong db nodes head type: index = {}",
                                                 static_cast<std::uint64_t>(root.index())));
  nodes = rows.AtLeast();
  return root;
}

SettingsManager::SettingsManager(SettingsManagerConfig const& config)
    : id(MakeId(!config.dbPath.empty())) {
  SM_LOG(LogLevel::Info, kManagerSource, "SettingsManager", "{} Init: db path = '{}'...", id,
         config.dbPath);
  std::size_t nodes = 1;
  if (config.dbPath.empty()) {
    tree.emplace<uvc::index::kMap>();
  } else {
    SM_LOG(LogLevel::Info, kManagerSource, "SettingsManager", "{} Create db...", id);
    db = std::make_unique<settings_db::SettingsDB>(config.dbPath);
    // Before reading: a change committed from now on marks the tree stale.
    StartWatcher(config.dbPath);

    SM_LOG(LogLevel::Info, kManagerSource, "SettingsManager", "{} Read db...", id);
    // Before the rows: a change committed in between is only taken in once more.
    seenGeneration = db->Generation();
    // Each row is placed in the tree as it is read; none is held.
    settings_db::SettingsDB::Reader rows(*db, std::string());
    if (rows.Empty()) {
      // A fresh database starts as an empty root map; nothing is written back for it.
      SM_LOG(LogLevel::Info, kManagerSource, "SettingsManager", "{} Empty db output", id);
    } else {
      rows.WhenRead([this] {
        SM_LOG(LogLevel::Info, kManagerSource, "SettingsManager", "{} Deserialize db data...", id);
      });
    }
    tree = LoadTree(rows, nodes);
  }
  SM_LOG(LogLevel::Info, kManagerSource, "SettingsManager", "{} OK: {} node(s)", id, nodes);
}

SettingsManager::~SettingsManager() {
  // First: its calls refresh the tree and may start the event thread.
  watcher.reset();
  try {
    stopEvents.exchange(true);
    try {
      if (eventThread.joinable()) {
        // An observer let go of the last reference inside Update: this is the event
        // thread, which returns from Update without touching the manager and ends.
        if (eventThread.get_id() == std::this_thread::get_id())
          eventThread.detach();
        else
          eventThread.join();
      }
    } catch (std::exception const& e) {
      SM_LOG_NOEXCEPT(LogLevel::Error, kManagerSource, "~SettingsManager",
                      "{} Event thread join fail: {}", id, e.what());
    }
    ReleaseWaiters();
  } catch (...) {
    auto const result = uvc::ProcessException();
    SM_LOG_NOEXCEPT(LogLevel::Error, kManagerSource, "~SettingsManager",
                    "{} Could not stop client notification: {}", id, result);
  }
}

int SettingsManager::Failed(char const* function, int line, uvc::Path const& path) const noexcept {
  auto const result = RecordFailure();
  auto& logger = tern::logger::TernLogger::RootLogger();
  if (logger.IsLevelEnabled(LogLevel::Warning))
    logger.Log(LogLevel::Warning, kManagerSource, line, function, "{} {}({}): {}", id, function,
               path, result);
  return result.first;
}

template <typename Interface>
int SettingsManager::GetInterface(std::shared_ptr<Interface>& out) {
  try {
    std::shared_ptr<SettingsManager> const owner(weak_from_this());
    // Shares the owner's control block: a role interface keeps the whole manager alive.
    out = std::shared_ptr<Interface>(owner, static_cast<Interface*>(this));
    return fdn::rc::kOk;
  } catch (std::bad_weak_ptr const& e) {
    SM_LOG_NOEXCEPT(LogLevel::Error, kManagerSource, "GetInterface",
                    "{} Could not get interface: {}", id, e.what());
    return fdn::rc::kInterfaceNotSupported;
  }
}

int SettingsManager::GetSettingsCreator(std::shared_ptr<ISettingsCreator>& out) {
  return GetInterface(out);
}
int SettingsManager::GetSettingsGetter(std::shared_ptr<ISettingsGetter>& out) {
  return GetInterface(out);
}
int SettingsManager::GetSettingsValueSetter(std::shared_ptr<ISettingsValueSetter>& out) {
  return GetInterface(out);
}
int SettingsManager::GetSettingsSetter(std::shared_ptr<ISettingsSetter>& out) {
  return GetInterface(out);
}
int SettingsManager::GetSettingsDeleter(std::shared_ptr<ISettingsDeleter>& out) {
  return GetInterface(out);
}
int SettingsManager::GetSettingsUpdateSubscriber(std::shared_ptr<ISettingsUpdateSubscriber>& out) {
  return GetInterface(out);
}

int CreateSettingsManager(SettingsManagerConfig const& config,
                          std::shared_ptr<ISettingsManager>& out) {
  log::ReadLogEnvironment();
  try {
    std::shared_ptr<ISettingsManager> manager = std::make_shared<SettingsManager>(config);
    out = std::move(manager);
    return fdn::rc::kOk;
  } catch (std::exception const&) {
    auto const result = RecordFailure();
    SM_LOG_NOEXCEPT(LogLevel::Fatal, kManagerSource, "CreateSettingsManager",
                    "Could not create settings manager: {}", result);
    return result.first;
  }
}

}  // namespace settings_manager
