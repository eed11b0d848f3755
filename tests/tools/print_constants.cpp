// Loads the plug-in library as the package manager does and prints the constants it built while loading,
// one "name=value" line each, so tests can check them for any environment of the path service.
#include <dlfcn.h>

#include <cstdio>
#include <string>

namespace {

const char* const kStringConstants[] = {
    "strRW_APP_DIR",          "strRO_APP_DIR",          "strMANAGER_DIR",        "strPEPPER_DIR",
    "strB2B_PEPPER_DIR",      "strXWALK_EXTENSION_DIR", "strRESULT_DIR",         "strRESULT_FILE",
    "strRESULT_FILE_BAK",     "strVERSION_TABLE",       "strPLUGIN_TABLE",       "strDEFAULT_VERSION",
    "strPEPPER_PKG_PREFIX",   "strXWALK_PKG_PREFIX",    "strSHARED_RES",         "strMETADATA_TYPE_KEY",
    "strMETADATA_FORCE_KEY",  "strMETADATA_APPLIST_KEY", "strPEPPER_PLUGIN",     "strXWALK_PLUGIN",
    "strB2B_PEPPER_PLUGIN",   "strTZ_SYS_DB",           "strVERSION_DB",         "strVERSION_DB_BAKUP",
};

const char* const kTextConstants[] = {"VERSION_DB", "VERSION_DB_BAKUP"};

// A global std::string carries the library's ABI tag in its symbol name.
std::string StringSymbol(const std::string& name) {
  return "_Z" + std::to_string(name.size()) + name + "B5cxx11";
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s LIBRARY\n", argv[0]);
    return 2;
  }
  void* library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) {
    std::fprintf(stderr, "%s\n", dlerror());
    return 1;
  }
  int missing = 0;
  for (const char* name : kStringConstants) {
    const auto* value = static_cast<const std::string*>(dlsym(library, StringSymbol(name).c_str()));
    if (value == nullptr) {
      std::fprintf(stderr, "not exported: %s\n", name);
      ++missing;
      continue;
    }
    std::printf("%s=%s\n", name, value->c_str());
  }
  for (const char* name : kTextConstants) {
    const auto* value = static_cast<const char* const*>(dlsym(library, name));
    if (value == nullptr) {
      std::fprintf(stderr, "not exported: %s\n", name);
      ++missing;
      continue;
    }
    std::printf("%s=%s\n", name, *value);
  }
  return missing == 0 ? 0 : 1;
}
