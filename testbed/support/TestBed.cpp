#include "TestBed.h"

#include "ScopedHandle.h"

#include <filesystem>

const char kValidDetectionRecord[] =
    "f, 0, 1, 00:1A:2B:3C:4D:5E, IP, 00-1A-2B-3C-4D-5F, 00 1A 2B 3C 4D 60, TCP, SYN ACK, "
    "192.168.0.1, 49152, fe80::1, 443, 60, -1, 0, 4294967295, 3, 0x4e6f7465, 0, 100, 7, 12, 0, "
    "0x474554, , 1, 1700000000, 1699999999";

std::string LongDetectionRecord() {
    std::string record = kValidDetectionRecord;
    size_t afterField26 = 0;
    for (int comma = 0; comma < 26; ++comma)
        afterField26 = record.find(',', afterField26) + 1;
    return record.insert(afterField26, " any, text,here, 6e6f74657061642e657865, , x, -,");
}

const wchar_t kImageOptionsKey[] =
    L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\Image File Execution Options\\";

std::wstring BinDir() {
    std::wstring path(MAX_PATH, L'\0');
    for (;;) {
        DWORD length = GetModuleFileNameW(nullptr, &path[0], static_cast<DWORD>(path.size()));
        if (length < path.size()) {
            path.resize(length);
            break;
        }
        path.resize(path.size() * 2);
    }
    return path.substr(0, path.rfind(L'\\') + 1);
}

std::wstring BinPath(const wchar_t* name) {
    return BinDir() + name;
}

// Backslashes are literal unless they precede a quote; those before a quote
// (and before the closing quote) are doubled, and the quote itself escaped.
std::wstring QuoteArgument(const std::wstring& argument) {
    if (!argument.empty() && argument.find_first_of(L" \t\n\v\"") == std::wstring::npos)
        return argument;
    std::wstring quoted = L"\"";
    size_t backslashes = 0;
    for (wchar_t c : argument) {
        if (c == L'\\') {
            ++backslashes;
            continue;
        }
        if (c == L'"')
            quoted.append(backslashes * 2 + 1, L'\\');
        else
            quoted.append(backslashes, L'\\');
        backslashes = 0;
        quoted += c;
    }
    quoted.append(backslashes * 2, L'\\');
    quoted += L'"';
    return quoted;
}

namespace {

void AddFiles(const std::wstring& folder, const std::string& relative, FileTree& tree) {
    WIN32_FIND_DATAW entry;
    HANDLE find = FindFirstFileW((folder + L"\\*").c_str(), &entry);
    if (find == INVALID_HANDLE_VALUE)
        return;
    do {
        std::wstring name = entry.cFileName;
        if (name == L"." || name == L"..")
            continue;
        std::string path = relative + Narrow(name);
        if (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
            AddFiles(folder + L"\\" + name, path + "\\", tree);
        else
            ReadFileBytes(folder + L"\\" + name, tree[path]);
    } while (FindNextFileW(find, &entry));
    FindClose(find);
}

} // namespace

FileTree SnapshotFiles(const std::wstring& folder) {
    FileTree tree;
    AddFiles(folder, "", tree);
    return tree;
}

bool ReadFileBytes(const std::wstring& path, std::string& bytes) {
    ScopedFile file(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                nullptr, OPEN_EXISTING, 0, nullptr));
    if (!file)
        return false;
    bytes.clear();
    char buffer[4096];
    DWORD read = 0;
    while (ReadFile(file.Get(), buffer, sizeof(buffer), &read, nullptr) && read > 0)
        bytes.append(buffer, read);
    return true;
}

bool WriteFileBytes(const std::wstring& path, const std::string& bytes) {
    ScopedFile file(CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                FILE_ATTRIBUTE_NORMAL, nullptr));
    DWORD written = 0;
    return file &&
           WriteFile(file.Get(), bytes.data(), static_cast<DWORD>(bytes.size()), &written,
                     nullptr) &&
           written == bytes.size();
}

bool PathExists(const std::wstring& path) {
    return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

std::wstring TempPath(const wchar_t* name) {
    wchar_t folder[MAX_PATH] = {};
    GetTempPathW(MAX_PATH, folder);
    return std::wstring(folder) + name;
}

std::vector<std::string> JournalLines(const std::wstring& path) {
    std::string bytes;
    return ReadFileBytes(path, bytes) ? SplitLines(bytes) : std::vector<std::string>{};
}

std::vector<std::string> SplitLines(const std::string& text) {
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos)
            end = text.size();
        std::string line = text.substr(start, end - start);
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        lines.push_back(line);
        start = end + 1;
    }
    return lines;
}

void RemoveFolderTree(const std::wstring& folder) {
    namespace fs = std::filesystem;
    // The toolchain's remove_all refuses read-only entries: make them writable first.
    std::error_code ignored;
    for (auto entry = fs::recursive_directory_iterator(fs::path(folder), ignored);
         !ignored && entry != fs::recursive_directory_iterator(); entry.increment(ignored))
        SetFileAttributesW(entry->path().c_str(), FILE_ATTRIBUTE_NORMAL);
    fs::remove_all(fs::path(folder), ignored);
}

// Wine answers 0 from GetProcessHandleCount; there the handle values in use
// are counted instead (Wine hands out small multiples of 4, the lowest free
// one first, so a handle that stays open takes a low value).
DWORD CountHandles(uintptr_t highestProbed) {
    DWORD count = 0;
    if (GetProcessHandleCount(GetCurrentProcess(), &count) && count > 0)
        return count;
    DWORD flags = 0;
    for (uintptr_t value = 4; value <= highestProbed; value += 4)
        count += GetHandleInformation(reinterpret_cast<HANDLE>(value), &flags) ? 1 : 0;
    return count;
}
