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

// The skim is trusted only where the raw bytes are what the parser sees: UTF-8 (or ASCII) text whose
// prolog (what precedes the root element) holds no document type, which could declare entities or
// default attribute values.
bool StartsAt(const std::string& text, size_t at, const char* prefix) {
  const size_t length = std::strlen(prefix);
  return text.size() - at >= length && std::memcmp(text.data() + at, prefix, length) == 0;
}

bool SkimmableText(const std::string& text) {
  if (std::memchr(text.data(), '\0', text.size()) != nullptr) return false;
  size_t at = 0;
  for (;;) {
    at = text.find('<', at);
    if (at == std::string::npos) return true;  // no element at all: the parser will refuse the file
    if (StartsAt(text, at, "<!--")) {
      at = text.find("-->", at + 4);
    } else if (StartsAt(text, at, "<?xml")) {
      const std::string declaration = text.substr(at, text.find("?>", at) - at);
      const size_t encoding = declaration.find("encoding");
      if (encoding != std::string::npos) {
        const size_t quote = declaration.find_first_of("\"'", encoding);
        if (quote == std::string::npos || strncasecmp(declaration.c_str() + quote + 1, "utf-8", 5) != 0 ||
            declaration.size() <= quote + 6 || declaration[quote + 6] != declaration[quote]) {
          return false;
        }
      }
      at = text.find("?>", at);
    } else if (StartsAt(text, at, "<?")) {
      at = text.find("?>", at);
    } else {
      return !StartsAt(text, at, "<!");
    }
    if (at == std::string::npos) return true;
    ++at;
  }
}

// References and the characters that attribute normalisation rewrites: only the parser knows the value.
bool NeedsParser(const char* begin, const char* end) {
  for (const char* c = begin; c < end; ++c) {
    if (*c == '&' || *c == '\t' || *c == '\n' || *c == '\r') return true;
  }
  return false;
}

}  // namespace

// Finds the value of every ` appid = "value"` in the raw text, wherever it stands: values found in
// comments or in other elements only cost a parse that finds nothing.
void ManifestEntry::Skim() {
  skimmed_ = true;
  std::string text;
  if (!ReadRaw(path_, text) || !SkimmableText(text)) {
    opaque_ = true;
    return;
  }
  // Anchored on the name's last letter, which is rarer in manifests than its first.
  static const char kName[] = "appid";
  const size_t nameLength = sizeof kName - 1;
  const char* const begin = text.data();
  const char* const end = begin + text.size();
  for (const char* last = begin + nameLength - 1; last < end; ++last) {
    last = static_cast<const char*>(std::memchr(last, 'd', static_cast<size_t>(end - last)));
    if (last == nullptr) return;
    const char* at = last - (nameLength - 1);
    if (std::memcmp(at, kName, nameLength) != 0) continue;
    if (at == begin || !IsSpace(at[-1])) continue;
    const char* pos = last + 1;
    while (pos < end && IsSpace(*pos)) ++pos;
    if (pos == end || *pos != '=') continue;
    for (++pos; pos < end && IsSpace(*pos);) ++pos;
    if (pos == end || (*pos != '"' && *pos != '\'')) continue;
    const char* close = static_cast<const char*>(std::memchr(pos + 1, *pos, static_cast<size_t>(end - pos - 1)));
    if (close == nullptr) continue;
    if (NeedsParser(pos + 1, close)) {
      opaque_ = true;
      return;
    }
    appids_.emplace_back(pos + 1, close);
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
