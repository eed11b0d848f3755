#include "hostkit/files.h"

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace hostkit {

namespace fs = std::filesystem;

std::string MakeTempDir(const std::string& stem) {
  std::string pattern = (fs::temp_directory_path() / (stem + "-XXXXXX")).string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed for " + pattern);
  return pattern;
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void WriteFile(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
  if (!out) throw std::runtime_error("cannot write " + path);
}

void MakeDirs(const std::string& path) { fs::create_directories(path); }

void RemoveTree(const std::string& path) {
  std::error_code ignored;  // best effort, as for a sandbox being cleared away
  fs::remove_all(path, ignored);
}

bool PathExists(const std::string& path) {
  std::error_code error;
  return fs::exists(fs::symlink_status(path, error));
}

Lines ReadLines(const std::string& path) {
  Lines lines;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

void WriteManifest(const std::string& dir, const std::string& package, const std::string& version,
                   const Lines& appids, const Metadata& metadata) {
  std::string xml = "<manifest xmlns=\"http://tizen.org/ns/packages\" package=\"" + package +
                    "\" version=\"" + version + "\" api-version=\"6.0\">\n";
  for (const std::string& appid : appids) {
    xml += "  <ui-application appid=\"" + appid + "\" exec=\"plugin\" type=\"capp\">\n";
    for (const auto& [key, value] : metadata)
      xml += "    <metadata key=\"" + key + "\" value=\"" + value + "\"/>\n";
    xml += "  </ui-application>\n";
  }
  WriteFile(dir + "/" + package + ".xml", xml + "</manifest>\n");
}

}  // namespace hostkit
