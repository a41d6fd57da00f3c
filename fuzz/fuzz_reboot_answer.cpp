// The host's answer to a reboot request.
#include "RebootAnswer.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 0xFFFFFFFF)
        return 0;
    const char* text = reinterpret_cast<const char*>(data);
    RebootAnswer verdict = CheckRebootAnswer(text, static_cast<uint32_t>(size));
    // An accepted answer always names the error code 0 somewhere in it.
    if (verdict == RebootAnswer::Accepted &&
        std::string(text, size).find("system_call_error") == std::string::npos)
        std::abort();
    // A null answer is an empty one.
    if (size == 0 && CheckRebootAnswer(nullptr, 0) != verdict)
        std::abort();
    return 0;
}
