#include "FileTree.h"

#include <windows.h>

namespace fs = std::filesystem;

namespace {

void CopyOneFile(const fs::path& from, const fs::path& to, std::error_code& error) {
    if (!CopyFileW(from.c_str(), to.c_str(), FALSE))
        error.assign(static_cast<int>(GetLastError()), std::system_category());
}

void CopyFolder(const fs::path& from, const fs::path& to, std::error_code& error) {
    // Missing parents are made too: an update repairs an agent folder that
    // was removed with its parent.
    if (!fs::exists(to, error) && !error)
        fs::create_directories(to, error);
    if (error)
        return;
    fs::directory_iterator entries(from, error);
    for (; !error && entries != fs::directory_iterator(); entries.increment(error)) {
        CopyTree(entries->path(), to / entries->path().filename(), error);
        if (error)
            return;
    }
}

} // namespace

void CopyTree(const fs::path& from, const fs::path& to, std::error_code& error) noexcept {
    error.clear();
    try {
        fs::file_status source = fs::status(from, error);
        if (error)
            return;
        if (fs::is_directory(source))
            CopyFolder(from, to, error);
        else if (std::error_code ignored; fs::is_directory(to, ignored))
            CopyOneFile(from, to / from.filename(), error);
        else
            CopyOneFile(from, to, error);
    } catch (const std::exception&) { // out of memory while building a path
        error = std::make_error_code(std::errc::not_enough_memory);
    }
}
