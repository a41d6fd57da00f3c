// The record of the last file whose signature was refused, kept where support
// staff look for it: a last-info file in the temporary folder and a registry
// value under the agent's key. Both are overwritten by the next refusal.
#include "CrvDigitalSignatureManagerEx.h"

#include "ScopedHandle.h"

#include <cstdio>
#include <string>
#include <vector>

namespace {

const wchar_t kTelemetryKey[] = L"SOFTWARE\\Quorvane\\TarnAgent";
const wchar_t kTelemetryValue[] = L"TelemetryACSLocalVerifyFail";

// The four file version numbers, zeros when the file has no version resource.
void FileVersion(const wchar_t* path, WORD (&numbers)[4]) {
    DWORD ignored = 0;
    DWORD size = GetFileVersionInfoSizeW(path, &ignored);
    std::vector<BYTE> info(size);
    VS_FIXEDFILEINFO* fixed = nullptr;
    UINT length = 0;
    if (size == 0 || !GetFileVersionInfoW(path, 0, size, info.data()) ||
        !VerQueryValueW(info.data(), L"\\", reinterpret_cast<void**>(&fixed), &length) ||
        length < sizeof(VS_FIXEDFILEINFO))
        return;
    numbers[0] = HIWORD(fixed->dwFileVersionMS);
    numbers[1] = LOWORD(fixed->dwFileVersionMS);
    numbers[2] = HIWORD(fixed->dwFileVersionLS);
    numbers[3] = LOWORD(fixed->dwFileVersionLS);
}

void WriteLastInfoFile(const std::wstring& record) {
    ScopedFile file(CreateFileW(InvalidSignatureLastInfoPath().c_str(), GENERIC_WRITE,
                                FILE_SHARE_READ, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL,
                                nullptr));
    if (!file)
        return;
    int length = WideCharToMultiByte(CP_UTF8, 0, record.c_str(), -1, nullptr, 0, nullptr, nullptr);
    std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
    if (length > 0)
        WideCharToMultiByte(CP_UTF8, 0, record.c_str(), -1, &text[0], length, nullptr, nullptr);
    DWORD written = 0;
    WriteFile(file.Get(), text.data(), static_cast<DWORD>(text.size() > 0 ? text.size() - 1 : 0),
              &written, nullptr);
}

void WriteTelemetryValue(const std::wstring& record) {
    HKEY raw = nullptr;
    if (RegCreateKeyExW(HKEY_LOCAL_MACHINE, kTelemetryKey, 0, nullptr, 0, KEY_SET_VALUE, nullptr,
                        &raw, nullptr) != ERROR_SUCCESS)
        return;
    ScopedRegKey key(raw);
    RegSetValueExW(key.Get(), kTelemetryValue, 0, REG_SZ,
                   reinterpret_cast<const BYTE*>(record.c_str()),
                   static_cast<DWORD>((record.size() + 1) * sizeof(wchar_t)));
}

} // namespace

std::wstring InvalidSignatureLastInfoPath() {
    wchar_t folder[MAX_PATH + 1] = {};
    DWORD length = GetTempPathW(MAX_PATH + 1, folder);
    if (length == 0 || length > MAX_PATH)
        return L"DSInvalidLogLastInfo.log";
    return std::wstring(folder) + L"DSInvalidLogLastInfo.log";
}

void RecordInvalidSignature(const wchar_t* path, DWORD error, DWORD flags) {
    WORD version[4] = {};
    FileVersion(path, version);
    std::vector<wchar_t> record(wcslen(path) + 64);
    (void)swprintf(record.data(), record.size(), L"%ls|%d.%d.%d.%d|0x%.8x|%d", path, version[0],
                   version[1], version[2], version[3], error, flags);
    WriteLastInfoFile(record.data());
    WriteTelemetryValue(record.data());
}
