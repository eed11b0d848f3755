// One call of the package manager into the plug-in, in a process of its own as on the TV:
//
//   plugin_call install|upgrade|uninstall PKGID KIND [APPLIST]
//
// loads the built plug-in with dlopen and calls the entry point once, with the metadata list of a plug-in
// package (the type key with KIND, and the allow-list key with APPLIST when given). The device comes
// from the environment of the host stand-ins. Exit status: 0 when the entry point returned, 2 bad command
// line, 3 the library or the entry point could not be loaded, 4 an exception left the plug-in.
#include <dlfcn.h>
#include <glib.h>

#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "plugin_parser_interface.h"

int main(int argc, char** argv) {
  if (argc < 4 || argc > 5) {
    std::fprintf(stderr, "usage: plugin_call install|upgrade|uninstall PKGID KIND [APPLIST]\n");
    return 2;
  }
  const std::string operation = argv[1];
  const char* symbol = operation == "install"     ? "PKGMGR_MDPARSER_PLUGIN_INSTALL"
                       : operation == "upgrade"   ? "PKGMGR_MDPARSER_PLUGIN_UPGRADE"
                       : operation == "uninstall" ? "PKGMGR_MDPARSER_PLUGIN_UNINSTALL"
                                                  : nullptr;
  void* library = symbol != nullptr ? dlopen(WUP_PLUGIN_LIBRARY, RTLD_LAZY | RTLD_LOCAL) : nullptr;
  using EntryPoint = int (*)(const char*, const char*, GList*);
  auto entry = library != nullptr ? reinterpret_cast<EntryPoint>(dlsym(library, symbol)) : nullptr;
  if (entry == nullptr) {
    std::fprintf(stderr, "plugin_call: %s\n", symbol != nullptr ? dlerror() : "unknown operation");
    return symbol != nullptr ? 3 : 2;
  }

  const std::string typeKey = METADATA_NAMESPACE "upgradable_webapi_type";
  const std::string appListKey = METADATA_NAMESPACE "upgradable_webapi_applist";
  std::vector<__metadata_t> items = {{typeKey.c_str(), argv[3]}};
  if (argc == 5) items.push_back({appListKey.c_str(), argv[4]});
  GList* list = nullptr;
  for (__metadata_t& item : items) list = g_list_append(list, &item);
  int status = 0;
  try {
    entry(argv[2], argv[2], list);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "plugin_call: exception left the plug-in: %s\n", error.what());
    status = 4;
  }
  g_list_free(list);
  return status;
}
