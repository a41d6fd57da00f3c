#include "ServiceControl.h"

#include "AnsiText.h"
#include "DebugLog.h"
#include "FileSystem.h"
#include "ScopedHandle.h"
#include "UtilCommon.h"
#include "ZephIntegration.h"

#include <algorithm>

const wchar_t kTarnServiceName[] = L"TarnAgent";

namespace {

const wchar_t kAgentExecutable[] = L"TarnAgent.exe";
// The agent lives beside the parent product's client folder.
const wchar_t kAgentFolderFromInstallPath[] = L"..\\iService\\Tarn";
constexpr DWORD kQueryAndControlAccess =
    SERVICE_QUERY_STATUS | SERVICE_START | SERVICE_STOP; // 0x2C

ScopedServiceHandle OpenServiceManager() {
    return ScopedServiceHandle(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
}

int32_t LastError() {
    return static_cast<int32_t>(GetLastError());
}

// The install and uninstall steps decide on the last error of the open, not
// on the handle; a successful open leaves any older error in place.
ScopedServiceHandle OpenTarnServiceForDecision(SC_HANDLE manager, DWORD& error) {
    SetLastError(0);
    ScopedServiceHandle service(OpenServiceW(manager, kTarnServiceName, SERVICE_ALL_ACCESS));
    error = GetLastError();
    return service;
}

bool AgentFolder(const wchar_t* self, std::wstring& folder) {
    std::wstring installPath;
    if (!GetCRVLInstallPath(installPath)) {
        LOGW(LOG_ERROR, L"%s - Unable to get CRVL install path.", self);
        return false;
    }
    folder = TarnAgentFolder(installPath);
    return true;
}

std::wstring FullPath(const wchar_t* self, const std::wstring& path) {
    wchar_t full[MAX_PATH] = {};
    DWORD length = GetFullPathNameW(path.c_str(), MAX_PATH, full, nullptr);
    if (length == 0 || length >= MAX_PATH) {
        LOGW(LOG_ERROR, L"%s - Failed to GetFullPathName: %d", self, LastError());
        return path;
    }
    return full;
}

// Removes the agent folder and what is in it; a removal that fails half-way
// is only noted, a failed one fails the uninstall.
int32_t DeleteAgentFolder(const wchar_t* self, const std::wstring& folder) {
    if (!FileSystem::Exists(folder)) // the throwing form: the export boundary catches
        return 0;
    std::error_code error;
    std::uintmax_t removed = FileSystem::RemoveAll(folder, error);
    if (removed == static_cast<std::uintmax_t>(-1)) {
        LOGA(LOG_ERROR, "%S - Failed to delete Tarn files & directory. Error: %s", self,
             error.message().c_str());
        return -1;
    }
    LOGW(LOG_DETAIL, L"%s - Deleted %d file(s).", self, static_cast<int>(removed));
    if (error)
        LOGA(LOG_DETAIL,
             "%S - Error happens during deleting Tarn files & directory. Error code: %d, "
             "message: %s",
             self, error.value(), error.message().c_str());
    return 0;
}

} // namespace

std::wstring TarnAgentFolder(const std::wstring& installPath) {
    return installPath + kAgentFolderFromInstallPath;
}

std::wstring TarnAgentExecutable(const std::wstring& folder) {
    return folder + L"\\" + kAgentExecutable;
}

DWORD StatusPollSleepMs(DWORD waitHint) {
    return std::min<DWORD>(std::max<DWORD>(waitHint / 10, 1000), 10000);
}

int32_t QueryTarnService(const wchar_t* self, TarnServiceQuery& query) {
    query.manager = OpenServiceManager();
    if (!query.manager) {
        int32_t error = LastError();
        LOGW(LOG_ERROR, L"%s - Unalbe to OpenSCManager: %d", self, error);
        return error;
    }
    query.service = ScopedServiceHandle(
        OpenServiceW(query.manager.Get(), kTarnServiceName, kQueryAndControlAccess));
    if (!query.service) {
        int32_t error = LastError();
        LOGW(LOG_ERROR, L"%s - Unalbe to OpenService(%s): %d", self, kTarnServiceName, error);
        return error;
    }
    if (!QueryTarnStatus(query.service.Get(), query.status)) {
        int32_t error = LastError();
        LOGW(LOG_ERROR,
             L"%s - Unalbe to QueryServiceStatusEx(SC_STATUS_PROCESS_INFO) during checking "
             L"current status (%d)",
             self, error);
        return error;
    }
    return 0;
}

bool QueryTarnStatus(SC_HANDLE service, SERVICE_STATUS_PROCESS& status) {
    DWORD needed = 0;
    return QueryServiceStatusEx(service, SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status),
                                sizeof(status), &needed) != FALSE;
}

int32_t UntilServiceStatusNotEqualTo(SC_HANDLE service, DWORD state,
                                     SERVICE_STATUS_PROCESS& status) {
    const wchar_t* self = L"UntilServiceStatusNotEqualTo";
    DWORD start = GetTickCount();
    DWORD lastCheckPoint = status.dwCheckPoint;
    if (status.dwCurrentState != state)
        return 0;
    for (;;) {
        if (!QueryTarnStatus(service, status)) {
            int32_t error = LastError();
            LOGW(LOG_ERROR,
                 L"%s - Failed to QueryServiceStatusEx(SC_STATUS_PROCESS_INFO) during checking "
                 L"State %d (START_PENDING=2, STOP_PENDING=3) [Error=%d]",
                 self, static_cast<int>(state), error);
            return error;
        }
        if (status.dwCurrentState != state)
            return 0;
        // No overall limit: a service that keeps advancing its check point is
        // waited for as long as it takes.
        if (status.dwCheckPoint > lastCheckPoint) {
            start = GetTickCount();
            lastCheckPoint = status.dwCheckPoint;
        } else if (GetTickCount() - start > status.dwWaitHint) {
            break;
        }
        Sleep(StatusPollSleepMs(status.dwWaitHint));
    }
    LOGW(LOG_ERROR,
         L"%s - Service still in %d(START_PENDING = 2, STOP_PENDING = 3), it's kinda too long. "
         L"Something may go wrong.",
         self, static_cast<int>(status.dwCurrentState));
    return -1;
}

int32_t IsTarnServiceStopped(bool& stopped) {
    const wchar_t* self = L"IsTarnServiceStopped";
    stopped = false;
    TarnServiceQuery query;
    int32_t error = QueryTarnService(self, query);
    if (error == ERROR_SERVICE_DOES_NOT_EXIST) { // an absent agent counts as stopped
        stopped = true;
        return 0;
    }
    if (error != 0)
        return error;
    SERVICE_STATUS_PROCESS& status = query.status;
    if (status.dwCurrentState != SERVICE_STOPPED && status.dwCurrentState != SERVICE_STOP_PENDING) {
        LOGW(LOG_INFO, L"%s - Service is not stopped or stop pending.", self);
        return 0;
    }
    LOGW(LOG_WARNING, L"%s - Service is already stopped or stop pending. Will wait for pending.",
         self);
    stopped = true;
    int32_t result =
        UntilServiceStatusNotEqualTo(query.service.Get(), SERVICE_STOP_PENDING, status);
    if (result != 0)
        LOGW(LOG_ERROR, L"%s - UntilServiceStatusNotEqualTo(SERVICE_STOP_PENDING) failed. nRet=%d",
             self, result);
    return result;
}

int32_t StartTarn() {
    const wchar_t* self = L"StartTarn";
    ScopedServiceHandle manager = OpenServiceManager();
    if (!manager) {
        int32_t error = LastError();
        LOGW(LOG_ERROR, L"%s - Failed to OpenSCManager: %d", self, error);
        return error;
    }
    ScopedServiceHandle service(OpenServiceW(manager.Get(), kTarnServiceName, SERVICE_ALL_ACCESS));
    if (!service) {
        int32_t error = LastError();
        LOGW(LOG_ERROR, L"%s - OpenService(%s) failed (%d)", self, kTarnServiceName, error);
        return error;
    }
    SERVICE_STATUS_PROCESS status = {};
    if (!QueryTarnStatus(service.Get(), status)) {
        int32_t error = LastError();
        LOGW(LOG_ERROR,
             L"%s - Unable to QueryServiceStatusEx(SC_STATUS_PROCESS_INFO) during checking "
             L"current status (%d)",
             self, error);
        return error;
    }
    // A service that is starting counts as running: it is not waited for.
    if (status.dwCurrentState != SERVICE_STOPPED && status.dwCurrentState != SERVICE_STOP_PENDING) {
        LOGW(LOG_WARNING,
             L"%s - The service is alreay running. Skip further steps. Current state: %d", self,
             static_cast<int>(status.dwCurrentState));
        return 0;
    }
    if (UntilServiceStatusNotEqualTo(service.Get(), SERVICE_STOP_PENDING, status) != 0)
        LOGW(LOG_WARNING,
             L"%s - Cannot wait until service is not stop pending. Still continue to try start "
             L"service.",
             self);
    if (!StartServiceW(service.Get(), 0, nullptr)) {
        int32_t error = LastError();
        LOGW(LOG_ERROR, L"%s - Unalbe to StartService()(%d)", self, error);
        return error;
    }
    LOGW(LOG_DETAIL, L"%s - Service is starting...", self);
    if (UntilServiceStatusNotEqualTo(service.Get(), SERVICE_STOPPED, status) != 0)
        LOGW(LOG_WARNING,
             L"%s - Cannot wait until service is not stopped. Still continue to check other "
             L"status.",
             self);
    if (UntilServiceStatusNotEqualTo(service.Get(), SERVICE_START_PENDING, status) != 0)
        LOGW(LOG_WARNING,
             L"%s - Cannot wait until service is not start pending. Still continue to check "
             L"other status.",
             self);
    if (status.dwCurrentState == SERVICE_RUNNING) {
        LOGW(LOG_DETAIL, L"%s - Service started successfully.", self);
        return 0;
    }
    LOGW(LOG_ERROR,
         L"%s - Service not started.Current State : [%d], Exit Code : [%d], Check Point : [%d], "
         L"Wait Hint : [%d]",
         self, static_cast<int>(status.dwCurrentState), static_cast<int>(status.dwWin32ExitCode),
         static_cast<int>(status.dwCheckPoint), static_cast<int>(status.dwWaitHint));
    // A service that stopped with exit code 0 counts as started.
    return static_cast<int32_t>(status.dwWin32ExitCode);
}

// By value, as the command handler's interface takes it.
int32_t InstallTarn(std::string archivePath) { // NOLINT(performance-unnecessary-value-param)
    const wchar_t* self = L"InstallTarn";
    std::wstring folder;
    if (!AgentFolder(self, folder))
        return -1;
    std::wstring archive = AnsiToWide(archivePath.c_str());
    folder = FullPath(self, folder);
    LOGW(LOG_DETAIL, L"%s - Install Tarn to %s", self, folder.c_str());

    ScopedServiceHandle manager = OpenServiceManager();
    if (!manager) {
        int32_t error = LastError();
        LOGW(LOG_ERROR, L"%s - Failed to OpenSCManager: %d", self, error);
        return error;
    }
    DWORD openError = 0;
    ScopedServiceHandle service = OpenTarnServiceForDecision(manager.Get(), openError);
    if (openError == 0) {
        LOGW(LOG_DETAIL, L"%s - Tarn Agent is already installed.", self);
        return 0;
    }
    if (openError != ERROR_SERVICE_DOES_NOT_EXIST) {
        LOGW(LOG_ERROR, L"%s - Unexpected service return code. (%d)", self,
             static_cast<int>(openError));
        return static_cast<int32_t>(openError);
    }
    LOGW(LOG_DETAIL, L"%s - Tarn Agent service not exist. Will install...", self);

    if (!DecompressFile(archive.c_str(), folder.c_str())) {
        LOGW(LOG_ERROR, L"%s - Extract zip(%S) file by failed.", self, archivePath.c_str());
        return -1;
    }
    uint32_t exitCode = 0;
    if (LaunchCmd(TarnAgentExecutable(folder).c_str(), L"-install", nullptr, &exitCode))
        return 0;
    int32_t code = static_cast<int32_t>(exitCode);
    if (code == kTarnInstalledRebootRequired) {
        LOGW(LOG_WARNING, L"%s - Successfully installed agent, but require a reboot.", self);
        return kTarnInstalledRebootRequired;
    }
    if (code != 0) {
        LOGW(LOG_ERROR, L"%s - Unable to complete install command. ret=%d", self, code);
        return code;
    }
    LOGW(LOG_ERROR, L"%s - Unable to launch install command.", self);
    return -1;
}

int32_t UninstallTarn() {
    const wchar_t* self = L"UninstallTarn";
    std::wstring folder;
    if (!AgentFolder(self, folder))
        return -1;
    ScopedServiceHandle manager = OpenServiceManager();
    if (!manager) {
        int32_t error = LastError();
        LOGW(LOG_ERROR, L"%s - Failed to OpenSCManager: %d", self, error);
        return error;
    }
    DWORD openError = 0;
    ScopedServiceHandle service = OpenTarnServiceForDecision(manager.Get(), openError);
    if (openError == ERROR_SERVICE_DOES_NOT_EXIST) {
        LOGW(LOG_DETAIL, L"%s - Tarn Agent service not exists.", self);
        return DeleteAgentFolder(self, folder);
    }
    if (openError != 0) {
        LOGW(LOG_ERROR, L"%s - Unexpected service return code. (%d)", self,
             static_cast<int>(openError));
        return static_cast<int32_t>(openError);
    }
    LOGW(LOG_DETAIL, L"%s - Tarn Agent service exists. Uninstall...", self);
    uint32_t exitCode = 0;
    if (!LaunchCmd(TarnAgentExecutable(folder).c_str(), L"-delete", nullptr, &exitCode)) {
        if (exitCode != 0)
            LOGW(LOG_ERROR, L"%s - Unable to complete uninstall command. ret=%d", self,
                 static_cast<int>(exitCode));
        else
            LOGW(LOG_ERROR, L"%s - Unable to launch uninstall command.", self);
        return -1;
    }
    return DeleteAgentFolder(self, folder);
}
