// The manifests of the sandbox device's package directories, read once per process and kept current.
//
// A look-up of an application must consider every manifest (the first one, in name order, that declares
// the id answers), and a device holds thousands. So each directory is listed once and watched with
// inotify; a manifest is skimmed once for the values of its appid attributes, and parsed with the
// manifest reader only when it may declare the id asked for (or when every manifest must be judged, to
// tell an absent application from one in a broken manifest). Whatever changes in a watched directory
// (files created, written, renamed, removed, their modes changed; the directory itself replaced) drops
// what was known of it before the next answer, also when the change comes from this very process between
// two calls. Entries that the directory's watch cannot vouch for (symbolic links and anything else that
// is not a regular file) are read afresh at every call; without inotify, everything is.
//
// Not covered: a regular file changed through a hard link in another directory.
#ifndef HOST_PKGMGR_INFO_MANIFEST_INDEX_H_
#define HOST_PKGMGR_INFO_MANIFEST_INDEX_H_

#include <sys/types.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "hostkit/manifest.h"

namespace host {

using hostkit::Manifest;
using hostkit::ManifestApp;
using hostkit::ReadManifest;

// One manifest file, named <package>.xml.
class ManifestEntry {
 public:
  ManifestEntry(std::string path, bool regular) : path_(std::move(path)), regular_(regular) {}

  // Whether the file vouches for its own changes through the directory's watch.
  bool regular() const { return regular_; }
  // Forgets what was read, for an entry that must be read afresh.
  void Reset() { *this = ManifestEntry(std::move(path_), regular_); }
  // Whether the file may declare an application `appid` (false only when it certainly does not).
  bool MayDeclare(const std::string& appid);
  // The parsed manifest, or null when the file is broken (missing, unreadable, malformed); the reason is
  // reported on standard error when the file is read.
  const Manifest* Parsed();

 private:
  enum class State { kUnread, kParsed, kBroken };
  void Skim();

  std::string path_;
  bool regular_;
  bool skimmed_ = false;
  bool opaque_ = false;              // the skim cannot be trusted: the file must be parsed to know
  std::vector<std::string> appids_;  // values of every appid attribute the skim found
  State state_ = State::kUnread;
  Manifest manifest_;
};

// Package id to manifest, in package-id order.
using ManifestDirectory = std::map<std::string, ManifestEntry>;

class ManifestIndex {
 public:
  // The process's index; not thread-safe (the stand-in serialises its calls).
  static ManifestIndex& Instance();

  // The manifests in `dir` as they are now (empty when the directory does not exist).
  ManifestDirectory& Current(const std::string& dir);

 private:
  struct Watched {
    int watch = -1;  // inotify watch descriptor, -1 when unwatched
    dev_t device = 0;
    ino_t inode = 0;
    bool listed = false;
    bool volatileEntries = false;  // some entries are no regular files
    ManifestDirectory entries;
  };

  ManifestIndex() = default;
  void Restart();
  void Drain();
  static void List(const std::string& dir, Watched& watched);

  pid_t owner_ = -1;
  int notify_ = -1;
  std::map<std::string, Watched> dirs_;
};

}  // namespace host

#endif  // HOST_PKGMGR_INFO_MANIFEST_INDEX_H_
