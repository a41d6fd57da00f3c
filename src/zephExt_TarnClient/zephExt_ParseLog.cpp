#include "zephExt_TarnClient.h"

#include "DebugLog.h"
#include "ResultCodes.h"
#include "ZephIntegration.h"

// The detection log is read and checked by a later change.
extern "C" uint32_t zephExt_ParseLog(const wchar_t* /*logFilePath*/, uint32_t /*typeBufferSize*/,
                                     wchar_t* /*typeBuffer*/, char** /*data*/,
                                     uint32_t* /*dataSize*/) {
    if (!IsValidLoader())
        return RESULT_PARSELOG_FAILED;
    LOGA(LOG_ERROR, "%s - Not available in this build.", "zephExt_ParseLog");
    return RESULT_PARSELOG_FAILED;
}
