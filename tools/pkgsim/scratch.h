// Scratch space: temporary directories that go when their owner does, and scratch copies of a device on
// which the plug-in may do whatever it does without the device itself changing.
#ifndef PKGSIM_SCRATCH_H_
#define PKGSIM_SCRATCH_H_

#include <string>

#include "device.h"
#include "snapshot.h"

namespace pkgsim {

// A new directory under the system's temporary directory, removed with everything in it on destruction.
class TempDir {
 public:
  explicit TempDir(const std::string& stem);
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& Path() const { return path_; }
  // Keeps the directory: it outlives this object.
  void Release() { released_ = true; }

 private:
  std::string path_;
  bool released_ = false;
};

// Copies the device `from` to `to` (which must not exist): the plug-in's database pair and result file,
// the packages and manifests, the application service's state; not the log, which starts empty, so
// that it holds only what the plug-in says on the copy. A symbolic link that points into `from` is
// pointed into the copy, so nothing done on the copy reaches the device. FIFOs are made anew (a FIFO
// where a file belongs is a hazard the plug-in must survive, so the copy keeps it); other special
// files are left out.
void CopyDevice(const Device& from, const Device& to);

// The snapshot of a scratch copy as if taken on the device it copies: the records and the result file
// name paths on the copy, which are the device's paths to whoever reads them.
Snapshot Relocated(Snapshot snapshot, const Device& copy, const Device& device);

// Replaces every occurrence of `from` in `text` by `to`.
std::string ReplaceAll(std::string text, const std::string& from, const std::string& to);

}  // namespace pkgsim

#endif  // PKGSIM_SCRATCH_H_
