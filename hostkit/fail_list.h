// The stand-ins' forced failures: an environment variable holding a comma-separated list of names
// (HOST_PKGMGRINFO_FAIL, HOST_VEX_FAIL, HOST_TZPLATFORM_UNSET). Read on every call, so that a test may
// change the list between two calls of one process.
#ifndef WUP_HOSTKIT_FAIL_LIST_H_
#define WUP_HOSTKIT_FAIL_LIST_H_

#include <string_view>

namespace hostkit {

// True when the list in `variable` names `name` exactly; blanks (spaces, tabs) around an entry are
// ignored, an unset variable names nothing.
bool Listed(const char* variable, std::string_view name);

}  // namespace hostkit

#endif  // WUP_HOSTKIT_FAIL_LIST_H_
