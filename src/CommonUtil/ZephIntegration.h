#pragma once
// Binding to the host framework: the parent product's registry locations,
// the host library "zephAgent_64x.dll" and its function table, and the few
// host services the plug-in uses (loader check, system call, reboot request).
#include "ScopedHandle.h"

#include <cstdint>
#include <string>

namespace Corvale_Service_Framework {

class ZephAgentAdapter {
  public:
    using SystemCallFn = uint32_t (*)(void* context, uint32_t requestSize, const char* request,
                                      char** response, uint32_t* responseSize);
    using FreeFn = uint32_t (*)(void* hostBuffer);
    using VerifyLoaderProcessSignFn = uint32_t (*)(const wchar_t* loaderPath);

    ZephAgentAdapter() = default;
    ~ZephAgentAdapter() { Unload(); }
    ZephAgentAdapter(const ZephAgentAdapter&) = delete;
    ZephAgentAdapter& operator=(const ZephAgentAdapter&) = delete;

    // 0 loaded (or already), 2 no folder, 8 no acceptable library.
    uint32_t Load(const wchar_t* installFolder);
    bool IsLoaded() const;
    int Bind(const wchar_t* libraryPath);
    void Unload();

    // Each wrapper answers a fixed default when its entry is missing.
    uint32_t SystemCall(void* context, uint32_t requestSize, const char* request, char** response,
                        uint32_t* responseSize) const;
    uint32_t Free(void* hostBuffer) const;
    uint32_t VerifyLoaderProcessSign(const wchar_t* loaderPath) const;
    // Resolved for the table's completeness; this plug-in never calls them.
    bool HasCreateProcessWithSignCheck() const { return m_createProcessWithSignCheck != nullptr; }
    bool HasLoadLibraryWithSignCheck() const { return m_loadLibraryWithSignCheck != nullptr; }
    bool HasVerifyEmbeddedSignature() const { return m_verifyEmbeddedSignature != nullptr; }
    bool HasVerifyEmbeddedSignatureAndSigner() const {
        return m_verifyEmbeddedSignatureAndSigner != nullptr;
    }
    bool HasCreateProcessWithSignCheckAndAddException() const {
        return m_createProcessWithSignCheckAndAddException != nullptr;
    }
    bool HasIsLightWeightModeEnabled() const { return m_isLightWeightModeEnabled != nullptr; }

  private:
    ScopedModule m_module;
    SystemCallFn m_systemCall = nullptr;
    FreeFn m_free = nullptr;
    FARPROC m_createProcessWithSignCheck = nullptr;
    FARPROC m_loadLibraryWithSignCheck = nullptr;
    FARPROC m_verifyEmbeddedSignature = nullptr;
    FARPROC m_verifyEmbeddedSignatureAndSigner = nullptr;
    VerifyLoaderProcessSignFn m_verifyLoaderProcessSign = nullptr;
    FARPROC m_createProcessWithSignCheckAndAddException = nullptr;
    FARPROC m_isLightWeightModeEnabled = nullptr;
};

// The process-wide adapter.
ZephAgentAdapter& HostAdapter();

} // namespace Corvale_Service_Framework

// The yes/no check a host-library candidate must pass before it is loaded:
// the signature manager's issuer check, signer "Quorvane, Inc." alone.
bool PassesMakerSignatureCheck(const wchar_t* libraryPath);
// The alternate library's product marker: a version resource whose
// CompanyName is "Quorvane, Inc.".
bool HasProductMarker(const wchar_t* libraryPath);

int GetCRVLInstallPath(std::wstring& installPath);
bool IsValidLoader();
int IsOptInLumenfieldPolicy();
int GetLFIPSPolicyPath(std::wstring& policyPath);
int ClearLFIPSPolicyPath();
int RequestReboot();
