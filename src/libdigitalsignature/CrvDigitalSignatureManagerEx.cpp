#include "CrvDigitalSignatureManagerEx.h"

#include "DebugLog.h"
#include "IssuerCheck.h"
#include "ResolveProc.h"
#include "ScopedHandle.h"

#include <softpub.h>
#include <wintrust.h>

#include <cstdio>
#include <memory>
#include <vector>

namespace {

const wchar_t kMakerSigner[] = L"Quorvane, Inc.";
const wchar_t* const kMicrosoftSigners[] = {
    L"Microsoft Windows",
    L"Microsoft Windows Publisher",
    L"Microsoft Corporation",
    L"Microsoft Windows Component Publisher",
    L"Microsoft Windows Hardware Compatibility Publisher",
    L"Microsoft Windows Early Launch Anti-malware Publisher",
};
const GUID kGenericVerifyV2 = {
    0x00AAC56B, 0xCD44, 0x11D0, {0x8C, 0xC2, 0x00, 0xC0, 0x4F, 0xC2, 0x95, 0xEE}};
const GUID kDriverActionVerify = {
    0xF750E6C3, 0x38EE, 0x11D1, {0x85, 0xE5, 0x00, 0xC0, 0x4F, 0xC2, 0x95, 0xEE}};
char kStrongSignOid[] = "1.3.6.1.4.1.311.72.1.1";

constexpr DWORD kStateVerify = 1;
constexpr DWORD kStateClose = 2;
constexpr DWORD kNoRevocationSaferCachedUrls = 0x1110;
constexpr DWORD kVerifySpecificAndCountSecondary = 0x3;

const wchar_t kSingleSign[] = L"CCrvDigitalSignatureManagerEx::VerifyEmbeddedSignatureSingleSign";
const wchar_t kMultipleSign[] =
    L"CCrvDigitalSignatureManagerEx::VerifyEmbeddedSignatureMultipleSign";

// The trust data as the newer SDKs lay it out: the signature settings follow
// the older 80-byte form (which not every SDK's WINTRUST_DATA carries).
struct SignatureSettings {
    DWORD cbStruct;
    DWORD dwIndex;
    DWORD dwFlags;
    DWORD cSecondarySigs;
    DWORD dwVerifiedSigIndex;
    CERT_STRONG_SIGN_PARA* pCryptoPolicy;
};
struct TrustData {
    DWORD cbStruct;
    void* pPolicyCallbackData;
    void* pSIPClientData;
    DWORD dwUIChoice;
    DWORD fdwRevocationChecks;
    DWORD dwUnionChoice;
    void* pInfo;
    DWORD dwStateAction;
    HANDLE hWVTStateData;
    WCHAR* pwszURLReference;
    DWORD dwProvFlags;
    DWORD dwUIContext;
    SignatureSettings* pSignatureSettings;
};
constexpr DWORD kTrustDataSingleSize = 80;
constexpr DWORD kTrustDataMultipleSize = 88;
static_assert(sizeof(TrustData) == kTrustDataMultipleSize, "x64 trust data layout");
static_assert(sizeof(WINTRUST_FILE_INFO) == 32, "x64 file information layout");

TrustData MakeTrustData(DWORD size, DWORD unionChoice, void* info) {
    TrustData data = {};
    data.cbStruct = size;
    data.dwUIChoice = WTD_UI_NONE;
    data.fdwRevocationChecks = WTD_REVOKE_NONE;
    data.dwUnionChoice = unionChoice;
    data.pInfo = info;
    data.dwStateAction = kStateVerify;
    data.dwProvFlags = kNoRevocationSaferCachedUrls;
    return data;
}

LONG CallWinVerifyTrust(GUID action, TrustData& data) {
    return WinVerifyTrust(static_cast<HWND>(INVALID_HANDLE_VALUE), &action,
                          reinterpret_cast<WINTRUST_DATA*>(&data));
}

// Verifies with `data` now and closes its trust state when it goes.
class TrustState {
  public:
    TrustState(GUID action, TrustData& data) : m_action(action), m_data(data) {}
    ~TrustState() { Close(); }
    TrustState(const TrustState&) = delete;
    TrustState& operator=(const TrustState&) = delete;

    LONG Verify() {
        m_data.dwStateAction = kStateVerify;
        m_open = true;
        return CallWinVerifyTrust(m_action, m_data);
    }
    void Close() {
        if (!m_open)
            return;
        m_data.dwStateAction = kStateClose;
        CallWinVerifyTrust(m_action, m_data);
        m_open = false;
    }
    HANDLE Handle() const { return m_data.hWVTStateData; }

  private:
    GUID m_action;
    TrustData& m_data;
    bool m_open = false;
};

// The file's information for the trust provider: its handle when it opens,
// its path alone when it does not.
class TrustFile {
  public:
    explicit TrustFile(const wchar_t* path)
        : m_file(CreateFileW(path, GENERIC_READ,
                             FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                             OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr)) {
        m_info.cbStruct = sizeof(m_info);
        m_info.pcwszFilePath = path;
        m_info.hFile = m_file ? m_file.Get() : nullptr;
    }
    WINTRUST_FILE_INFO* Info() { return &m_info; }
    HANDLE Handle() const { return m_file.Get(); }
    bool IsOpen() const { return m_file.IsValid(); }

  private:
    ScopedFile m_file;
    WINTRUST_FILE_INFO m_info = {};
};

struct CatAdminTraits {
    using Type = HCATADMIN;
    static Type Empty() { return nullptr; }
    static void Close(Type h) { CryptCATAdminReleaseContext(h, 0); }
};
using ScopedCatAdmin = ScopedHandle<CatAdminTraits>;

// A catalog context is released through the administrator context it came from.
class ScopedCatalogContext {
  public:
    ScopedCatalogContext(HCATADMIN admin, HCATINFO info) : m_admin(admin), m_info(info) {}
    ~ScopedCatalogContext() {
        if (m_info)
            CryptCATAdminReleaseCatalogContext(m_admin, m_info, 0);
    }
    ScopedCatalogContext(const ScopedCatalogContext&) = delete;
    ScopedCatalogContext& operator=(const ScopedCatalogContext&) = delete;
    HCATINFO Get() const { return m_info; }

  private:
    HCATADMIN m_admin;
    HCATINFO m_info;
};

std::wstring HexPairs(const std::vector<BYTE>& bytes) {
    std::wstring text;
    wchar_t pair[3];
    for (BYTE byte : bytes) {
        (void)swprintf(pair, 3, L"%02X", byte);
        text += pair;
    }
    return text;
}

std::wstring JoinSigners(const TrustedSigners& signers) {
    std::wstring text;
    for (const std::wstring& signer : signers)
        text += (text.empty() ? L"" : L"; ") + signer;
    return text;
}

// Two calls, size first, as the system's hash functions want them.
std::vector<BYTE> EzCATAdminCalcHashFromFileHandle(HANDLE file) {
    DWORD size = 0;
    CryptCATAdminCalcHashFromFileHandle(file, &size, nullptr, 0);
    std::vector<BYTE> hash(size);
    if (size == 0 || !CryptCATAdminCalcHashFromFileHandle(file, &size, hash.data(), 0))
        return {};
    return hash;
}

std::vector<BYTE> EzCATAdminCalcHashFromFileHandle2(HCATADMIN admin, HANDLE file) {
    auto calcHash2 = CSingletonWinTrustHelper::GetInstance().CalcHashFromFileHandle2();
    DWORD size = 0;
    if (!calcHash2)
        return {};
    calcHash2(admin, file, &size, nullptr, 0);
    std::vector<BYTE> hash(size);
    if (size == 0 || !calcHash2(admin, file, &size, hash.data(), 0))
        return {};
    return hash;
}

struct CriticalSection {
    CriticalSection() { InitializeCriticalSection(&section); }
    ~CriticalSection() { DeleteCriticalSection(&section); }
    CRITICAL_SECTION section;
};
CriticalSection g_SingletonLock;
std::unique_ptr<CSingletonWinTrustHelper> g_WinTrustHelper;

} // namespace

CSingletonWinTrustHelper& CSingletonWinTrustHelper::GetInstance() {
    EnterCriticalSection(&g_SingletonLock.section);
    if (!g_WinTrustHelper)
        g_WinTrustHelper.reset(new CSingletonWinTrustHelper());
    LeaveCriticalSection(&g_SingletonLock.section);
    return *g_WinTrustHelper;
}

CSingletonWinTrustHelper::CSingletonWinTrustHelper() {
    wchar_t systemFolder[MAX_PATH] = {};
    UINT length = GetSystemDirectoryW(systemFolder, MAX_PATH);
    if (length > 0 && length < MAX_PATH)
        m_winTrust = LoadLibraryW((std::wstring(systemFolder) + L"\\WinTrust.dll").c_str());
    if (m_winTrust) {
        m_acquireContext2 =
            ResolveProc<AcquireContext2Fn>(m_winTrust, "CryptCATAdminAcquireContext2");
        m_calcHash2 = ResolveProc<CalcHashFromFileHandle2Fn>(
            m_winTrust, "CryptCATAdminCalcHashFromFileHandle2");
    }
    if (IsMultipleSignPlatform())
        LOGW(LOG_DETAIL, L"%s - support multiple sign platform", L"CSingletonWinTrustHelper");
    else
        LOGW(LOG_DETAIL, L"%s - support single sign platform", L"CSingletonWinTrustHelper");
}

CSingletonWinTrustHelper::~CSingletonWinTrustHelper() {
    if (m_winTrust)
        FreeLibrary(m_winTrust);
}

SignatureVerifyResult CCrvDigitalSignatureManagerEx::VerifyDigitalSignature(const wchar_t* path,
                                                                            DWORD flags,
                                                                            bool strongSign) {
    const bool catalogAllowed = (flags & SIGNER_FLAG_CATALOG_FALLBACK) != 0;
    if (CSingletonWinTrustHelper::GetInstance().IsMultipleSignPlatform()) {
        SignatureVerifyResult embedded =
            VerifyEmbeddedSignatureMultipleSign(path, flags, strongSign);
        if (!embedded.verified && catalogAllowed &&
            VerifyByMSCatalogMutipleSign(path, strongSign) == 0)
            return {0, true};
        return embedded;
    }
    SignatureVerifyResult embedded = VerifyEmbeddedSignatureSingleSign(path, flags);
    if (embedded.verified)
        return embedded;
    if (VerifyDigitalSignatureCertInfoFile(path, flags))
        return {0, true};
    if (catalogAllowed && VerifyByMSCatalogSingleSign(path) == 0)
        return {0, true};
    return embedded;
}

SignatureVerifyResult
CCrvDigitalSignatureManagerEx::VerifyEmbeddedSignatureSingleSign(const wchar_t* path, DWORD flags) {
    LOGW(LOG_DETAIL, L"%s - >>> try to verify file=%s", kSingleSign, path);
    SignatureVerifyResult result;
    {
        TrustFile file(path);
        TrustData data = MakeTrustData(kTrustDataSingleSize, WTD_CHOICE_FILE, file.Info());
        TrustState state(kGenericVerifyV2, data);
        LONG status = state.Verify();
        if (status != 0) {
            LOGW(LOG_DETAIL,
                 L"%s - failed to call WinVerifyTrust(), StatusVerify=%x, GetLastError=%x",
                 kSingleSign, status, GetLastError());
            LOGW(LOG_DETAIL, L"%s - try to verify by certificate information", kSingleSign);
            bool byCertInfo = VerifyDigitalSignatureCertInfoFile(path, flags);
            if (byCertInfo)
                LOGW(LOG_DETAIL, L"%s - successfully to verify by certificate information",
                     kSingleSign);
            else
                LOGW(LOG_DETAIL, L"%s - failed to verify by certificate information", kSingleSign);
            result = {static_cast<DWORD>(status), byCertInfo};
        } else {
            result = CheckSignerOfVerifiedFile(kSingleSign, state.Handle(), flags);
        }
    }
    LOGW(LOG_DETAIL, L"%s - <<<", kSingleSign);
    return result;
}

SignatureVerifyResult
CCrvDigitalSignatureManagerEx::VerifyEmbeddedSignatureMultipleSign(const wchar_t* path, DWORD flags,
                                                                   bool strongSign) {
    LOGW(LOG_DETAIL, L"%s - >>> try to verify file=%s", kMultipleSign, path);
    SignatureVerifyResult result;
    {
        TrustFile file(path);
        CERT_STRONG_SIGN_PARA strongSignPolicy = {};
        strongSignPolicy.cbSize = sizeof(strongSignPolicy);
        strongSignPolicy.dwInfoChoice = CERT_STRONG_SIGN_OID_INFO_CHOICE;
        strongSignPolicy.pszOID = kStrongSignOid;
        SignatureSettings settings = {};
        settings.cbStruct = sizeof(settings);
        settings.dwFlags = kVerifySpecificAndCountSecondary;
        settings.pCryptoPolicy = strongSign ? &strongSignPolicy : nullptr;
        TrustData data = MakeTrustData(kTrustDataMultipleSize, WTD_CHOICE_FILE, file.Info());
        data.pSignatureSettings = &settings;
        TrustState state(kGenericVerifyV2, data);

        // The primary signature first, then each secondary one until one verifies.
        for (DWORD index = 0; index == 0 || (!result.verified && index <= settings.cSecondarySigs);
             ++index) {
            state.Close();
            settings.dwIndex = index;
            LONG status = state.Verify();
            if (status != 0) {
                LOGW(LOG_DETAIL,
                     L"%s - failed to call WinVerifyTrust(), StatusVerify=%x, GetLastError=%x",
                     kMultipleSign, status, GetLastError());
                result = {static_cast<DWORD>(status), false};
            } else {
                result = CheckSignerOfVerifiedFile(kMultipleSign, state.Handle(), flags);
            }
        }
    }
    LOGW(LOG_DETAIL, L"%s - <<<", kMultipleSign);
    return result;
}

SignatureVerifyResult
CCrvDigitalSignatureManagerEx::CheckSignerOfVerifiedFile(const wchar_t* function, HANDLE stateData,
                                                         DWORD flags) {
    if (flags == 0) {
        LOGW(LOG_DETAIL, L"%s - find a valid digital signature and no need to check signer",
             function);
        return {0, true};
    }
    TrustedSigners signers = PrepareSigners(flags);
    if (VerifySignerForDigitalSignature(GetSignerFromhWVTStateData(stateData), signers)) {
        LOGW(LOG_DETAIL, L"%s - find a valid digital signature and signer is correct", function);
        return {0, true};
    }
    LOGW(LOG_DETAIL, L"%s - find a valid digital signature but signer is incorrect", function);
    return {ERROR_FAILED_ISSUER_CHECK, false};
}

TrustedSigners CCrvDigitalSignatureManagerEx::PrepareSigners(DWORD flags) {
    TrustedSigners signers;
    if (flags & SIGNER_FLAG_MAKER)
        signers.insert(kMakerSigner);
    if (flags & SIGNER_FLAG_MICROSOFT)
        signers.insert(std::begin(kMicrosoftSigners), std::end(kMicrosoftSigners));
    if (signers.empty())
        LOGW(LOG_DETAIL, L"%s - allowed signers=ALL",
             L"CCrvDigitalSignatureManagerEx::PrepareSigners");
    else
        LOGW(LOG_DETAIL, L"%s - allowed signers=%s",
             L"CCrvDigitalSignatureManagerEx::PrepareSigners", JoinSigners(signers).c_str());
    return signers;
}

std::wstring CCrvDigitalSignatureManagerEx::GetSignerFromhWVTStateData(HANDLE stateData) {
    CRYPT_PROVIDER_DATA* provider = WTHelperProvDataFromStateData(stateData);
    CRYPT_PROVIDER_SGNR* signer =
        provider ? WTHelperGetProvSignerFromChain(provider, 0, FALSE, 0) : nullptr;
    if (!signer || signer->csCertChain == 0 || !signer->pasCertChain ||
        !signer->pasCertChain[0].pCert)
        return {};
    PCCERT_CONTEXT certificate = signer->pasCertChain[0].pCert;
    DWORD length =
        CertGetNameStringW(certificate, CERT_NAME_SIMPLE_DISPLAY_TYPE, 0, nullptr, nullptr, 0);
    if (length <= 1)
        return {};
    std::wstring name(length, L'\0');
    CertGetNameStringW(certificate, CERT_NAME_SIMPLE_DISPLAY_TYPE, 0, nullptr, &name[0], length);
    name.resize(length - 1);
    return name;
}

bool CCrvDigitalSignatureManagerEx::VerifySignerForDigitalSignature(const std::wstring& signer,
                                                                    const TrustedSigners& signers) {
    const wchar_t function[] = L"CCrvDigitalSignatureManagerEx::VerifySignerForDigitalSignature";
    if (signers.empty()) {
        LOGW(LOG_DETAIL, L"%s - no need to check signers, bypass", function);
        return true;
    }
    if (signers.count(signer) != 0) {
        LOGW(LOG_DETAIL, L"%s - signer=[%s] is in trusted list", function, signer.c_str());
        return true;
    }
    LOGW(LOG_DETAIL, L"%s - signer=[%s] is not in trusted list", function, signer.c_str());
    return false;
}

// The certificate-information check belongs to the multiple-signature
// verifier; this build has none, so it vouches for no file.
bool CCrvDigitalSignatureManagerEx::VerifyDigitalSignatureCertInfoFile(const wchar_t* /*path*/,
                                                                       DWORD /*flags*/) {
    return false;
}

DWORD CCrvDigitalSignatureManagerEx::VerifyByMSCatalogSingleSign(const wchar_t* path) {
    return VerifyByCatalog(L"CCrvDigitalSignatureManagerEx::VerifyByMSCatalogSingleSign", path,
                           L"SHA1", false, false);
}

DWORD CCrvDigitalSignatureManagerEx::VerifyByMSCatalogMutipleSign(const wchar_t* path,
                                                                  bool strongSign) {
    const wchar_t function[] = L"CCrvDigitalSignatureManagerEx::VerifyByMSCatalogMutipleSign";
    DWORD error = VerifyByCatalog(function, path, L"SHA1", true, strongSign);
    return error == 0 ? 0 : VerifyByCatalog(function, path, L"SHA256", true, strongSign);
}

DWORD CCrvDigitalSignatureManagerEx::VerifyByCatalog(const wchar_t* function, const wchar_t* path,
                                                     const wchar_t* algorithm, bool multipleSign,
                                                     bool strongSign) {
    LOGW(LOG_DETAIL, L"%s - create context with algorithm=%s", function, algorithm);
    CERT_STRONG_SIGN_PARA strongSignPolicy = {};
    strongSignPolicy.cbSize = sizeof(strongSignPolicy);
    strongSignPolicy.dwInfoChoice = CERT_STRONG_SIGN_OID_INFO_CHOICE;
    strongSignPolicy.pszOID = kStrongSignOid;
    HCATADMIN rawAdmin = nullptr;
    auto acquire2 = CSingletonWinTrustHelper::GetInstance().AcquireContext2();
    BOOL acquired = multipleSign && acquire2
                        ? acquire2(&rawAdmin, &kDriverActionVerify, algorithm,
                                   strongSign ? &strongSignPolicy : nullptr, 0)
                        : CryptCATAdminAcquireContext(&rawAdmin, &kDriverActionVerify, 0);
    if (!acquired) {
        DWORD error = GetLastError();
        LOGW(LOG_DETAIL, L"%s - failed to call CryptCATAdminAcquireContext(), err=%d", function,
             error);
        return error ? error : ERROR_GEN_FAILURE;
    }
    ScopedCatAdmin admin(rawAdmin);

    ScopedFile file(CreateFileW(path, GENERIC_READ,
                                FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file) {
        DWORD error = GetLastError();
        LOGW(LOG_DETAIL, L"%s - failed to call CreateFile(), err=%d", function, error);
        return error;
    }
    std::vector<BYTE> hash = multipleSign
                                 ? EzCATAdminCalcHashFromFileHandle2(admin.Get(), file.Get())
                                 : EzCATAdminCalcHashFromFileHandle(file.Get());
    if (hash.empty()) {
        DWORD error = GetLastError();
        LOGW(LOG_DETAIL, L"%s - failed to call CryptCATAdminCalcHashFromFileHandle(), err=%d",
             function, error);
        return error ? error : ERROR_GEN_FAILURE;
    }
    std::wstring memberTag = HexPairs(hash);
    LOGW(LOG_DETAIL, L"%s - hash algorithm=%s, file hash=%s", function, algorithm,
         memberTag.c_str());

    ScopedCatalogContext catalog(
        admin.Get(), CryptCATAdminEnumCatalogFromHash(admin.Get(), hash.data(),
                                                      static_cast<DWORD>(hash.size()), 0, nullptr));
    if (!catalog.Get()) {
        DWORD error = GetLastError();
        LOGW(LOG_DETAIL, L"%s - failed to call CryptCATAdminEnumCatalogFromHash(), err=%d",
             function, error);
        return error ? error : ERROR_NOT_FOUND;
    }
    CATALOG_INFO catalogInfo = {};
    catalogInfo.cbStruct = sizeof(catalogInfo);
    if (!CryptCATCatalogInfoFromContext(catalog.Get(), &catalogInfo, 0)) {
        DWORD error = GetLastError();
        LOGW(LOG_DETAIL, L"%s - failed to call CryptCATCatalogInfoFromContext(), err=%d", function,
             error);
        return error ? error : ERROR_GEN_FAILURE;
    }
    LOGW(LOG_DETAIL, L"%s - catalog file path=%s", function, catalogInfo.wszCatalogFile);

    WINTRUST_CATALOG_INFO member = {};
    member.cbStruct = sizeof(member);
    member.pcwszCatalogFilePath = catalogInfo.wszCatalogFile;
    member.pcwszMemberTag = memberTag.c_str();
    member.pcwszMemberFilePath = path;
    member.hMemberFile = file.Get();
    member.pbCalculatedFileHash = hash.data();
    member.cbCalculatedFileHash = static_cast<DWORD>(hash.size());
    TrustData data = MakeTrustData(kTrustDataSingleSize, WTD_CHOICE_CATALOG, &member);
    TrustState state(kGenericVerifyV2, data);
    LONG status = state.Verify();
    if (status != 0)
        LOGW(LOG_DETAIL, L"%s - failed to call WinVerifyTrust(), err=%x", function, status);
    return static_cast<DWORD>(status);
}

bool VerifyFileDigitalSignature(const wchar_t* path, DWORD flags, DWORD& error) {
    CCrvDigitalSignatureManagerEx manager;
    SignatureVerifyResult result = manager.VerifyDigitalSignature(path, flags, false);
    error = result.error;
    if (!result.verified)
        RecordInvalidSignature(path, result.error, flags);
    return result.verified;
}
