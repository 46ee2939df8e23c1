#include <settings_manager/settings_manager.h>

#include <cstdio>

namespace sm = settings_manager;

int main(int argc, char** argv) {
  std::shared_ptr<sm::ISettingsManager> manager;
  if (sm::CreateSettingsManager({argc > 1 ? argv[1] : "hello.db"}, manager) != 0) return 1;
  std::shared_ptr<sm::ISettingsCreator> creator;
  std::shared_ptr<sm::ISettingsGetter> getter;
  manager->GetSettingsCreator(creator);
  manager->GetSettingsGetter(getter);
  uvc::Path port = uvc::FromString("network/port", sm::meta::GetIdSpecification()).first;
  creator->CreateSetting(port, std::uint16_t{8080});  // 0 created, 1 already there
  sm::Setting value;
  if (getter->GetSetting(port, value) != 0) return 1;
  std::printf("network/port = %u\n", unsigned{std::get<std::uint16_t>(value)});
}
