// The management server's answer file: the parse and the verdict on it.
#include "JsonRequest.h"
#include "ServerAnswer.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 0x7FFFFFFF)
        return 0;
    JsonRequest answer;
    if (!answer.Parse(static_cast<int32_t>(size), reinterpret_cast<const char*>(data)))
        return 0;
    ServerAnswer verdict = CheckServerAnswer(answer.Document());
    // Success only for the exact shape the server uses.
    if (verdict == ServerAnswer::Success) {
        const JsonValue* value = FindMember(answer.Document(), "value");
        if (!value || !value->IsInt() || value->GetInt() != 0 ||
            !IsStringEqual(FindMember(answer.Document(), "name"), "errorCode"))
            std::abort();
    }
    return 0;
}
