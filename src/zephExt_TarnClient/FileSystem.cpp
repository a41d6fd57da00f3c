#include "FileSystem.h"

#include "ScopedHandle.h"

#include <windows.h>

#include <algorithm>
#include <new>

namespace FileSystem {
namespace {

class Win32ErrorCategory final : public std::error_category {
  public:
    const char* name() const noexcept override { return "system"; }
    // The system's text in its own language, without the line break it ends in.
    std::string message(int code) const override {
        char* text = nullptr;
        DWORD length = FormatMessageA(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM |
                                          FORMAT_MESSAGE_IGNORE_INSERTS,
                                      nullptr, static_cast<DWORD>(code), GetSystemDefaultLangID(),
                                      reinterpret_cast<char*>(&text), 0, nullptr);
        std::string message = length ? std::string(text, length) : std::string();
        LocalFree(text);
        message.erase(message.find_last_not_of(" \t\r\n") + 1);
        return message.empty() ? "unknown error" : message;
    }
};

std::error_code Win32Error(DWORD code) {
    return std::error_code(static_cast<int>(code), Win32Category());
}

// The codes that say a path is not there, rather than that it could not be looked at.
bool IsNotFound(DWORD code) {
    return code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND ||
           code == ERROR_BAD_NETPATH || code == ERROR_INVALID_NAME;
}

struct Status {
    DWORD attributes;
    DWORD error; // 0 when the attributes were read

    bool Exists() const { return error == ERROR_SUCCESS; }
    bool IsFolder() const { return Exists() && (attributes & FILE_ATTRIBUTE_DIRECTORY); }
    // A folder whose entries are its own, not a link to another one.
    bool IsOwnFolder() const { return IsFolder() && !(attributes & FILE_ATTRIBUTE_REPARSE_POINT); }
};

Status StatusOf(const std::wstring& path) {
    DWORD attributes = GetFileAttributesW(path.c_str());
    return {attributes, attributes == INVALID_FILE_ATTRIBUTES ? GetLastError() : ERROR_SUCCESS};
}

std::wstring FileName(const std::wstring& path) {
    size_t separator = path.find_last_of(L"\\/");
    return separator == std::wstring::npos ? path : path.substr(separator + 1);
}

std::vector<std::wstring> EntryNames(const std::wstring& folder, std::error_code& error) {
    std::vector<std::wstring> names;
    WIN32_FIND_DATAW entry;
    ScopedFind find(FindFirstFileExW(Join(folder, L"*").c_str(), FindExInfoBasic, &entry,
                                     FindExSearchNameMatch, nullptr, 0));
    if (!find) {
        DWORD code = GetLastError();
        if (code != ERROR_FILE_NOT_FOUND) // no entry at all
            error = Win32Error(code);
        return names;
    }
    do {
        std::wstring name = entry.cFileName;
        if (name != L"." && name != L"..")
            names.push_back(std::move(name));
    } while (FindNextFileW(find.Get(), &entry));
    if (GetLastError() != ERROR_NO_MORE_FILES)
        error = Win32Error(GetLastError());
    return names;
}

void CopyEntry(const std::wstring& from, const std::wstring& to, std::error_code& error) {
    const Status source = StatusOf(from);
    if (!source.Exists()) {
        error = Win32Error(source.error);
        return;
    }
    const Status target = StatusOf(to);
    if (!target.Exists() && !IsNotFound(target.error)) {
        error = Win32Error(target.error);
        return;
    }
    if (!source.IsFolder()) {
        const std::wstring file = target.IsFolder() ? Join(to, FileName(from)) : to;
        if (!CopyFileW(from.c_str(), file.c_str(), FALSE))
            error = Win32Error(GetLastError());
        return;
    }
    if (target.Exists() && !target.IsFolder()) {
        error = std::make_error_code(std::errc::file_exists);
        return;
    }
    // The target folder itself is made, never a missing parent.
    if (!target.Exists() && !CreateDirectoryW(to.c_str(), nullptr)) {
        error = Win32Error(GetLastError());
        return;
    }
    for (const std::wstring& name : EntryNames(from, error)) {
        CopyEntry(Join(from, name), Join(to, name), error);
        if (error)
            return;
    }
}

// Removes one file or empty folder whatever its read-only attribute says, as
// the platform's library does; false, and no error, when nothing is there.
bool RemoveEntry(const std::wstring& path, const Status& status, std::error_code& error) {
    if (!status.Exists()) {
        if (!IsNotFound(status.error))
            error = Win32Error(status.error);
        return false;
    }
    const bool readOnly = status.attributes & FILE_ATTRIBUTE_READONLY;
    if (readOnly) {
        DWORD writable = status.attributes & ~FILE_ATTRIBUTE_READONLY;
        if (!SetFileAttributesW(path.c_str(), writable ? writable : FILE_ATTRIBUTE_NORMAL)) {
            error = Win32Error(GetLastError());
            return false;
        }
    }
    if (status.IsFolder() ? RemoveDirectoryW(path.c_str()) : DeleteFileW(path.c_str()))
        return true;
    error = Win32Error(GetLastError());
    if (readOnly) // nothing was removed: leave it as it was
        SetFileAttributesW(path.c_str(), status.attributes);
    return false;
}

void RemoveTree(const std::wstring& path, std::uintmax_t& removed, std::error_code& error) {
    const Status status = StatusOf(path);
    if (status.IsOwnFolder()) {
        for (const std::wstring& name : EntryNames(path, error)) {
            RemoveTree(Join(path, name), removed, error);
            if (error)
                return;
        }
        if (error && !IsNotFound(static_cast<DWORD>(error.value())))
            return;
        error.clear(); // a folder that went away meanwhile is removed all the same
    }
    removed += RemoveEntry(path, status, error);
}

[[noreturn]] void Throw(const std::error_code& error, const char* operation) {
    throw std::system_error(error, operation);
}

// The error-code forms report running out of memory as an error too.
template <typename Operation> void Guarded(std::error_code& error, Operation operation) noexcept {
    error.clear();
    try {
        operation();
    } catch (const std::bad_alloc&) {
        error = std::make_error_code(std::errc::not_enough_memory);
    }
}

} // namespace

const std::error_category& Win32Category() noexcept {
    static const Win32ErrorCategory category;
    return category;
}

bool Exists(const std::wstring& path, std::error_code& error) noexcept {
    error.clear();
    const Status status = StatusOf(path);
    if (!status.Exists() && !IsNotFound(status.error))
        error = Win32Error(status.error);
    return status.Exists();
}

bool Exists(const std::wstring& path) {
    std::error_code error;
    bool exists = Exists(path, error);
    if (error)
        Throw(error, "exists");
    return exists;
}

void Copy(const std::wstring& from, const std::wstring& to, std::error_code& error) noexcept {
    Guarded(error, [&] { CopyEntry(from, to, error); });
}

void Copy(const std::wstring& from, const std::wstring& to) {
    std::error_code error;
    CopyEntry(from, to, error);
    if (error)
        Throw(error, "copy");
}

bool Remove(const std::wstring& path) {
    std::error_code error;
    bool removed = RemoveEntry(path, StatusOf(path), error);
    if (error)
        Throw(error, "remove");
    return removed;
}

std::uintmax_t RemoveAll(const std::wstring& path, std::error_code& error) noexcept {
    std::uintmax_t removed = 0;
    Guarded(error, [&] { RemoveTree(path, removed, error); });
    return error ? static_cast<std::uintmax_t>(-1) : removed;
}

std::uintmax_t RemoveAll(const std::wstring& path) {
    std::error_code error;
    std::uintmax_t removed = RemoveAll(path, error);
    if (error)
        Throw(error, "remove_all");
    return removed;
}

std::vector<std::wstring> List(const std::wstring& folder) {
    std::error_code error;
    std::vector<std::wstring> entries = EntryNames(folder, error);
    if (error)
        Throw(error, "directory_iterator");
    for (std::wstring& entry : entries)
        entry = Join(folder, entry);
    return entries;
}

LineRead ReadFirstLine(const std::wstring& path, std::string& line) {
    line.clear();
    ScopedFile file(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file)
        return LineRead::NotOpened;
    char block[4096];
    DWORD read = 0;
    while (ReadFile(file.Get(), block, sizeof(block), &read, nullptr)) {
        const char* begin = block;
        const char* end = block + read;
        const char* stop = std::find_if(begin, end, [](char c) { return c == '\n' || c == 0x1A; });
        line.append(begin, stop);
        if (stop != end && *stop == '\n') {
            if (!line.empty() && line.back() == '\r')
                line.pop_back();
            return LineRead::Read;
        }
        if (stop != end || read == 0) // Ctrl-Z or the file's end
            return line.empty() ? LineRead::Empty : LineRead::Read;
    }
    return LineRead::Failed;
}

std::wstring Join(const std::wstring& folder, const std::wstring& name) {
    if (folder.empty() || folder.back() == L'\\' || folder.back() == L'/')
        return folder + name;
    return folder + L"\\" + name;
}

std::wstring Extension(const std::wstring& path) {
    const std::wstring name = FileName(path);
    size_t dot = name.rfind(L'.');
    if (name == L"." || name == L".." || dot == std::wstring::npos)
        return std::wstring();
    return name.substr(dot);
}

} // namespace FileSystem
