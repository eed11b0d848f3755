// An extension description file as a downloaded xwalk package may bring it: the input is the file, read
// from a package's resource directory into a plug-in map. Whatever the file holds, nothing may leave the
// reader but records made from the elements of a root array, each an xwalk record named by its key.
#include <json/json.h>

#include <sstream>

#include "PluginDataUtil.h"
#include "fuzz_support.h"

namespace {

// Elements of the root array as JsonCpp's default reader sees the file; 0 for anything else.
Json::ArrayIndex RootArraySize(const uint8_t* data, size_t size) {
  std::istringstream text(std::string(reinterpret_cast<const char*>(data), size));
  Json::Value root;
  try {
    if (!Json::parseFromStream(Json::CharReaderBuilder(), text, &root, nullptr)) return 0;
  } catch (const std::exception&) {
    return 0;
  }
  return root.isArray() ? root.size() : 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static PluginDataUtil* const reader = CSingleton<PluginDataUtil>::GetInstance();
  static const std::string directory = [] {
    const std::string dir = wup_fuzz::Device().rwApp + "/com.korvane.tv.xwalk.fuzz/shared/res/";
    hostkit::MakeDirs(dir);
    return dir;
  }();
  hostkit::WriteFile(directory + "extension.json", std::string(reinterpret_cast<const char*>(data), size));

  PluginDataMap map;
  try {
    reader->GetXwalkInfo(directory, map);
  } catch (const std::exception& error) {
    wup_fuzz::Fail(std::string("exception left GetXwalkInfo: ") + error.what());
  }

  if (map.size() > RootArraySize(data, size)) wup_fuzz::Fail("more records than elements of a root array");
  for (const auto& [key, record] : map) {
    if (key != record.name || record.pkgid != strXWALK_PKG_PREFIX + record.name ||
        record.pluginType != XWALK_PLUGIN || record.version.empty()) {
      wup_fuzz::Fail("record [" + key + "] is not an xwalk record of its own name");
    }
  }
  return 0;
}
