#include "zephExt_TarnClient.h"

#include "DebugLog.h"
#include "ResultCodes.h"
#include "UtilClientInfo.h"
#include "ZephIntegration.h"

#include <windows.h>

namespace {

constexpr uint32_t kPrerequisiteKind = 100;
const FileVersion kFallbackAgentVersion = {3, 0, 0, 1001};

// Logs the export's entry and binds to the host; false when the export must refuse.
bool EnterBoundExport(const char* exportName) {
    LOGA(LOG_INFO, "%s - >>> %s", exportName, exportName);
    return IsValidLoader();
}
void LogExit(const char* exportName) {
    LOGA(LOG_INFO, "%s - <<< %s", exportName, exportName);
}

// The update context lives on the process heap; null (logged) when there is none.
HANDLE ProcessHeap(const char* exportName) {
    HANDLE heap = GetProcessHeap();
    if (!heap)
        LOGA(LOG_ERROR, "%s - Unable to get process heap. err=%d", exportName,
             static_cast<int>(GetLastError()));
    return heap;
}

// The export is bound to the host but its work arrives with a later change.
uint32_t NotAvailableYet(const char* exportName, uint32_t failureCode) {
    LOGA(LOG_ERROR, "%s - Not available in this build.", exportName);
    return failureCode;
}

// An update export: entry line, host binding, then its (pending) work.
uint32_t PendingUpdateStage(const char* exportName) {
    if (!EnterBoundExport(exportName))
        return RESULT_GENERIC_FAILURE;
    return NotAvailableYet(exportName, RESULT_GENERIC_FAILURE);
}

} // namespace

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

uint32_t zephExt_CreateContext(void** context) {
    const char* self = "zephExt_CreateContext";
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

uint32_t zephExt_ReleaseContext(void* context) {
    const char* self = "zephExt_ReleaseContext";
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

uint32_t zephExt_PreUpdate(void* /*unused*/, void* /*context*/) {
    return PendingUpdateStage("zephExt_PreUpdate");
}

uint32_t zephExt_DoUpdate(const ZephUpdateInfo* /*info*/, void* /*context*/) {
    return PendingUpdateStage("zephExt_DoUpdate");
}

uint32_t zephExt_PostUpdate(void) {
    return PendingUpdateStage("zephExt_PostUpdate");
}

uint32_t zephExt_Rollback(void* /*unused*/, void* /*context*/) {
    return PendingUpdateStage("zephExt_Rollback");
}

} // extern "C"
