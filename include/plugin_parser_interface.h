// The package manager's metadata-parser plug-in interface: three functions exported under plain C names,
// each given the package id, the application id and the application's metadata items of this plug-in.
// They always return 0: the package manager never aborts an installation because of this plug-in.
#ifndef WEBAPI_UPGRADE_PLUGIN_PARSER_INTERFACE_H_
#define WEBAPI_UPGRADE_PLUGIN_PARSER_INTERFACE_H_

#include <glib.h>

extern "C" {

// One metadata item as the package manager publishes it; the list, the items and the strings belong to
// the package manager.
typedef struct {
  const char* key;
  const char* value;
} __metadata_t;

int PKGMGR_MDPARSER_PLUGIN_INSTALL(const char* pkgid, const char* appid, GList* metadata);
int PKGMGR_MDPARSER_PLUGIN_UPGRADE(const char* pkgid, const char* appid, GList* metadata);
int PKGMGR_MDPARSER_PLUGIN_UNINSTALL(const char* pkgid, const char* appid, GList* metadata);
}

#endif  // WEBAPI_UPGRADE_PLUGIN_PARSER_INTERFACE_H_
