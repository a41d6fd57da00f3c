#include "HostDouble.h"

#include "ScopedHandle.h"

namespace {

ScopedRegKey OpenKey(const wchar_t* key, REGSAM access) {
    HKEY raw = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, key, 0, access, &raw) != ERROR_SUCCESS)
        return ScopedRegKey();
    return ScopedRegKey(raw);
}

ScopedRegKey CreateKey(const wchar_t* key, REGSAM view) {
    HKEY raw = nullptr;
    if (RegCreateKeyExW(HKEY_LOCAL_MACHINE, key, 0, nullptr, 0, KEY_SET_VALUE | view, nullptr, &raw,
                        nullptr) != ERROR_SUCCESS)
        return ScopedRegKey();
    return ScopedRegKey(raw);
}

bool Write(const wchar_t* key, const wchar_t* name, DWORD type, const void* data, DWORD size,
           REGSAM view = 0) {
    ScopedRegKey handle = CreateKey(key, view);
    return handle && RegSetValueExW(handle.Get(), name, 0, type, static_cast<const BYTE*>(data),
                                    size) == ERROR_SUCCESS;
}

} // namespace

namespace TestBedRegistry {

bool ReadDword(const wchar_t* key, const wchar_t* name, DWORD& value) {
    DWORD data = 0;
    DWORD size = sizeof(data);
    if (RegGetValueW(HKEY_LOCAL_MACHINE, key, name, RRF_RT_REG_DWORD, nullptr, &data, &size) !=
        ERROR_SUCCESS)
        return false;
    value = data;
    return true;
}

bool ReadText(const wchar_t* key, const wchar_t* name, std::wstring& value) {
    // RRF_NOEXPAND: an expandable value is read as stored.
    const DWORD flags = RRF_RT_REG_SZ | RRF_RT_REG_EXPAND_SZ | RRF_NOEXPAND;
    DWORD size = 0;
    if (RegGetValueW(HKEY_LOCAL_MACHINE, key, name, flags, nullptr, nullptr, &size) !=
        ERROR_SUCCESS)
        return false;
    std::wstring text(size / sizeof(wchar_t) + 1, L'\0');
    size = static_cast<DWORD>(text.size() * sizeof(wchar_t));
    if (RegGetValueW(HKEY_LOCAL_MACHINE, key, name, flags, nullptr, &text[0], &size) !=
        ERROR_SUCCESS)
        return false;
    text.resize(wcsnlen(text.c_str(), text.size()));
    value = text;
    return true;
}

bool WriteDword(const wchar_t* key, const wchar_t* name, DWORD value, REGSAM view) {
    return Write(key, name, REG_DWORD, &value, sizeof(value), view);
}

bool WriteText(const wchar_t* key, const wchar_t* name, const std::wstring& value, DWORD type) {
    DWORD size = static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t));
    return Write(key, name, type, value.c_str(), size);
}

void DeleteValue(const wchar_t* key, const wchar_t* name) {
    ScopedRegKey handle = OpenKey(key, KEY_SET_VALUE);
    if (handle)
        RegDeleteValueW(handle.Get(), name);
}

void DeleteTree(const wchar_t* key) {
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, key);
    RegDeleteKeyW(HKEY_LOCAL_MACHINE, key);
}

} // namespace TestBedRegistry

std::wstring HostJournalPath() {
    std::wstring path = kDefaultJournal;
    TestBedRegistry::ReadText(kHostBehaviourKey, kJournalValue, path);
    return path;
}

bool CreateFolderTree(const std::wstring& folder) {
    std::wstring path = folder;
    if (path.empty() || path.back() != L'\\')
        path += L'\\';
    for (size_t end = path.find(L'\\', 3); end != std::wstring::npos;
         end = path.find(L'\\', end + 1))
        CreateDirectoryW(path.substr(0, end).c_str(), nullptr);
    DWORD attributes = GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY);
}

std::wstring Widen(const std::string& text) {
    if (text.empty())
        return std::wstring();
    int length =
        MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
    std::wstring wide(static_cast<size_t>(length), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), &wide[0], length);
    return wide;
}

std::string Narrow(const std::wstring& text) {
    if (text.empty())
        return std::string();
    int length = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()),
                                     nullptr, 0, nullptr, nullptr);
    std::string narrow(static_cast<size_t>(length), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), &narrow[0], length,
                        nullptr, nullptr);
    return narrow;
}
