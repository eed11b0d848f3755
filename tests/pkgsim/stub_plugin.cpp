// A metadata-parser plug-in that does nothing, built once naming its build the way the product does
// (WUP_POLICY_NAME, from STUB_POLICY_NAME) and once without, so that pkgsim's account of which build it
// ran can be checked for either kind of library.
#include "plugin_parser_interface.h"

extern "C" {

#ifdef STUB_POLICY_NAME
extern const char WUP_POLICY_NAME[];
const char WUP_POLICY_NAME[] = STUB_POLICY_NAME;
#endif

int PKGMGR_MDPARSER_PLUGIN_INSTALL(const char*, const char*, GList*) { return 0; }
int PKGMGR_MDPARSER_PLUGIN_UPGRADE(const char*, const char*, GList*) { return 0; }
int PKGMGR_MDPARSER_PLUGIN_UNINSTALL(const char*, const char*, GList*) { return 0; }
}
