#include "RequestEnvelope.h"

#include "DebugLog.h"
#include "ExportBoundary.h"
#include "JsonRequest.h"
#include "ResultCodes.h"
#include "ZephIntegration.h"

#include <exception>

namespace {

uint32_t Run(const RequestKind& kind, int32_t length, const char* request) {
    LOGA(LOG_INFO, "%s - >>> %s", kind.exportName, kind.exportName);
    if (!IsValidLoader())
        return RESULT_NO_HOST;
    std::string text = RequestText(length, request);
    LOGA(LOG_DETAIL, "%s - Request: %s", kind.exportName, text.c_str());

    JsonRequest parsed;
    if (!parsed.Parse(length, request)) {
        LOGA(LOG_ERROR, "%s - rapidjson - parsing error: %d", kind.exportName,
             parsed.ParseErrorCode());
        return RESULT_INVALID_REQUEST;
    }
    if (!kind.isValid(parsed.Document())) {
        LOGA(LOG_ERROR, kind.invalidFormat, kind.exportName, text.c_str());
        return RESULT_INVALID_REQUEST;
    }
    uint32_t result = RESULT_FAILED;
    try {
        result = kind.handle(parsed.Document());
    } catch (const std::exception& error) { // a file-system error of the uninstall, say
        LOGA(LOG_ERROR, "%s - Unexpected exception: %s", kind.exportName, error.what());
    }
    LOGA(LOG_INFO, "%s - <<< %s", kind.exportName, kind.exportName);
    return result;
}

} // namespace

uint32_t RunRequest(const RequestKind& kind, int32_t length, const char* request) {
    return Shielded(kind.exportName, RESULT_FAILED, [&] { return Run(kind, length, request); });
}
