// One step of the device's installer, as a process of its own: loads the plug-in with
// dlopen(RTLD_LAZY | RTLD_LOCAL), calls one entry point with the application's metadata items, and
// unloads it when the step ends.
//
//   bench_call_plugin PLUGIN.so install|upgrade|uninstall PKGID APPID [KEY=VALUE]...
#include <dlfcn.h>
#include <glib.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "plugin_parser_interface.h"

namespace {

using EntryPoint = decltype(&PKGMGR_MDPARSER_PLUGIN_INSTALL);

const char* EntryPointName(const std::string& operation) {
  if (operation == "install") return "PKGMGR_MDPARSER_PLUGIN_INSTALL";
  if (operation == "upgrade") return "PKGMGR_MDPARSER_PLUGIN_UPGRADE";
  if (operation == "uninstall") return "PKGMGR_MDPARSER_PLUGIN_UNINSTALL";
  return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
  const char* entryName = argc >= 5 ? EntryPointName(argv[2]) : nullptr;
  if (entryName == nullptr) {
    std::fprintf(stderr, "usage: %s PLUGIN.so install|upgrade|uninstall PKGID APPID [KEY=VALUE]...\n", argv[0]);
    return 2;
  }
  void* library = dlopen(argv[1], RTLD_LAZY | RTLD_LOCAL);
  if (library == nullptr) {
    std::fprintf(stderr, "%s\n", dlerror());
    return 1;
  }
  const auto entry = reinterpret_cast<EntryPoint>(dlsym(library, entryName));
  if (entry == nullptr) {
    std::fprintf(stderr, "%s: no %s\n", argv[1], entryName);
    return 1;
  }

  // The items point into the arguments, split at the first '='; the list is freed right after the call.
  std::vector<std::string> keys;
  std::vector<__metadata_t> items;
  keys.reserve(argc);
  items.reserve(argc);
  GList* list = nullptr;
  for (int i = 5; i < argc; ++i) {
    char* separator = std::strchr(argv[i], '=');
    if (separator == nullptr) continue;
    keys.emplace_back(argv[i], separator);
    items.push_back({keys.back().c_str(), separator + 1});
    list = g_list_append(list, &items.back());
  }
  const int result = entry(argv[3], argv[4], list);
  g_list_free(list);
  dlclose(library);
  return result == 0 ? 0 : 1;
}
