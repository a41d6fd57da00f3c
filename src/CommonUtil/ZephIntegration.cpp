#include "ZephIntegration.h"

#include "DebugLog.h"
#include "IssuerCheck.h"
#include "JsonText.h"
#include "RebootAnswer.h"
#include "ResolveProc.h"
#include "UtilRegistry.h"

#include "Json.h"
#include <shlwapi.h>

#include <cstdlib>
#include <mutex>
#include <vector>

namespace {

const wchar_t kProductKey[] =
    L"HKEY_LOCAL_MACHINE\\SOFTWARE\\Wow6432Node\\Quorvane\\HalvaneNTCorp\\CurrentVersion";
const wchar_t kInstallPathValue[] = L"Application Path";
const wchar_t kLumenfieldPolicyKey[] = L"HKEY_LOCAL_MACHINE\\SOFTWARE\\Wow6432Node\\Quorvane\\"
                                       L"HalvaneNTCorp\\CurrentVersion\\LumenfieldPolicy";
const wchar_t kPolicyOptInValue[] = L"LFPolicyOptIn";
const wchar_t kPolicyLocationKey[] = L"HKEY_LOCAL_MACHINE\\SOFTWARE\\Wow6432Node\\Quorvane\\"
                                     L"HalvaneNTCorp\\CurrentVersion\\ZEPH\\ZEPH_IPRODUCT_TARN";
const wchar_t kPolicyLocationValue[] = L"PolicyData";
const wchar_t kMiscParentKey[] = L"SOFTWARE\\Quorvane\\HalvaneNTCorp\\CurrentVersion";
const wchar_t kShimValidationValue[] = L"EnableShimValidation";
const wchar_t kHostLibrary[] = L"zephAgent_64x.dll";
const wchar_t kAlternateHostLibrary[] = L"zephAgent_NA_64x.dll";
const wchar_t kMakerName[] = L"Quorvane, Inc.";

bool g_HostLibraryLoaded = false;
bool g_IntegrationDone = false;
bool g_LoaderValid = false;
std::mutex g_BindingLock;

// Reads (into `value`) or, with no `value`, clears a text value of the parent
// product; the three registry-location functions share this shape.
int AccessProductText(const wchar_t* function, int level, const wchar_t* keyName,
                      const wchar_t* valueName, std::wstring* value) {
    utilRegKey key(keyName, utilRegKey::VIEW_DEFAULT);
    if (!key.Exists()) {
        LOGW(level, L"%s - Cannot find registry %s", function, keyName);
        return 0;
    }
    if (!key.Open(utilRegKey::ACCESS_READ)) {
        LOGW(level, L"%s - Cannot open registry %s", function, keyName);
        return 0;
    }
    if (value && !key.QueryValue(valueName, *value)) {
        LOGW(level, L"%s - Cannot find value(%s) under key(%s)", function, valueName, keyName);
        return 0;
    }
    if (!value && !key.SetValue(valueName, L"")) {
        LOGW(level, L"%s - Cannot set value(%s) under key(%s)", function, valueName, keyName);
        return 0;
    }
    return 1;
}

// The alternate host library may be tried only when the 32-bit view of the
// product's "Misc." key holds EnableShimValidation = 1.
bool ShimValidationEnabled() {
    wchar_t keyName[MAX_PATH];
    _snwprintf(keyName, MAX_PATH, L"%s\\%s", kMiscParentKey, L"Misc.");
    keyName[MAX_PATH - 1] = L'\0';
    HKEY rawKey = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, keyName, 0, KEY_READ | KEY_WOW64_32KEY, &rawKey) !=
        ERROR_SUCCESS)
        return false;
    ScopedRegKey key(rawKey);
    DWORD value = 0;
    DWORD size = sizeof(value);
    if (RegQueryValueExW(key.Get(), kShimValidationValue, nullptr, nullptr,
                         reinterpret_cast<BYTE*>(&value), &size) != ERROR_SUCCESS)
        return false;
    return value == 1;
}

std::wstring JoinPath(const wchar_t* folder, const wchar_t* fileName) {
    wchar_t path[MAX_PATH] = {};
    wcsncpy(path, folder, MAX_PATH - 1);
    if (!PathAppendW(path, fileName))
        return std::wstring();
    return path;
}

std::string RebootRequestText() {
    JsonBuffer buffer;
    JsonWriter writer(buffer);
    writer.StartObject();
    writer.Key("system_call_id");
    writer.String("ZEPH_SYSCALL_SET_SYS_RESTART");
    writer.Key("product_id");
    writer.String("ZEPH_IPRODUCT_TARN");
    writer.EndObject();
    return std::string(buffer.GetString(), buffer.GetSize());
}

bool init() {
    Corvale_Service_Framework::ZephAgentAdapter& adapter = Corvale_Service_Framework::HostAdapter();
    if (!g_HostLibraryLoaded) {
        std::wstring installPath;
        if (!GetCRVLInstallPath(installPath)) {
            LOGA(LOG_ERROR, "%s - Unable to get CRVL install path.", "init");
            return false;
        }
        if (!adapter.IsLoaded()) {
            uint32_t code = adapter.Load(installPath.c_str());
            if (code != 0) {
                LOGA(LOG_ERROR, "%s - Unable to load %s. Error:%d", "init", "zephAgent_64x",
                     static_cast<int>(code));
                return false;
            }
        }
        g_HostLibraryLoaded = true;
    }
    wchar_t loaderPath[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, loaderPath, MAX_PATH);
    g_LoaderValid = adapter.VerifyLoaderProcessSign(loaderPath) != 0;
    g_IntegrationDone = true;
    return true;
}

} // namespace

namespace Corvale_Service_Framework {

ZephAgentAdapter& HostAdapter() {
    static ZephAgentAdapter adapter;
    return adapter;
}

uint32_t ZephAgentAdapter::Load(const wchar_t* installFolder) {
    if (!installFolder)
        return 2;
    if (IsLoaded())
        return 0;
    std::wstring primary = JoinPath(installFolder, kHostLibrary);
    if (!primary.empty() && PassesMakerSignatureCheck(primary.c_str()) && Bind(primary.c_str()))
        return 0;
    if (ShimValidationEnabled()) {
        std::wstring alternate = JoinPath(installFolder, kAlternateHostLibrary);
        if (!alternate.empty() && PassesMakerSignatureCheck(alternate.c_str()) &&
            HasProductMarker(alternate.c_str()) && Bind(alternate.c_str()))
            return 0;
    }
    return 8;
}

bool ZephAgentAdapter::IsLoaded() const {
    return m_module.Get() != nullptr && m_module.Get() != INVALID_HANDLE_VALUE;
}

int ZephAgentAdapter::Bind(const wchar_t* libraryPath) {
    if (IsLoaded())
        return 1;
    wchar_t drive[_MAX_DRIVE] = {};
    wchar_t folder[_MAX_DIR] = {};
    wchar_t name[_MAX_FNAME] = {};
    wchar_t extension[_MAX_EXT] = {};
    _wsplitpath_s(libraryPath, drive, _MAX_DRIVE, folder, _MAX_DIR, name, _MAX_FNAME, extension,
                  _MAX_EXT);
    // The host library's own dependencies load from its folder.
    std::wstring searchFolder = std::wstring(drive) + folder;
    SetDllDirectoryW(searchFolder.c_str());
    m_module.Reset(LoadLibraryW(libraryPath));
    SetDllDirectoryW(nullptr);
    if (!IsLoaded())
        return 0;

    HMODULE module = m_module.Get();
    m_systemCall = ResolveProc<SystemCallFn>(module, "zephCnt_SystemCall");
    m_free = ResolveProc<FreeFn>(module, "zephCnt_Free");
    m_createProcessWithSignCheck = GetProcAddress(module, "zephCnt_CreateProcessWithSignCheck");
    m_loadLibraryWithSignCheck = GetProcAddress(module, "zephCnt_LoadLibraryWithSignCheck");
    m_verifyEmbeddedSignature = GetProcAddress(module, "zephCnt_VerifyEmbeddedSignature");
    m_verifyEmbeddedSignatureAndSigner =
        GetProcAddress(module, "zephCnt_VerifyEmbeddedSignatureAndSigner");
    m_verifyLoaderProcessSign =
        ResolveProc<VerifyLoaderProcessSignFn>(module, "zephCnt_VerifyLoaderProcessSign");
    m_createProcessWithSignCheckAndAddException =
        GetProcAddress(module, "zephCnt_CreateProcessWithSignCheckAndAddException");
    m_isLightWeightModeEnabled = GetProcAddress(module, "zephCnt_IsLightWeightModeEnabled");
    return 1;
}

void ZephAgentAdapter::Unload() {
    m_module.Reset();
    m_systemCall = nullptr;
    m_free = nullptr;
    m_createProcessWithSignCheck = nullptr;
    m_loadLibraryWithSignCheck = nullptr;
    m_verifyEmbeddedSignature = nullptr;
    m_verifyEmbeddedSignatureAndSigner = nullptr;
    m_verifyLoaderProcessSign = nullptr;
    m_createProcessWithSignCheckAndAddException = nullptr;
    m_isLightWeightModeEnabled = nullptr;
}

uint32_t ZephAgentAdapter::SystemCall(void* context, uint32_t requestSize, const char* request,
                                      char** response, uint32_t* responseSize) const {
    return m_systemCall ? m_systemCall(context, requestSize, request, response, responseSize) : 1;
}

uint32_t ZephAgentAdapter::Free(void* hostBuffer) const {
    return m_free ? m_free(hostBuffer) : 1;
}

uint32_t ZephAgentAdapter::VerifyLoaderProcessSign(const wchar_t* loaderPath) const {
    return m_verifyLoaderProcessSign ? m_verifyLoaderProcessSign(loaderPath) : 0;
}

} // namespace Corvale_Service_Framework

bool PassesMakerSignatureCheck(const wchar_t* libraryPath) {
    return CheckFileIssuer(libraryPath, kMakerName) != 0;
}

bool HasProductMarker(const wchar_t* libraryPath) {
    DWORD ignored = 0;
    DWORD size = GetFileVersionInfoSizeW(libraryPath, &ignored);
    if (size == 0)
        return false;
    std::vector<BYTE> info(size);
    if (!GetFileVersionInfoW(libraryPath, 0, size, info.data()))
        return false;
    struct Translation {
        WORD language;
        WORD codePage;
    }* translations = nullptr;
    UINT length = 0;
    if (!VerQueryValueW(info.data(), L"\\VarFileInfo\\Translation",
                        reinterpret_cast<void**>(&translations), &length))
        return false;
    for (UINT i = 0; i < length / sizeof(Translation); ++i) {
        wchar_t query[64];
        _snwprintf(query, 64, L"\\StringFileInfo\\%04x%04x\\CompanyName", translations[i].language,
                   translations[i].codePage);
        query[63] = L'\0';
        wchar_t* company = nullptr;
        UINT companyLength = 0;
        if (VerQueryValueW(info.data(), query, reinterpret_cast<void**>(&company),
                           &companyLength) &&
            company && wcscmp(company, kMakerName) == 0)
            return true;
    }
    return false;
}

int GetCRVLInstallPath(std::wstring& installPath) {
    return AccessProductText(L"GetCRVLInstallPath", LOG_ERROR, kProductKey, kInstallPathValue,
                             &installPath);
}

int GetLFIPSPolicyPath(std::wstring& policyPath) {
    return AccessProductText(L"GetLFIPSPolicyPath", LOG_DETAIL, kPolicyLocationKey,
                             kPolicyLocationValue, &policyPath);
}

int ClearLFIPSPolicyPath() {
    return AccessProductText(L"ClearLFIPSPolicyPath", LOG_ERROR, kPolicyLocationKey,
                             kPolicyLocationValue, nullptr);
}

int IsOptInLumenfieldPolicy() {
    utilRegKey key(kLumenfieldPolicyKey, utilRegKey::VIEW_DEFAULT);
    if (!key.Exists() || !key.Open(utilRegKey::ACCESS_READ))
        return 0;
    uint32_t optIn = 0;
    if (!key.QueryValue(kPolicyOptInValue, optIn) || optIn == 0)
        return 0;
    LOGA(LOG_DETAIL, "%s - LFPolicyOptIn: %d", "IsOptInLumenfieldPolicy", static_cast<int>(optIn));
    return 1;
}

bool IsValidLoader() {
    // The binding runs once; a failed attempt is retried on the next call.
    std::lock_guard<std::mutex> guard(g_BindingLock);
    if (!g_IntegrationDone && !init()) {
        LOGA(LOG_ERROR, "%s - Unable to initialize zephAgent dll.", "IsValidLoader");
        return false;
    }
    if (!g_LoaderValid)
        LOGA(LOG_ERROR, "%s - Invalid loader.", "IsValidLoader");
    return g_LoaderValid;
}

int RequestReboot() {
    LOGA(LOG_ERROR, "%s - Requesting a reboot...", "RequestReboot");
    std::string requestText = RebootRequestText();
    std::vector<char> request(requestText.begin(), requestText.end());
    request.push_back('\0');
    LOGA(LOG_DETAIL, "%s - Request: %s", "RequestReboot", request.data());

    const Corvale_Service_Framework::ZephAgentAdapter& adapter =
        Corvale_Service_Framework::HostAdapter();
    char* response = nullptr;
    uint32_t responseSize = 0;
    uint32_t status = adapter.SystemCall(nullptr, static_cast<uint32_t>(request.size()),
                                         request.data(), &response, &responseSize);
    bool accepted = false;
    if (status != 0)
        LOGA(LOG_ERROR, "%s - ZEPH System call retruned error: %d", "RequestReboot",
             static_cast<int>(status));
    else
        accepted = CheckRebootAnswer(response, responseSize) == RebootAnswer::Accepted;
    // Whatever the outcome, the host's buffer goes back to the host.
    adapter.Free(response);
    return accepted ? 1 : 0;
}
