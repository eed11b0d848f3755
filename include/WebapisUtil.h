// WebapisUtil: publishes the upgrade result. The document is written to a staging file and renamed over
// strRESULT_FILE, so readers see the old text or the new one, never a mixture; a symbolic link at the
// staging path is never written through. Failures are logged and reported as false.
#ifndef WEBAPI_UPGRADE_PLUGIN_WEBAPIS_UTIL_H_
#define WEBAPI_UPGRADE_PLUGIN_WEBAPIS_UTIL_H_

#include <string>

#include "PluginCommon.h"

class WebapisUtil {
 public:
  WebapisUtil();
  ~WebapisUtil();

  // Builds the document from every record of `map`, in key order, and replaces the result file.
  bool SavePluginUpgradeResult(PluginDataMap& map);
  bool CheckUpgradeResultExist();
  // True when the result file holds exactly the document that `map` gives; terminates nothing.
  bool CheckUpgradeResultMatches(PluginDataMap& map);

  // Steps of the operations above, public so that each can be driven on its own.
  bool m_WriteUpgradeWebapiToLocal(const std::string& path, const std::string& text);
  bool m_RenameFile(const std::string& source, const std::string& destination);
  bool m_CreateDirectory(const std::string& path);
  // True means the path must not be written (a link, or it cannot be examined).
  bool m_IsFileSymbolLink(const std::string& path);
};

#endif  // WEBAPI_UPGRADE_PLUGIN_WEBAPIS_UTIL_H_
