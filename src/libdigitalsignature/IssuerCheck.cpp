#include "IssuerCheck.h"

#include "AnsiText.h"
#include "CrvDigitalSignatureManagerEx.h"
#include "DebugLog.h"
#include "QvNotifyDLL.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

const char kEventSource[] = "Quorvane Corvale";
const DWORD kEventIdIssuerCheckFailed = 0x80050258;
const int kEventTypeWarning = 2;
const int kEventCategory = 5;
const size_t kEventMessageBytes = 1284;
const size_t kPathChars = 261;

// What differs between the narrow and the wide loader: the system calls and
// the messages (logged in the wide form, where "%S" takes a narrow string).
template <typename Char> struct LoaderTraits;

template <> struct LoaderTraits<char> {
    static constexpr const wchar_t* kFunction = L"LoadLibraryWithIssuerCheckA";
    static constexpr const wchar_t* kFileForCheck = L"%s - File for issuer check is (%S)";
    static constexpr const wchar_t* kDoesNotExist =
        L"%s - File (%S) does not exist. SetLastError() to ERROR_FILE_NOT_FOUND and return NULL.";
    static constexpr const wchar_t* kNotIssued =
        L"%s - File (%S) is not issued by (%S). Issuer check failed. Write to Windows Event Log, "
        L"SetLastError() to customized error code ERROR_FAILED_ISSUER_CHECK (0x%08X) and return "
        L"NULL.";
    static constexpr const wchar_t* kCalling = L"%s - Calling LoadLibraryA()...";
    static DWORD Attributes(const char* path) { return GetFileAttributesA(path); }
    static void Extension(const char* path, char (&extension)[256]) {
        _splitpath_s(path, nullptr, 0, nullptr, 0, nullptr, 0, extension, 256);
    }
    static HMODULE Load(const char* path) { return LoadLibraryA(path); }
};

template <> struct LoaderTraits<wchar_t> {
    static constexpr const wchar_t* kFunction = L"LoadLibraryWithIssuerCheckW";
    static constexpr const wchar_t* kFileForCheck = L"%s - File for issuer check is (%s)";
    static constexpr const wchar_t* kDoesNotExist =
        L"%s - File (%s) does not exist. SetLastError() to ERROR_FILE_NOT_FOUND and return NULL.";
    static constexpr const wchar_t* kNotIssued =
        L"%s - File (%s) is not issued by (%s). Issuer check failed. Write to Windows Event Log, "
        L"SetLastError() to customized error code ERROR_FAILED_ISSUER_CHECK (0x%08X) and return "
        L"NULL.";
    static constexpr const wchar_t* kCalling = L"%s - Calling LoadLibraryW()...";
    static DWORD Attributes(const wchar_t* path) { return GetFileAttributesW(path); }
    static void Extension(const wchar_t* path, wchar_t (&extension)[256]) {
        _wsplitpath_s(path, nullptr, 0, nullptr, 0, nullptr, 0, extension, 256);
    }
    static HMODULE Load(const wchar_t* path) { return LoadLibraryW(path); }
};

// The path as the system loader gets it: without an extension it would add
// ".dll" of its own, so a trailing "." says "this name, exactly".
template <typename Char> std::basic_string<Char> LoaderPath(const Char* fileName) {
    std::basic_string<Char> path = std::basic_string<Char>(fileName).substr(0, kPathChars - 1);
    Char extension[256] = {};
    LoaderTraits<Char>::Extension(path.c_str(), extension);
    if (extension[0] == 0)
        path += static_cast<Char>('.');
    return path;
}

template <typename Char>
HMODULE LoadLibraryWithIssuerCheck(const Char* issuerName, const Char* fileName) {
    using Traits = LoaderTraits<Char>;
    if (!issuerName) {
        LOGW(LOG_DETAIL,
             L"%s - lpIssuerName is NULL. SetLastError() to ERROR_INVALID_PARAMETER and return "
             L"NULL.",
             Traits::kFunction);
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    LOGW(LOG_DETAIL, Traits::kFileForCheck, Traits::kFunction, fileName);
    // A missing path answers INVALID_FILE_ATTRIBUTES, which has the directory
    // bit too: one test refuses both.
    if (!fileName || (Traits::Attributes(fileName) & FILE_ATTRIBUTE_DIRECTORY) != 0) {
        LOGW(LOG_DETAIL, Traits::kDoesNotExist, Traits::kFunction, fileName);
        LOGW(LOG_DETAIL, L"%s - <<<", Traits::kFunction);
        SetLastError(ERROR_FILE_NOT_FOUND); // after the log call, which may change it
        return nullptr;
    }
    if (!CheckFileIssuer(fileName, issuerName)) {
        LOGW(LOG_DETAIL, Traits::kNotIssued, Traits::kFunction, fileName, issuerName,
             ERROR_FAILED_ISSUER_CHECK);
        WriteWindowsEventLogForNotLoadingLibDueToIssuerCheckFailed(fileName, issuerName);
        SetLastError(ERROR_FAILED_ISSUER_CHECK);
        return nullptr;
    }
    std::basic_string<Char> path = LoaderPath(fileName);
    LOGW(LOG_DETAIL, Traits::kCalling, Traits::kFunction);
    return Traits::Load(path.c_str());
}

// The reporter loads qvnotify.dll through the issuer check, whose refusal
// would report again: one report at a time per thread ends that loop.
thread_local bool t_ReportingRefusal = false;

} // namespace

HMODULE LoadLibraryWithIssuerCheckA(const char* issuerName, const char* fileName) {
    return LoadLibraryWithIssuerCheck(issuerName, fileName);
}

HMODULE LoadLibraryWithIssuerCheckW(const wchar_t* issuerName, const wchar_t* fileName) {
    return LoadLibraryWithIssuerCheck(issuerName, fileName);
}

int CheckFileIssuer(const wchar_t* file, const wchar_t* issuerName) {
    const wchar_t function[] = L"CheckFileIssuer";
    if (!file || !issuerName) {
        LOGW(LOG_ERROR, L"%s - pwszFile or pwszIssuerName is NULL", function);
        return 1;
    }
    LOGW(LOG_DETAIL, L"%s - Checking whether file (%s) is signed by issuer (%s)", function, file,
         issuerName);
    // The accepted signers are the check's own list; the issuer name only
    // names the refusal.
    DWORD error = 0;
    if (!VerifyFileDigitalSignature(file, SIGNER_FLAG_MAKER, error)) {
        LOGW(LOG_ERROR, L"%s - failed to check digital signature for %s, err=%d", function, file,
             error);
        return 0;
    }
    LOGW(LOG_DETAIL, L"%s - successfully to check digital signature for %s", function, file);
    return 1;
}

int CheckFileIssuer(const char* file, const char* issuerName) {
    if (!file || !issuerName) {
        LOGW(LOG_ERROR, L"%s - pszFile or pszIssuerName is NULL", L"CheckFileIssuer");
        return 0;
    }
    return CheckFileIssuer(AnsiToWide(file).c_str(), AnsiToWide(issuerName).c_str());
}

void WriteWindowsEventLogForNotLoadingLibDueToIssuerCheckFailed(const char* file,
                                                                const char* issuerName) {
    const wchar_t function[] = L"WriteWindowsEventLogForNotLoadingLibDueToIssuerCheckFailed";
    if (t_ReportingRefusal)
        return;
    t_ReportingRefusal = true;
    std::vector<char> message(kEventMessageBytes, '\0');
    (void)snprintf(message.data(), message.size(),
                   "Corvale agent attempted to load a library not signed by the expected issuer "
                   "\"%s\". The process was stopped. Verify the integrity of the library and try "
                   "again (%s).",
                   issuerName, file);
    // The reporter unloads the library when it goes, on every path.
    CQvNotifyDLL notify;
    if (!notify.Init(nullptr)) {
        LOGW(LOG_DETAIL, L"%s - QvNotify initialization failed", function);
    } else {
        int initResult = notify.InitDefaultEventSource(kEventSource, 0);
        LOGW(LOG_DETAIL, L"%s - InitDefaultEventSource return %d", function, initResult);
        HANDLE source = nullptr;
        int openResult = notify.OpenEventSource(nullptr, kEventSource, &source);
        if (!source) {
            LOGW(LOG_DETAIL, L"%s - OpenEventSource failed (%d)", function, openResult);
        } else {
            LOGW(LOG_DETAIL, L"%s - ReportEventLogEx Msg = %S", function, message.data());
            notify.ReportEventLogEx(source, kEventTypeWarning, kEventCategory,
                                    kEventIdIssuerCheckFailed, message.data());
            notify.CloseEventSource(source);
        }
    }
    t_ReportingRefusal = false;
}

void WriteWindowsEventLogForNotLoadingLibDueToIssuerCheckFailed(const wchar_t* file,
                                                                const wchar_t* issuerName) {
    std::string narrowFile = file ? WideToAnsi(file) : std::string();
    std::string narrowIssuer = issuerName ? WideToAnsi(issuerName) : std::string();
    WriteWindowsEventLogForNotLoadingLibDueToIssuerCheckFailed(
        file ? narrowFile.c_str() : nullptr, issuerName ? narrowIssuer.c_str() : nullptr);
}
