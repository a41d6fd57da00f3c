#include "UtilClientInfo.h"

#include "DebugLog.h"
#include "ScopedHandle.h"
#include "ServiceControl.h"
#include "ZephIntegration.h"

#include <cstdio>
#include <vector>

std::wstring ClientFile(const std::wstring& folder, const wchar_t* fileName) {
    if (folder.empty() || folder.back() == L'\\')
        return folder + fileName;
    return folder + L"\\" + fileName;
}

bool GetFileVersion(const std::wstring& filePath, FileVersion& version) {
    const wchar_t* self = L"GetFileVersion";
    DWORD ignored = 0;
    DWORD size = GetFileVersionInfoSizeW(filePath.c_str(), &ignored);
    if (size == 0)
        return false;
    std::vector<BYTE> info(size);
    if (!GetFileVersionInfoW(filePath.c_str(), 0, size, info.data())) {
        LOGW(LOG_ERROR, L"%s - Fail to GetFileVersionInfo, error=%d\n", self,
             static_cast<int>(GetLastError()));
        return false;
    }
    VS_FIXEDFILEINFO* fixed = nullptr;
    UINT length = 0;
    if (!VerQueryValueW(info.data(), L"\\", reinterpret_cast<void**>(&fixed), &length)) {
        LOGW(LOG_ERROR, L"%s - Fail to VerQueryValue, error=%d\n", self,
             static_cast<int>(GetLastError()));
        return false;
    }
    if (length == 0 || !fixed) {
        LOGW(LOG_ERROR, L"%s - File info is empty.\n", self);
        return false;
    }
    // The product version, not the file version: that is what the agent's
    // versions are reported as everywhere.
    version.major = HIWORD(fixed->dwProductVersionMS);
    version.minor = LOWORD(fixed->dwProductVersionMS);
    version.third = HIWORD(fixed->dwProductVersionLS);
    version.build = LOWORD(fixed->dwProductVersionLS);
    return true;
}

bool GetClientServiceStatus(uint32_t& state) {
    const wchar_t* self = L"GetClientServiceStatus";
    ScopedServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
    if (!manager) {
        LOGW(LOG_ERROR, L"%s - Failed to OpenSCManager: %d\n", self,
             static_cast<int>(GetLastError()));
        return false;
    }
    ScopedServiceHandle service(OpenServiceW(manager.Get(), kTarnServiceName, SERVICE_ALL_ACCESS));
    if (!service) {
        LOGW(LOG_ERROR, L"%s - OpenService(%s) failed (%d)\n", self, kTarnServiceName,
             static_cast<int>(GetLastError()));
        return false;
    }
    SERVICE_STATUS_PROCESS status = {};
    if (!QueryTarnStatus(service.Get(), status)) {
        LOGW(LOG_ERROR,
             L"%s - Failed to QueryServiceStatusEx(SC_STATUS_PROCESS_INFO) during checking "
             L"current status (%d)\n",
             self, static_cast<int>(GetLastError()));
        return false;
    }
    state = status.dwCurrentState;
    return true;
}

bool GetClientPath(std::wstring& clientPath) {
    std::wstring installPath;
    if (!GetCRVLInstallPath(installPath)) {
        LOGA(LOG_ERROR, "%s - Unable to get CRVL install path.", "GetClientPath");
        return false;
    }
    // "C:\A\B\" -> "C:\A\" -> "C:\A\iService\Tarn"
    if (!installPath.empty())
        installPath.pop_back();
    size_t lastSlash = installPath.rfind(L'\\');
    installPath.resize(lastSlash == std::wstring::npos ? 0 : lastSlash + 1);
    clientPath = installPath + L"iService\\Tarn";
    return true;
}

bool GetAgentVersion(FileVersion& version) {
    std::wstring clientPath;
    return GetClientPath(clientPath) &&
           GetFileVersion(clientPath + L"\\" + L"TarnAgent" + L".exe", version);
}

std::string VersionText(const FileVersion& version, bool withThird) {
    // Room for four parts of any size: 16-bit parts alone need 24 bytes.
    char text[48];
    if (withThird)
        (void)snprintf(text, sizeof(text), "%d.%d.%d.%d", static_cast<int>(version.major),
                       static_cast<int>(version.minor), static_cast<int>(version.third),
                       static_cast<int>(version.build));
    else
        (void)snprintf(text, sizeof(text), "%d.%d.%d", static_cast<int>(version.major),
                       static_cast<int>(version.minor), static_cast<int>(version.build));
    return text;
}
