// One host request text through the parse and the three request validators.
#include "JsonRequest.h"
#include "RequestValidation.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 0x7FFFFFFF)
        return 0;
    JsonRequest request;
    if (!request.Parse(static_cast<int32_t>(size), reinterpret_cast<const char*>(data)))
        return 0;
    IsValidOnCommandRequest(request.Document());
    IsValidOnNotifyRequest(request.Document());
    IsValidOnQueryRequest(request.Document());
    return 0;
}
