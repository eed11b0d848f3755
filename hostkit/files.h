// File helpers for setting up and reading a sandbox device, for programs for which a missing file is no
// error worth a message of its own (tests, fuzz targets, campaigns): reading gives "" or no lines.
#ifndef WUP_HOSTKIT_FILES_H_
#define WUP_HOSTKIT_FILES_H_

#include <string>
#include <utility>
#include <vector>

namespace hostkit {

using Lines = std::vector<std::string>;

// A fresh directory under the temporary directory ($TMPDIR), named after `stem`.
std::string MakeTempDir(const std::string& stem);

std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& content);  // throws when it cannot
void MakeDirs(const std::string& path);
void RemoveTree(const std::string& path);  // best effort
bool PathExists(const std::string& path);  // a dangling link exists
Lines ReadLines(const std::string& path);

using Metadata = std::vector<std::pair<std::string, std::string>>;

// A package as the package manager leaves it: `dir`/`package`.xml with one ui-application per appid,
// each carrying `metadata`. Sample texts hold no XML markup, so nothing is escaped.
void WriteManifest(const std::string& dir, const std::string& package, const std::string& version,
                   const Lines& appids, const Metadata& metadata = {});

}  // namespace hostkit

#endif  // WUP_HOSTKIT_FILES_H_
