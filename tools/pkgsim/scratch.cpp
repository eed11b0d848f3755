#include "scratch.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace fs = std::filesystem;

namespace pkgsim {
namespace {

[[noreturn]] void Fail(const std::string& what, const fs::path& path, const std::error_code& error) {
  throw std::runtime_error("cannot " + what + " " + path.string() + ": " + error.message());
}

void CopyEntry(const fs::directory_entry& entry, const fs::path& target, const Device& from,
               const Device& to) {
  std::error_code error;
  const fs::file_status status = entry.symlink_status(error);
  if (fs::is_symlink(status)) {
    std::string link = fs::read_symlink(entry.path(), error).string();
    if (link.compare(0, from.Root().size() + 1, from.Root() + "/") == 0) {
      link = to.Root() + link.substr(from.Root().size());
    }
    fs::create_symlink(link, target, error);
  } else if (fs::is_directory(status)) {
    fs::create_directory(target, error);
  } else if (fs::is_regular_file(status)) {
    fs::copy_file(entry.path(), target, error);
  } else if (fs::is_fifo(status)) {
    if (mkfifo(target.c_str(), 0600) != 0) error.assign(errno, std::generic_category());
  }
  if (error) Fail("copy the device to", target, error);
}

}  // namespace

TempDir::TempDir(const std::string& stem) {
  std::string pattern = (fs::temp_directory_path() / (stem + ".XXXXXX")).string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("cannot create a temporary directory");
  path_ = pattern;
}

TempDir::~TempDir() {
  if (released_) return;
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

void CopyDevice(const Device& from, const Device& to) {
  std::error_code error;
  fs::create_directories(to.Root(), error);
  if (error) Fail("create", to.Root(), error);
  const fs::path log = from.LogFile();
  for (auto it = fs::recursive_directory_iterator(from.Root(), error); !error && it != fs::end(it);
       it.increment(error)) {
    if (it->path() == log) continue;
    // Lexically: fs::relative would follow a symbolic link (the registered plug-in) out of the device.
    CopyEntry(*it, fs::path(to.Root()) / it->path().lexically_relative(from.Root()), from, to);
  }
  if (error) Fail("read", from.Root(), error);
  to.Create();
}

Snapshot Relocated(Snapshot snapshot, const Device& copy, const Device& device) {
  for (auto& entry : snapshot.rows) {
    for (std::string& field : entry.second) field = ReplaceAll(field, copy.Root(), device.Root());
  }
  snapshot.resultText = ReplaceAll(snapshot.resultText, copy.Root(), device.Root());
  return snapshot;
}

std::string ReplaceAll(std::string text, const std::string& from, const std::string& to) {
  for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
  return text;
}

}  // namespace pkgsim
