#include "device.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <stdexcept>
#include <system_error>

namespace fs = std::filesystem;

namespace pkgsim {
namespace {

const char kStagingSuffix[] = ".pkgsim-new";
const char kRetiredSuffix[] = ".pkgsim-old";

[[noreturn]] void Fail(const std::string& what, const fs::path& path, const std::error_code& error) {
  throw std::runtime_error(what + " " + path.string() + ": " + error.message());
}

void RemoveAll(const fs::path& path) {
  std::error_code error;
  fs::remove_all(path, error);
  if (error) Fail("cannot remove", path, error);
}

void RenameOver(const fs::path& from, const fs::path& to) {
  std::error_code error;
  fs::rename(from, to, error);
  if (error) Fail("cannot move into place", to, error);
}

// Replaces the directory `to` with a copy of `from`; the old tree is moved aside before the new one is
// moved in, so an interruption never leaves a mix of both versions.
void ReplaceTree(const fs::path& from, const fs::path& to) {
  const fs::path staging = to.string() + kStagingSuffix;
  const fs::path retired = to.string() + kRetiredSuffix;
  RemoveAll(staging);
  std::error_code error;
  fs::create_directories(staging, error);
  if (error) Fail("cannot create", staging, error);
  fs::copy(from, staging, fs::copy_options::recursive | fs::copy_options::copy_symlinks, error);
  if (error) {
    RemoveAll(staging);
    Fail("cannot copy the package into", to, error);
  }
  RemoveAll(retired);
  if (fs::exists(to)) RenameOver(to, retired);
  RenameOver(staging, to);
  RemoveAll(retired);
}

void ReplaceFile(const fs::path& from, const fs::path& to) {
  const fs::path staging = to.string() + kStagingSuffix;
  std::error_code error;
  fs::copy_file(from, staging, fs::copy_options::overwrite_existing, error);
  if (error) Fail("cannot copy the manifest to", to, error);
  RenameOver(staging, to);
}

void CollectManifests(const std::string& dir, bool readOnly, std::map<std::string, PackageState>& packages) {
  std::error_code error;
  for (const fs::directory_entry& entry : fs::directory_iterator(dir, error)) {
    const fs::path& path = entry.path();
    if (path.extension() != ".xml" || !entry.is_regular_file()) continue;
    PackageState& state = packages[path.stem().string()];
    (readOnly ? state.ro : state.rw) = true;
  }
}

}  // namespace

bool Device::Exists() const {
  for (const std::string& dir : layout_.Dirs()) {
    if (!fs::is_directory(dir)) return false;
  }
  return true;
}

PackageState Device::StateOf(const std::string& pkgid) const {
  PackageState state;
  state.rw = fs::is_regular_file(Manifest(pkgid, false));
  state.ro = fs::is_regular_file(Manifest(pkgid, true));
  return state;
}

void Device::Place(const std::string& packageDir, const std::string& manifestPath, const std::string& pkgid,
                   bool readOnly) const {
  // Files first, manifest last: the package-information service must never see a package whose files
  // are not there yet.
  ReplaceTree(packageDir, AppRoot(pkgid, readOnly));
  ReplaceFile(manifestPath, Manifest(pkgid, readOnly));
}

void Device::Remove(const std::string& pkgid, bool readOnly) const {
  std::error_code error;
  fs::remove(Manifest(pkgid, readOnly), error);
  if (error) Fail("cannot remove", Manifest(pkgid, readOnly), error);
  RemoveAll(AppRoot(pkgid, readOnly));
}

std::vector<std::pair<std::string, PackageState>> Device::Packages() const {
  std::map<std::string, PackageState> packages;
  CollectManifests(RwPackagesDir(), false, packages);
  CollectManifests(RoPackagesDir(), true, packages);
  return {packages.begin(), packages.end()};
}

std::string Device::Foreground() const {
  std::ifstream in(ForegroundFile(), std::ios::binary);
  std::string id;
  std::getline(in, id);
  return id;
}

void Device::SetForeground(const std::string& appid) const {
  const fs::path staging = ForegroundFile() + kStagingSuffix;
  {
    std::ofstream out(staging, std::ios::binary | std::ios::trunc);
    if (!appid.empty()) out << appid << '\n';
    if (!out.flush()) throw std::runtime_error("cannot write " + staging.string());
  }
  RenameOver(staging, ForegroundFile());
}

std::string DefaultDeviceRoot() {
  const char* fromEnvironment = std::getenv("PKGSIM_DEVICE");
  if (fromEnvironment != nullptr && *fromEnvironment != '\0') return fromEnvironment;
  return "pkgsim-device";
}

bool IsSafePackageId(const std::string& pkgid) {
  return !pkgid.empty() && pkgid != "." && pkgid != ".." && pkgid.find('/') == std::string::npos &&
         pkgid.find('\0') == std::string::npos;
}

}  // namespace pkgsim
