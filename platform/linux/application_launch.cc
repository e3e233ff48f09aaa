#include "platform/linux/application_launch.h"

#include <gio/gio.h>
#include <memory>

namespace platform::freedesktop {
namespace {

using Applications =
    std::unique_ptr<GList, decltype([](GList* list) { g_list_free_full(list, g_object_unref); })>;

}  // namespace

std::optional<std::string> launchDesktopEntry(const std::string& name) {
  const Applications all(g_app_info_get_all());
  for (const GList* link = all.get(); link != nullptr; link = link->next) {
    auto* application = static_cast<GAppInfo*>(link->data);
    if (name != g_app_info_get_name(application)) continue;
    GError* error = nullptr;
    if (g_app_info_launch(application, nullptr, nullptr, &error) != FALSE) return std::nullopt;
    std::string failure = "\"" + name + "\" cannot be started: " + error->message;
    g_error_free(error);
    return failure;
  }
  return "\"" + name + "\" cannot be started: there is no application of that name.";
}

}  // namespace platform::freedesktop
