#pragma once
// The plug-in's fourteen exports as the host framework calls them.
#include <stdint.h>
#include <wchar.h>

#pragma pack(push, 4)
typedef struct ZephPrerequisite {
    uint32_t reserved; /* left as the host set it */
    uint32_t kind;     /* always 100 */
    uint32_t major;
    uint32_t minor;
    uint32_t build; /* the fourth version number */
    uint8_t flag;   /* always 0 */
} ZephPrerequisite;
#pragma pack(pop)

typedef struct ZephUpdateInfo {
    wchar_t sourceDir[260];
    /* the host may append members; the plug-in reads only sourceDir */
} ZephUpdateInfo;

#ifdef __cplusplus
static_assert(sizeof(ZephPrerequisite) == 24, "the host shares this layout");
extern "C" {
#endif

uint32_t zephExt_Init(void);
uint32_t zephExt_Deinit(void);
uint32_t zephExt_GetPrerequest(ZephPrerequisite* record);
uint32_t zephExt_CreateContext(void** context);
uint32_t zephExt_ReleaseContext(void* context);
uint32_t zephExt_OnCommand(void* context, int32_t length, const char* request);
uint32_t zephExt_OnNotify(void* context, int32_t length, const char* request);
uint32_t zephExt_OnQueryData(void* context, int32_t length, const char* request,
                             uint32_t* responseLength, char** response);
uint32_t zephExt_Free(void* buffer);
uint32_t zephExt_PreUpdate(void* unused, void* context);
uint32_t zephExt_DoUpdate(const ZephUpdateInfo* info, void* context);
uint32_t zephExt_PostUpdate(void);
uint32_t zephExt_Rollback(void* unused, void* context);
uint32_t zephExt_ParseLog(const wchar_t* logFilePath, uint32_t typeBufferSize, wchar_t* typeBuffer,
                          char** data, uint32_t* dataSize);

#ifdef __cplusplus
}
#endif
