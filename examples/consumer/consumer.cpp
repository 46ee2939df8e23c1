// A client of the installed library: creates a setting, reads it back, watches it change,
// and finds the change again in a second manager on the same file. The consumer test
// builds it against an installed tree, once through find_package and once through
// pkg-config, and runs it on a fresh database.
//
//   consumer DATABASE

#include <settings_manager/format.h>
#include <settings_manager/settings_manager.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace sm = settings_manager;

namespace {

// Records the changes it is told about. Update runs on the manager's event thread.
class Recorder final : public sm::ISettingsUpdateObserver {
 public:
  void Update(uvc::Path const& path, unsigned char kind) override {
    std::lock_guard<std::mutex> lock(mutex_);
    changes_.emplace_back(fmt::format("{}", path), kind);
    changed_.notify_all();
  }

  // Waits (up to ten seconds) until `path` was reported with `kind`.
  bool WaitFor(std::string const& path, unsigned char kind) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(10), [&] {
      for (auto const& change : changes_)
        if (change.first == path && change.second == kind) return true;
      return false;
    });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::pair<std::string, unsigned char>> changes_;  // guarded by mutex_
};

int Fail(char const* what, int code) {
  std::fprintf(stderr, "consumer: %s: %s\n", what, fdn::ResultCodeText(code).c_str());
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: consumer DATABASE\n");
    return 2;
  }
  uvc::Path const port = uvc::FromString("device/port", sm::meta::GetIdSpecification()).first;
  {
    std::shared_ptr<sm::ISettingsManager> manager;
    if (int rc = sm::CreateSettingsManager({argv[1]}, manager); rc != 0) return Fail("open", rc);
    std::shared_ptr<sm::ISettingsCreator> creator;
    std::shared_ptr<sm::ISettingsGetter> getter;
    std::shared_ptr<sm::ISettingsValueSetter> setter;
    std::shared_ptr<sm::ISettingsUpdateSubscriber> subscriber;
    manager->GetSettingsCreator(creator);
    manager->GetSettingsGetter(getter);
    manager->GetSettingsValueSetter(setter);
    manager->GetSettingsUpdateSubscriber(subscriber);
    manager.reset();  // the role interfaces keep the manager alive

    auto recorder = std::make_shared<Recorder>();
    sm::SubscriptionId id{};
    if (int rc = subscriber->Subscribe(
            uvc::FromString("device", sm::meta::GetIdSpecification()).first, recorder, id);
        rc != 0)
      return Fail("subscribe", rc);

    if (int rc = creator->CreateSetting(port, std::uint16_t{8080}); rc != 0)
      return Fail("create", rc);
    sm::Setting value;
    if (int rc = getter->GetSetting(port, value); rc != 0) return Fail("read", rc);
    std::printf("created %s = %u\n", sm::PathToStr(port).c_str(),
                unsigned{std::get<std::uint16_t>(value)});

    if (int rc = setter->SetValue(port, std::uint16_t{8081}); rc != 0) return Fail("change", rc);
    if (int rc = setter->SetValue(port, std::uint16_t{8081}); rc != 1)
      return Fail("change again", rc);
    if (!recorder->WaitFor("device/port/", sm::event::kValue)) {
      std::fprintf(stderr, "consumer: the observer was not told of the change\n");
      return 1;
    }
    std::printf("observer told: %s changed (kind %#x), subscription %s\n",
                sm::PathToStr(port).c_str(), unsigned{sm::event::kValue},
                fmt::format("{}", id).c_str());
    if (int rc = subscriber->Unsubscribe(id); rc != 0) return Fail("unsubscribe", rc);
  }
  // Every pointer is gone: the manager is closed. A new one reads the change from the file.
  std::shared_ptr<sm::ISettingsManager> reopened;
  if (int rc = sm::CreateSettingsManager({argv[1]}, reopened); rc != 0) return Fail("reopen", rc);
  std::shared_ptr<sm::ISettingsGetter> getter;
  reopened->GetSettingsGetter(getter);
  sm::Setting value;
  if (int rc = getter->GetSetting(port, value); rc != 0) return Fail("read after reopen", rc);
  auto const stored = std::get<std::uint16_t>(value);
  std::printf("reopened: %s = %u\n", sm::PathToStr(port).c_str(), unsigned{stored});
  if (stored != 8081) return Fail("read after reopen", fdn::rc::kInvalidResult);
  std::printf("consumer: ok, built against libsettings_manager %s\n",
              SETTINGS_MANAGER_VERSION_STRING);
  return 0;
}
