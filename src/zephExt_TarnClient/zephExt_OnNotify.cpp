#include "RequestEnvelope.h"
#include "RequestHandlers.h"
#include "RequestValidation.h"
#include "ResultCodes.h"
#include "zephExt_TarnClient.h"

// Self-protection and server-move notices are forwarded by a later change;
// until then every valid notification reports that it failed.
uint32_t HandleNotify(const rapidjson::Value& /*request*/) {
    return RESULT_FAILED;
}

extern "C" uint32_t zephExt_OnNotify(void* /*context*/, int32_t length, const char* request) {
    static const RequestKind kNotify = {"zephExt_OnNotify", "%s - Invalid OnNotify request",
                                        IsValidOnNotifyRequest, HandleNotify};
    return RunRequest(kNotify, length, request);
}
