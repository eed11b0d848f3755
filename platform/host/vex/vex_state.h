// State of the host application service, shared by its two libraries. The contract (files and
// environment variables) is described in vex_state.cpp.
#ifndef HOST_VEX_STATE_H_
#define HOST_VEX_STATE_H_

#include <string>

namespace host_vex {

// True when HOST_VEX_FAIL names `token` (a function name or "null_foreground").
bool FailureForced(const char* token);

// Id of the application in the foreground; empty when there is none.
std::string ForegroundAppId();

// Appends `appId` to the termination record. False when a sandbox is set but cannot be written.
bool RecordTermination(const std::string& appId);

}  // namespace host_vex

#endif  // HOST_VEX_STATE_H_
