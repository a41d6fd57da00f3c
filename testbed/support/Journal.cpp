#include "Journal.h"

#include "HostDouble.h"
#include "ScopedHandle.h"

namespace {

ScopedFile OpenForAppend(const std::wstring& path) {
    return ScopedFile(CreateFileW(path.c_str(), FILE_APPEND_DATA,
                                  FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                  OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
}

} // namespace

// Opened and closed per line: every call's line is on disk when it returns.
// The journal's folder is made on first use, whoever removed it.
void AppendJournalLine(const std::wstring& path, const std::string& line) {
    ScopedFile file = OpenForAppend(path);
    if (!file && GetLastError() == ERROR_PATH_NOT_FOUND &&
        CreateFolderTree(path.substr(0, path.rfind(L'\\'))))
        file = OpenForAppend(path);
    if (!file)
        return;
    std::string text = line + "\n";
    DWORD written = 0;
    WriteFile(file.Get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
}
