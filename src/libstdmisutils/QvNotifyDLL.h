#pragma once
// The maker's event-notification library "qvnotify.dll", through which the
// plug-in writes entries to the Windows event log. Loaded only when it is
// signed by the expected issuer.
#include "ScopedHandle.h"

#include <windows.h>

#include <cstdint>

class CQvNotifyDLL {
  public:
    // What an operation answers when its export was not resolved.
    static constexpr int kExportMissing = -2;

    CQvNotifyDLL() = default;
    ~CQvNotifyDLL();
    CQvNotifyDLL(const CQvNotifyDLL&) = delete;
    CQvNotifyDLL& operator=(const CQvNotifyDLL&) = delete;

    // 1 when the library is loaded from `directory` (default: the running
    // executable's folder) with all five exports. Only the first call acts;
    // later calls answer 1 whatever the first achieved.
    int Init(const char* directory);

    int InitDefaultEventSource(const char* sourceName, int flag);
    int OpenEventSource(const char* server, const char* sourceName, HANDLE* source);
    int ReportEventLogEx(HANDLE source, int type, int category, uint32_t eventId,
                         const char* message);
    int CloseEventSource(HANDLE source);

  private:
    using InitDefaultEventSourceFn = int (*)(const char*, int);
    using ReportEventLogFn = int (*)(HANDLE, int, int, uint32_t, const char*);
    using OpenEventSourceFn = int (*)(const char*, const char*, HANDLE*);
    using CloseEventSourceFn = int (*)(HANDLE);
    using ReportEventLogExFn = int (*)(HANDLE, int, int, uint32_t, const char*, int);

    bool ResolveExports();
    void Unload();

    ScopedModule m_module;
    InitDefaultEventSourceFn m_initDefaultEventSource = nullptr;
    ReportEventLogFn m_reportEventLog = nullptr;
    OpenEventSourceFn m_openEventSource = nullptr;
    CloseEventSourceFn m_closeEventSource = nullptr;
    ReportEventLogExFn m_reportEventLogEx = nullptr;
    bool m_initAttempted = false;
};
