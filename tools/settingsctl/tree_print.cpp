#include "tree_print.h"

#include <fmt/format.h>

#include <iterator>

#include "value_text.h"

namespace settingsctl {
namespace {

using settings_manager::Setting;
using Buffer = fmt::memory_buffer;

void AppendChildren(Buffer& out, Setting const& container, int depth);

void AppendNode(Buffer& out, std::string const& name, Setting const& node, int depth) {
  auto const index = node.index();
  fmt::format_to(std::back_inserter(out), "{:{}}{}: {}", "", depth * 2, name, TypeName(index));
  bool const empty = (index == uvc::index::kMap && std::get<uvc::index::kMap>(node).empty()) ||
                     (index == uvc::index::kList && std::get<uvc::index::kList>(node).empty());
  if (empty)
    fmt::format_to(std::back_inserter(out), " (empty)");
  else if (!IsContainer(index) && index != uvc::index::kNone)
    fmt::format_to(std::back_inserter(out), " = {}", ShownScalar(node));
  if (node.attributes.readOnly) fmt::format_to(std::back_inserter(out), " [read-only]");
  out.push_back('\n');
  AppendChildren(out, node, depth + 1);
}

void AppendChildren(Buffer& out, Setting const& container, int depth) {
  if (auto const* map = std::get_if<uvc::index::kMap>(&container)) {
    for (auto const& [key, child] : *map) AppendNode(out, key, child, depth);
  } else if (auto const* list = std::get_if<uvc::index::kList>(&container)) {
    for (std::size_t i = 0; i < list->size(); ++i)
      AppendNode(out, std::to_string(i), (*list)[i], depth);
  }
}

}  // namespace

std::string TreeText(std::string const& name, Setting const& setting) {
  Buffer out;
  AppendNode(out, name, setting, 0);
  return fmt::to_string(out);
}

std::string ChildrenText(Setting const& container) {
  Buffer out;
  AppendChildren(out, container, 0);
  return fmt::to_string(out);
}

std::string ListingText(std::vector<ListedChild> const& children) {
  Buffer out;
  for (auto const& child : children)
    fmt::format_to(std::back_inserter(out), "{}: {}{}\n", child.name, TypeName(child.type),
                   child.readOnly ? " [read-only]" : "");
  return fmt::to_string(out);
}

}  // namespace settingsctl
