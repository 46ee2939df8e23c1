// A device program's use of the settings manager: on the first run it creates its
// settings tree, on every run it changes a value and reads it back; run it again and
// the tree it finds is the one the last run left.
//
//   device_settings [DATABASE]      (default: device_settings.db in the current folder)

#include <settings_manager/settings_manager.h>

#include <cstdio>
#include <string>

namespace sm = settings_manager;
using uvc::Path;

namespace {

Path P(std::string const& text) { return uvc::FromString(text, sm::meta::GetIdSpecification()).first; }

sm::Setting Map() { return sm::Setting(sm::Setting::Value(std::in_place_index<uvc::index::kMap>)); }

sm::Setting DeviceTree() {
  sm::Setting device = Map();
  auto& entries = std::get<uvc::index::kMap>(device);
  entries["name"] = std::string("sensor-01");
  entries["boots"] = std::uint32_t{0};

  sm::Setting network = Map();
  auto& net = std::get<uvc::index::kMap>(network);
  net["port"] = std::uint16_t{8080};
  net["dhcp"] = true;
  net["dns"] = std::vector<sm::Setting>{std::string("192.0.2.53"), std::string("198.51.100.53")};
  entries["network"] = std::move(network);

  sm::Setting firmware = Map();
  std::get<uvc::index::kMap>(firmware)["version"] =
      sm::Setting(std::string("1.4.2"), sm::Attributes{true});  // read-only
  entries["firmware"] = std::move(firmware);
  return device;
}

std::string Scalar(sm::Setting const& s) {
  switch (s.index()) {
    case uvc::index::kNone: return "(empty)";
    case uvc::index::kBool: return std::get<bool>(s) ? "true" : "false";
    case uvc::index::kInt32: return std::to_string(std::get<std::int32_t>(s));
    case uvc::index::kDouble: return std::to_string(std::get<double>(s));
    case uvc::index::kString: return '"' + std::get<std::string>(s) + '"';
    case uvc::index::kUint16: return std::to_string(std::get<std::uint16_t>(s));
    case uvc::index::kUint32: return std::to_string(std::get<std::uint32_t>(s));
    default: return "(alternative " + std::to_string(s.index()) + ")";
  }
}

void Print(sm::Setting const& s, std::string const& name, int depth) {
  std::printf("%*s%s", depth * 2, "", name.c_str());
  char const* mark = s.attributes.readOnly ? "  [read-only]" : "";
  if (auto const* map = std::get_if<uvc::index::kMap>(&s)) {
    std::printf("%s\n", mark);
    for (auto const& [key, child] : *map) Print(child, key, depth + 1);
  } else if (auto const* list = std::get_if<uvc::index::kList>(&s)) {
    std::printf("%s\n", mark);
    for (std::size_t i = 0; i < list->size(); ++i) Print((*list)[i], std::to_string(i), depth + 1);
  } else {
    std::printf(" = %s%s\n", Scalar(s).c_str(), mark);
  }
}

int Fail(char const* what, int code) {
  std::fprintf(stderr, "device_settings: %s failed: 0x%08x\n", what, static_cast<unsigned>(code));
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  std::string const database = argc > 1 ? argv[1] : "device_settings.db";

  std::shared_ptr<sm::ISettingsManager> manager;
  if (int rc = sm::CreateSettingsManager({database}, manager); rc != 0) return Fail("open", rc);
  std::shared_ptr<sm::ISettingsCreator> creator;
  std::shared_ptr<sm::ISettingsGetter> getter;
  std::shared_ptr<sm::ISettingsValueSetter> setter;
  manager->GetSettingsCreator(creator);
  manager->GetSettingsGetter(getter);
  manager->GetSettingsValueSetter(setter);

  sm::Setting device;
  if (getter->GetSetting(P("device"), device) != 0) {
    std::printf("%s holds no settings yet: creating the device tree.\n", database.c_str());
    if (int rc = creator->CreateSetting(P("device"), DeviceTree()); rc != 0) return Fail("create", rc);
    getter->GetSetting(P("device"), device);
  } else {
    std::printf("%s holds the tree the last run left:\n", database.c_str());
  }
  Print(device, "device", 0);

  sm::Setting boots;
  getter->GetSetting(P("device/boots"), boots);
  auto const count = std::get<std::uint32_t>(boots) + 1;
  if (int rc = setter->SetValue(P("device/boots"), count); rc != 0) return Fail("set", rc);

  sm::Setting port;
  getter->GetSetting(P("device/network/port"), port);
  auto const next = static_cast<std::uint16_t>(std::get<std::uint16_t>(port) + 1);
  if (int rc = setter->SetValue(P("device/network/port"), next); rc != 0) return Fail("set", rc);
  getter->GetSetting(P("device/network/port"), port);
  std::printf("\nboot %u: changed device/network/port to %u, read back %u\n",
              static_cast<unsigned>(count), static_cast<unsigned>(next),
              static_cast<unsigned>(std::get<std::uint16_t>(port)));

  int const refused = setter->SetValue(P("device/firmware/version"), std::string("9.9.9"));
  std::printf("changing the read-only device/firmware/version is refused: 0x%08x\n",
              static_cast<unsigned>(refused));
  std::printf("Run again: the next run starts from port %u and boot %u.\n",
              static_cast<unsigned>(next), static_cast<unsigned>(count));
  return 0;
}
