#include "QvNotifyDLL.h"

#include "AnsiText.h"
#include "CrvDigitalSignatureManagerEx.h"
#include "DebugLog.h"
#include "IssuerCheck.h"
#include "ResolveProc.h"

#include <string>

namespace {

// The forwarding operations log at this raw level value, not a letter.
constexpr int kForwardLogLevel = 5;

const char kLibraryName[] = "qvnotify.dll";

// The running executable's folder with its trailing backslash; empty when the
// system cannot name the executable.
std::string ExecutableFolder() {
    char path[MAX_PATH] = {};
    DWORD length = GetModuleFileNameA(nullptr, path, MAX_PATH);
    if (length == 0 || length >= MAX_PATH)
        return {};
    std::string folder(path, length);
    return folder.substr(0, folder.find_last_of('\\') + 1);
}

// The printed form of a handle: the log shows its low 32 bits.
unsigned HandleBits(const void* handle) {
    return static_cast<unsigned>(reinterpret_cast<uintptr_t>(handle));
}

} // namespace

CQvNotifyDLL::~CQvNotifyDLL() {
    Unload();
}

int CQvNotifyDLL::Init(const char* directory) {
    const char function[] = "CQvNotifyDLL::Init";
    if (m_initAttempted)
        return 1;
    m_initAttempted = true;

    std::string folder = directory ? directory : ExecutableFolder();
    if (folder.empty()) {
        LOGA(LOG_ERROR, "%s - failed to call GetModuleName()", function);
        return 0;
    }
    if (folder.back() != '\\' && folder.back() != '/')
        folder += '\\';
    std::wstring path = AnsiToWide((folder + kLibraryName).c_str());

    // A library that fails its signature test is not even offered to the
    // loader, whose refusal would ask this reporter to report it.
    DWORD signatureError = 0;
    if (!VerifyFileDigitalSignature(path.c_str(), SIGNER_FLAG_MAKER, signatureError)) {
        LOGA(LOG_ERROR,
             "%s - CQvNotifyDLL:CQvNotifyDLL() Verify DigitalSignature Failed(qvnotify.dll) "
             "error = 0x%x",
             function, static_cast<unsigned>(signatureError));
        SetLastError(signatureError);
    } else {
        m_module.Reset(LoadLibraryWithIssuerCheckW(L"" ZEPH_EXPECTED_ISSUER, path.c_str()));
    }
    if (!m_module) {
        LOGA(LOG_ERROR, "%s - CQvNotifyDLL::CQvNotifyDLL() LoadLibrary(qvnotify.dll) error = %d",
             function, static_cast<int>(GetLastError()));
        return 0;
    }
    if (!ResolveExports()) {
        LOGA(LOG_ERROR, "%s - CQvNotifyDLL::CQvNotifyDLL() GetProcAddress error = %d", function,
             static_cast<int>(GetLastError()));
        Unload();
        return 0;
    }
    return 1;
}

bool CQvNotifyDLL::ResolveExports() {
    m_initDefaultEventSource =
        ResolveProc<InitDefaultEventSourceFn>(m_module.Get(), "InitDefaultEventSource");
    m_reportEventLog = ResolveProc<ReportEventLogFn>(m_module.Get(), "ReportEventLog");
    m_openEventSource = ResolveProc<OpenEventSourceFn>(m_module.Get(), "OpenEventSource");
    m_closeEventSource = ResolveProc<CloseEventSourceFn>(m_module.Get(), "CloseEventSource");
    m_reportEventLogEx = ResolveProc<ReportEventLogExFn>(m_module.Get(), "ReportEventLogEx");
    return m_initDefaultEventSource && m_reportEventLog && m_openEventSource &&
           m_closeEventSource && m_reportEventLogEx;
}

void CQvNotifyDLL::Unload() {
    m_module.Reset();
    m_initDefaultEventSource = nullptr;
    m_reportEventLog = nullptr;
    m_openEventSource = nullptr;
    m_closeEventSource = nullptr;
    m_reportEventLogEx = nullptr;
}

int CQvNotifyDLL::InitDefaultEventSource(const char* sourceName, int flag) {
    LOGA(kForwardLogLevel, "CQvNotifyDLL::InitDefaultEventSource(%s)", sourceName);
    int result =
        m_initDefaultEventSource ? m_initDefaultEventSource(sourceName, flag) : kExportMissing;
    LOGA(kForwardLogLevel, "CQvNotifyDLL::InitDefaultEventSource(%s) return %d", sourceName,
         result);
    return result;
}

int CQvNotifyDLL::OpenEventSource(const char* server, const char* sourceName, HANDLE* source) {
    const char* shownServer = server ? server : "NULL";
    LOGA(kForwardLogLevel, "CQvNotifyDLL::OpenEventSource(%s, %s, %X)", shownServer, sourceName,
         HandleBits(source));
    int result = m_openEventSource ? m_openEventSource(server, sourceName, source) : kExportMissing;
    LOGA(kForwardLogLevel, "CQvNotifyDLL::OpenEventSource(%s, %s, %X) return %d", shownServer,
         sourceName, HandleBits(source), result);
    return result;
}

int CQvNotifyDLL::ReportEventLogEx(HANDLE source, int type, int category, uint32_t eventId,
                                   const char* message) {
    int shownSource = static_cast<int>(HandleBits(source));
    int shownEventId = static_cast<int>(eventId);
    LOGA(kForwardLogLevel, "CQvNotifyDLL::ReportEventLogEx(%d, %d, %d, %d, %s)", shownSource, type,
         category, shownEventId, message);
    int result = m_reportEventLogEx
                     ? m_reportEventLogEx(source, type, category, eventId, message, 0)
                     : kExportMissing;
    LOGA(kForwardLogLevel, "CQvNotifyDLL::ReportEventLogEx(%d, %d, %d, %d, %s) return %d",
         shownSource, type, category, shownEventId, message, result);
    return result;
}

int CQvNotifyDLL::CloseEventSource(HANDLE source) {
    int shownSource = static_cast<int>(HandleBits(source));
    LOGA(kForwardLogLevel, "CQvNotifyDLL::CloseEventSource(%d)", shownSource);
    int result = m_closeEventSource ? m_closeEventSource(source) : kExportMissing;
    // The close operation's second line carries the open operation's name.
    LOGA(kForwardLogLevel, "CQvNotifyDLL::OpenEventSource(%d) return %d", shownSource, result);
    return result;
}
