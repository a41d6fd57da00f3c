#include "zephExt_TarnClient.h"

#include "DebugLog.h"
#include "ExportBoundary.h"
#include "ResultCodes.h"
#include "UtilClientInfo.h"
#include "ZephIntegration.h"

#include <windows.h>

namespace {

constexpr uint32_t kPrerequisiteKind = 100;
const FileVersion kFallbackAgentVersion = {3, 0, 0, 1001};

// The update context lives on the process heap; null (logged) when there is none.
HANDLE ProcessHeap(const char* exportName) {
    HANDLE heap = GetProcessHeap();
    if (!heap)
        LOGA(LOG_ERROR, "%s - Unable to get process heap. err=%d", exportName,
             static_cast<int>(GetLastError()));
    return heap;
}

uint32_t GetPrerequisite(const char* self, ZephPrerequisite* record) {
    if (!EnterBoundExport(self))
        return RESULT_GENERIC_FAILURE;
    if (!record) {
        LOGA(LOG_ERROR, "%s - Invalid prerequisite record.", self);
        return RESULT_GENERIC_FAILURE;
    }
    record->kind = kPrerequisiteKind;
    record->flag = 0;
    FileVersion version;
    if (!GetAgentVersion(version)) {
        LOGA(LOG_ERROR, "%s - Unalbe to get agent version.", self);
        version = kFallbackAgentVersion;
    }
    record->major = version.major;
    record->minor = version.minor;
    record->build = version.build;
    LogExit(self);
    return RESULT_SUCCESS;
}

uint32_t CreateContext(const char* self, void** context) {
    if (!EnterBoundExport(self))
        return RESULT_GENERIC_FAILURE;
    HANDLE heap = ProcessHeap(self);
    if (!heap)
        return RESULT_GENERIC_FAILURE;
    if (!context) {
        LOGA(LOG_ERROR, "%s - Invalid context pointer.", self);
        return RESULT_GENERIC_FAILURE;
    }
    // The update step counter: one zeroed 32-bit value.
    void* block = HeapAlloc(heap, HEAP_ZERO_MEMORY, sizeof(int32_t));
    if (!block) {
        LOGA(LOG_ERROR, "%s - Unable to alloc memory from heap.", self);
        return RESULT_GENERIC_FAILURE;
    }
    *context = block;
    LogExit(self);
    return RESULT_SUCCESS;
}

uint32_t ReleaseContext(const char* self, void* context) {
    if (!EnterBoundExport(self))
        return RESULT_GENERIC_FAILURE;
    HANDLE heap = ProcessHeap(self);
    if (!heap)
        return RESULT_GENERIC_FAILURE;
    if (!HeapFree(heap, 0, context)) {
        LOGA(LOG_ERROR, "%s - Unable to free memory to process heap. err=%d", self,
             static_cast<int>(GetLastError()));
        return RESULT_GENERIC_FAILURE;
    }
    LogExit(self);
    return RESULT_SUCCESS;
}

} // namespace

bool EnterBoundExport(const char* exportName) {
    LOGA(LOG_INFO, "%s - >>> %s", exportName, exportName);
    return IsValidLoader();
}

void LogExit(const char* exportName) {
    LOGA(LOG_INFO, "%s - <<< %s", exportName, exportName);
}

void LogEscaped(const char* exportName, const char* what) noexcept {
    try {
        LOGA(LOG_ERROR, "%s - Unexpected exception: %s", exportName, what);
    } catch (...) { // the log itself may run out of memory
    }
}

extern "C" {

// Init and Deinit share one body: the plug-in needs no set-up or tear-down.
uint32_t zephExt_Init(void) {
    return RESULT_SUCCESS;
}
uint32_t zephExt_Deinit(void) {
    return RESULT_SUCCESS;
}

uint32_t zephExt_GetPrerequest(ZephPrerequisite* record) {
    const char* self = "zephExt_GetPrerequest";
    return Shielded(self, RESULT_GENERIC_FAILURE, [&] { return GetPrerequisite(self, record); });
}

uint32_t zephExt_CreateContext(void** context) {
    const char* self = "zephExt_CreateContext";
    return Shielded(self, RESULT_GENERIC_FAILURE, [&] { return CreateContext(self, context); });
}

uint32_t zephExt_ReleaseContext(void* context) {
    const char* self = "zephExt_ReleaseContext";
    return Shielded(self, RESULT_GENERIC_FAILURE, [&] { return ReleaseContext(self, context); });
}

} // extern "C"
