#pragma once
// The host's answer to a reboot request. Pure code (RapidJSON and the log
// call only) so that a native fuzz target can drive it too.
#include <cstdint>

enum class RebootAnswer {
    Accepted,    // "system_call_result"."system_call_error" is the integer 0
    NotJson,     // the answer does not parse
    NoErrorCode, // no integer error code where the host puts it
    Refused,     // an error code other than 0
};

// Judges `responseSize` bytes of `response` (null: an empty answer) and logs
// the verdict as the reboot request does.
RebootAnswer CheckRebootAnswer(const char* response, uint32_t responseSize);
