#include "manifest_index.h"

#include <dirent.h>
#include <fcntl.h>
#include <strings.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>

namespace host {
namespace {

const char kManifestSuffix[] = ".xml";

constexpr uint32_t kEntryChanges = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_MODIFY |
                                   IN_CLOSE_WRITE | IN_ATTRIB;
constexpr uint32_t kListingChanges = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;
constexpr uint32_t kDirectoryGone = IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT | IN_IGNORED;

bool ReadRaw(const std::string& path, std::string& content) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return false;
  char buffer[8192];
  ssize_t count = 0;
  while ((count = read(fd, buffer, sizeof buffer)) > 0) content.append(buffer, static_cast<size_t>(count));
  close(fd);
  return count == 0;
}

bool IsSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

// The skim is trusted only where the raw bytes are what the parser sees: UTF-8 (or ASCII) text without
// a document type, which could declare entities or default attribute values.
bool SkimmableText(const std::string& text) {
  if (text.find('\0') != std::string::npos || text.find("<!DOCTYPE") != std::string::npos) return false;
  if (text.compare(0, 5, "<?xml") != 0) return true;
  const std::string declaration = text.substr(0, text.find("?>"));
  const size_t encoding = declaration.find("encoding");
  if (encoding == std::string::npos) return true;
  const size_t quote = declaration.find_first_of("\"'", encoding);
  if (quote == std::string::npos) return false;
  return strncasecmp(declaration.c_str() + quote + 1, "utf-8", 5) == 0 &&
         declaration.size() > quote + 6 && declaration[quote + 6] == declaration[quote];
}

}  // namespace

// Finds every ` appid = "value"` in the raw text. A value with a reference or with characters that
// attribute normalisation rewrites makes the file opaque: only the parser knows what it says.
void ManifestEntry::Skim() {
  skimmed_ = true;
  std::string text;
  if (!ReadRaw(path_, text) || !SkimmableText(text)) {
    opaque_ = true;
    return;
  }
  static const char kName[] = "appid";
  const size_t nameLength = sizeof kName - 1;
  for (size_t at = text.find(kName); at != std::string::npos; at = text.find(kName, at + nameLength)) {
    if (at == 0 || !IsSpace(text[at - 1])) continue;
    size_t pos = at + nameLength;
    while (pos < text.size() && IsSpace(text[pos])) ++pos;
    if (pos >= text.size() || text[pos] != '=') continue;
    ++pos;
    while (pos < text.size() && IsSpace(text[pos])) ++pos;
    if (pos >= text.size() || (text[pos] != '"' && text[pos] != '\'')) continue;
    const size_t end = text.find(text[pos], pos + 1);
    if (end == std::string::npos) continue;
    std::string value = text.substr(pos + 1, end - pos - 1);
    if (value.find_first_of("&\t\n\r") != std::string::npos) {
      opaque_ = true;
      return;
    }
    appids_.push_back(std::move(value));
  }
}

bool ManifestEntry::MayDeclare(const std::string& appid) {
  if (state_ != State::kUnread) {
    if (state_ == State::kBroken) return false;
    for (const ManifestApp& app : manifest_.apps) {
      if (app.appid == appid) return true;
    }
    return false;
  }
  if (!skimmed_) Skim();
  if (opaque_) return true;
  for (const std::string& value : appids_) {
    if (value == appid) return true;
  }
  return false;
}

const Manifest* ManifestEntry::Parsed() {
  if (state_ == State::kUnread) {
    std::string error;
    if (ReadManifest(path_, manifest_, error)) {
      state_ = State::kParsed;
    } else {
      // A broken manifest must be a failure of the call, and whoever runs the sandbox wants to know why.
      std::fprintf(stderr, "pkgmgr-info (host): %s\n", error.c_str());
      state_ = State::kBroken;
    }
  }
  return state_ == State::kParsed ? &manifest_ : nullptr;
}

// ---------------------------------------------------------------------------------------------------------

ManifestIndex& ManifestIndex::Instance() {
  static ManifestIndex index;
  return index;
}

// A forked child shares the parent's inotify queue: reading it would steal the parent's events, so the
// child closes its copy unread and starts over.
void ManifestIndex::Restart() {
  if (notify_ >= 0) close(notify_);
  dirs_.clear();
  owner_ = getpid();
  notify_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
}

bool IsManifestName(const std::string& name) {
  const size_t suffix = sizeof kManifestSuffix - 1;
  return name.size() > suffix && name.compare(name.size() - suffix, suffix, kManifestSuffix) == 0;
}

// Applies every change reported since the last call. Watches are never removed by hand: one directory
// reached by two paths shares one watch, and the kernel drops a watch with its directory.
void ManifestIndex::Drain() {
  if (notify_ < 0) return;
  alignas(inotify_event) char buffer[16384];
  for (;;) {
    const ssize_t length = read(notify_, buffer, sizeof buffer);
    if (length <= 0) return;
    for (ssize_t at = 0; at < length;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
      at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
      const std::string name = event->len > 0 ? event->name : "";
      for (auto& [path, watched] : dirs_) {
        if (event->mask & IN_Q_OVERFLOW || (watched.watch == event->wd && event->mask & kDirectoryGone)) {
          watched = Watched();
        } else if (watched.watch == event->wd && IsManifestName(name)) {
          const auto entry = watched.entries.find(name.substr(0, name.size() - (sizeof kManifestSuffix - 1)));
          if (entry != watched.entries.end()) entry->second.Reset();
          if (event->mask & kListingChanges) watched.listed = false;
        }
      }
    }
  }
}

void ManifestIndex::List(const std::string& dir, Watched& watched) {
  struct DirCloser {
    void operator()(DIR* handle) const { closedir(handle); }
  };
  ManifestDirectory entries;
  watched.volatileEntries = false;
  std::unique_ptr<DIR, DirCloser> handle(opendir(dir.c_str()));
  while (handle) {
    const dirent* entry = readdir(handle.get());
    if (entry == nullptr) break;
    const std::string name = entry->d_name;
    if (!IsManifestName(name)) continue;
    std::string package = name.substr(0, name.size() - (sizeof kManifestSuffix - 1));
    const std::string path = dir + "/" + name;
    bool regular = entry->d_type == DT_REG;
    struct stat status;
    if (entry->d_type == DT_UNKNOWN) regular = lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
    regular = regular && watched.watch >= 0;
    watched.volatileEntries = watched.volatileEntries || !regular;
    auto known = watched.entries.find(package);
    if (known != watched.entries.end() && known->second.regular() && regular) {
      entries.emplace(std::move(package), std::move(known->second));
    } else {
      entries.emplace(std::move(package), ManifestEntry(path, regular));
    }
  }
  watched.entries = std::move(entries);
  watched.listed = true;
}

ManifestDirectory& ManifestIndex::Current(const std::string& dir) {
  if (owner_ != getpid()) Restart();
  Drain();
  Watched& watched = dirs_[dir];
  struct stat status;
  if (stat(dir.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
    watched = Watched();
    return watched.entries;
  }
  // The same path may name another directory by now (the sandbox was made anew).
  if (watched.watch >= 0 && (watched.device != status.st_dev || watched.inode != status.st_ino)) {
    watched = Watched();
  }
  if (watched.watch < 0) {
    watched = Watched();
    if (notify_ >= 0) watched.watch = inotify_add_watch(notify_, dir.c_str(), kEntryChanges | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR);
    // Identified after the watch is set, so that a replacement in between is seen at the next call.
    if (stat(dir.c_str(), &status) != 0) return watched.entries;
    watched.device = status.st_dev;
    watched.inode = status.st_ino;
  }
  if (!watched.listed || watched.watch < 0) {
    List(dir, watched);
  } else if (watched.volatileEntries) {
    for (auto& entry : watched.entries) {
      if (!entry.second.regular()) entry.second.Reset();
    }
  }
  return watched.entries;
}

}  // namespace host
