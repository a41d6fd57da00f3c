#include "RequestEnvelope.h"
#include "RequestHandlers.h"
#include "RequestValidation.h"
#include "ResultCodes.h"
#include "zephExt_TarnClient.h"

// Service, installation and policy commands are carried out by a later
// change; until then every valid command reports that it failed.
uint32_t HandleCommand(const rapidjson::Value& /*request*/) {
    return RESULT_FAILED;
}

extern "C" uint32_t zephExt_OnCommand(void* /*context*/, int32_t length, const char* request) {
    static const RequestKind kCommand = {"zephExt_OnCommand", "%s - Invalid OnCommand request: %s",
                                         IsValidOnCommandRequest, HandleCommand};
    return RunRequest(kCommand, length, request);
}
