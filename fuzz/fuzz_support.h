// What every fuzz target shares: a sandbox device of its own process, laid out and exported before the
// product builds its constants from the platform path service, and a platform log that counts lines.
//
// Sandboxes lie under $WUP_FUZZ_TMP (fuzz/run.sh points it at a directory it removes afterwards), else
// under /dev/shm, so that parallel workers never share a device and files cost no disk I/O.
#ifndef WUP_FUZZ_FUZZ_SUPPORT_H_
#define WUP_FUZZ_FUZZ_SUPPORT_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "hostkit/files.h"
#include "hostkit/layout.h"

namespace wup_fuzz {

// The sandbox device of this process; its directories exist.
const hostkit::Layout& Device();

// Lines logged with exactly this message (the format without its "%s: %s(%d) > " prefix) since the last
// ResetLog.
int LoggedLines(const std::string& message);
void ResetLog();

// Reports a broken property and aborts, so that libFuzzer keeps the input as a crash.
[[noreturn]] void Fail(const std::string& what);

}  // namespace wup_fuzz

#endif  // WUP_FUZZ_FUZZ_SUPPORT_H_
