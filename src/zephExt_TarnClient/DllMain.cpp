#include "DebugLog.h"

#include <windows.h>

// Every record of the plug-in carries its name; threads that attach later
// set it again, as the host may load the plug-in before starting them.
BOOL WINAPI DllMain(HINSTANCE /*instance*/, DWORD reason, LPVOID /*reserved*/) {
    if (reason == DLL_PROCESS_ATTACH || reason == DLL_THREAD_ATTACH)
        SetDebugLogModuleTag(L"zephExt_TarnClient");
    return TRUE;
}
