// One step of the device's installer, as a process of its own: loads the plug-in with
// dlopen(RTLD_LAZY | RTLD_LOCAL), calls one entry point with the application's metadata items, and
// unloads it when the step ends. The benchmark measures such processes; the campaigns cut them short.
//
//   wup_call_plugin PLUGIN.so install|upgrade|uninstall PKGID APPID [KEY=VALUE]...
//
// Exit status 0 when the entry point returned 0, 1 when it did not or the plug-in could not be loaded,
// 2 on a usage error.
#include <cstdio>
#include <exception>

#include "hostkit/plugin_call.h"

int main(int argc, char** argv) {
  const auto operation = argc >= 5 ? hostkit::OperationNamed(argv[2]) : std::nullopt;
  if (!operation) {
    std::fprintf(stderr, "usage: %s PLUGIN.so install|upgrade|uninstall PKGID APPID [KEY=VALUE]...\n",
                 argv[0]);
    return 2;
  }
  // The items are the arguments split at their first '='; one without '=' is no item.
  hostkit::MetadataItems items;
  for (int i = 5; i < argc; ++i) {
    const std::string argument = argv[i];
    const size_t separator = argument.find('=');
    if (separator != std::string::npos)
      items.emplace_back(argument.substr(0, separator), argument.substr(separator + 1));
  }
  try {
    const hostkit::PluginLibrary plugin(argv[1]);
    return plugin.Call(*operation, argv[3], argv[4], items) == 0 ? 0 : 1;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
}
