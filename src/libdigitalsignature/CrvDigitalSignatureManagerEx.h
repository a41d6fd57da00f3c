#pragma once
// Does a file carry a valid Authenticode signature whose signer the caller
// trusts? Answered through the system trust provider, with the system's
// signature catalogs as an optional fallback.
#include <windows.h>
#include <wincrypt.h>
#include <mscat.h>

#include <set>
#include <string>

// Signer flags: which signers are trusted, and whether catalogs may vouch.
constexpr DWORD SIGNER_FLAG_MAKER = 0x1;
constexpr DWORD SIGNER_FLAG_MICROSOFT = 0x2;
constexpr DWORD SIGNER_FLAG_CATALOG_FALLBACK = 0x10000;

struct SignatureVerifyResult {
    DWORD error = 0; // 0, the trust provider's status, or ERROR_FAILED_ISSUER_CHECK
    bool verified = false;
};

using TrustedSigners = std::set<std::wstring>;

// Whether the platform verifies files with several signatures; looked up once
// per process in the system's WinTrust.dll.
class CSingletonWinTrustHelper {
  public:
    using AcquireContext2Fn = BOOL(WINAPI*)(HCATADMIN*, const GUID*, const WCHAR*,
                                            const CERT_STRONG_SIGN_PARA*, DWORD);
    using CalcHashFromFileHandle2Fn = BOOL(WINAPI*)(HCATADMIN, HANDLE, DWORD*, BYTE*, DWORD);

    static CSingletonWinTrustHelper& GetInstance();
    ~CSingletonWinTrustHelper();
    CSingletonWinTrustHelper(const CSingletonWinTrustHelper&) = delete;
    CSingletonWinTrustHelper& operator=(const CSingletonWinTrustHelper&) = delete;

    bool IsMultipleSignPlatform() const { return m_acquireContext2 && m_calcHash2; }
    AcquireContext2Fn AcquireContext2() const { return m_acquireContext2; }
    CalcHashFromFileHandle2Fn CalcHashFromFileHandle2() const { return m_calcHash2; }

  private:
    CSingletonWinTrustHelper();

    HMODULE m_winTrust = nullptr;
    AcquireContext2Fn m_acquireContext2 = nullptr;
    CalcHashFromFileHandle2Fn m_calcHash2 = nullptr;
};

class CCrvDigitalSignatureManagerEx {
  public:
    // Dispatches to the single- or multiple-signature path of the platform.
    SignatureVerifyResult VerifyDigitalSignature(const wchar_t* path, DWORD flags, bool strongSign);

    SignatureVerifyResult VerifyEmbeddedSignatureSingleSign(const wchar_t* path, DWORD flags);
    SignatureVerifyResult VerifyEmbeddedSignatureMultipleSign(const wchar_t* path, DWORD flags,
                                                              bool strongSign);
    // 0 when a catalog signature of the file verifies.
    DWORD VerifyByMSCatalogSingleSign(const wchar_t* path);
    DWORD VerifyByMSCatalogMutipleSign(const wchar_t* path, bool strongSign);
    bool VerifyDigitalSignatureCertInfoFile(const wchar_t* path, DWORD flags);

    TrustedSigners PrepareSigners(DWORD flags);
    std::wstring GetSignerFromhWVTStateData(HANDLE stateData);
    bool VerifySignerForDigitalSignature(const std::wstring& signer, const TrustedSigners& signers);

  private:
    SignatureVerifyResult CheckSignerOfVerifiedFile(const wchar_t* function, HANDLE stateData,
                                                    DWORD flags);
    DWORD VerifyByCatalog(const wchar_t* function, const wchar_t* path, const wchar_t* algorithm,
                          bool multipleSign, bool strongSign);
};

// The signature check under the issuer check: a refused file is recorded
// (see RecordInvalidSignature) before the verdict is returned.
bool VerifyFileDigitalSignature(const wchar_t* path, DWORD flags, DWORD& error);

// The record of the last refused file: "path|a.b.c.d|0xerror|flags" in
// %TEMP%\DSInvalidLogLastInfo.log and in the registry value
// HKLM\SOFTWARE\Quorvane\TarnAgent\TelemetryACSLocalVerifyFail.
void RecordInvalidSignature(const wchar_t* path, DWORD error, DWORD flags);
std::wstring InvalidSignatureLastInfoPath();
