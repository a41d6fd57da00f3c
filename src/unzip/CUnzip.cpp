#include "CUnzip.h"

#include "DebugLog.h"
#include "EntryPath.h"
#include "IssuerCheck.h"
#include "ResolveProc.h"

#include <cstring>
#include <vector>

namespace {

constexpr DWORD kCopyBlock = 16383;
constexpr size_t kMaxPath = 260;
constexpr int kPathRefused = 8; // an empty or over-long folder path

// The running executable's folder, with its trailing backslash; empty when
// it can't be found.
std::string HostExecutableFolder() {
    char path[MAX_PATH + 1] = {};
    if (!GetModuleFileNameA(nullptr, path, MAX_PATH))
        return std::string();
    char drive[_MAX_DRIVE] = {};
    char folder[_MAX_DIR] = {};
    if (_splitpath_s(path, drive, _MAX_DRIVE, folder, _MAX_DIR, nullptr, 0, nullptr, 0) != 0)
        return std::string();
    return std::string(drive) + folder;
}

// Server Core ships the archive library under another name.
bool IsServerCore() {
    using GetProductInfoFn = BOOL(WINAPI*)(DWORD, DWORD, DWORD, DWORD, PDWORD);
    auto getProductInfo =
        ResolveProc<GetProductInfoFn>(GetModuleHandleW(L"kernel32.dll"), "GetProductInfo");
    OSVERSIONINFOEXW version = {};
    version.dwOSVersionInfoSize = sizeof(version);
    DWORD type = 0;
    if (!getProductInfo || !GetVersionExW(reinterpret_cast<OSVERSIONINFOW*>(&version)) ||
        !getProductInfo(version.dwMajorVersion, version.dwMinorVersion, version.wServicePackMajor,
                        version.wServicePackMinor, &type))
        return false;
    for (DWORD core : {12u, 13u, 14u, 29u, 39u, 40u, 41u})
        if (type == core)
            return true;
    return false;
}

bool Exists(const std::string& path) {
    return GetFileAttributesA(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

} // namespace

CWinFile::CWinFile(const char* path, DWORD access, DWORD share, DWORD creation, DWORD attributes)
    : m_file(CreateFileA(path, access, share, nullptr, creation, attributes, nullptr)) {
    if (!m_file)
        throw CWinFileException(static_cast<int32_t>(GetLastError()));
}

void CWinFile::Write(const void* data, DWORD size) {
    DWORD written = 0;
    if (!WriteFile(m_file.Get(), data, size, &written, nullptr) || written != size)
        throw CWinFileException(static_cast<int32_t>(GetLastError()));
}

void CWinFile::Flush() {
    if (!FlushFileBuffers(m_file.Get()))
        throw CWinFileException(static_cast<int32_t>(GetLastError()));
}

void CWinFile::SetTimes(const FILETIME& time) {
    if (!SetFileTime(m_file.Get(), &time, &time, &time))
        throw CWinFileException(static_cast<int32_t>(GetLastError()));
}

// "C:\", or "\\server\share\" of a UNC path: the part no level is made for.
static size_t RootLength(const std::string& path) {
    if (path.rfind("\\\\", 0) == 0) {
        size_t server = path.find('\\', 2);
        size_t share = server == std::string::npos ? server : path.find('\\', server + 1);
        return share == std::string::npos ? path.size() : share + 1;
    }
    if (path.size() >= 2 && path[1] == ':')
        return path.size() >= 3 && path[2] == '\\' ? 3 : 2;
    return 0;
}

int CreateFolderTree(const std::string& folder) {
    if (folder.empty() || folder.size() > kMaxPath)
        return kPathRefused;
    if (Exists(folder))
        return 0;
    for (size_t next = folder.find('\\', RootLength(folder));; next = folder.find('\\', next + 1)) {
        std::string level = folder.substr(0, next);
        if (!CreateDirectoryA(level.c_str(), nullptr) && GetLastError() != ERROR_ALREADY_EXISTS)
            return static_cast<int>(GetLastError());
        if (next == std::string::npos)
            return 0;
    }
}

CUnzip::CUnzip() {
    LoadLibraryFile(HostExecutableFolder() +
                    (IsServerCore() ? "libZipUnZipDll_64x.dll" : "zlibwapi.dll"));
}

CUnzip::~CUnzip() {
    Close();
}

bool CUnzip::Load() {
    std::string folder =
        m_libraryDirectory.empty() ? HostExecutableFolder() : m_libraryDirectory + "\\";
    return LoadLibraryFile(folder + "zlibwapi.dll");
}

bool CUnzip::LoadLibraryFile(const std::string& path) {
    // A second load replaces the module without freeing the first one: the
    // construction's load stays for the life of the process, as it always has.
    (void)m_module.Release();
    m_module.Reset(LoadLibraryWithIssuerCheckA(ZEPH_EXPECTED_ISSUER, path.c_str()));
    if (!m_module)
        return false;
    HMODULE module = m_module.Get();
    m_unzOpen = ResolveProc<decltype(m_unzOpen)>(module, "unzOpen");
    m_unzClose = ResolveProc<decltype(m_unzClose)>(module, "unzClose");
    m_unzGetGlobalInfo = ResolveProc<decltype(m_unzGetGlobalInfo)>(module, "unzGetGlobalInfo");
    m_unzGoToNextFile = ResolveProc<decltype(m_unzGoToNextFile)>(module, "unzGoToNextFile");
    m_unzLocateFile = ResolveProc<decltype(m_unzLocateFile)>(module, "unzLocateFile");
    m_unzGetCurrentFileInfo =
        ResolveProc<decltype(m_unzGetCurrentFileInfo)>(module, "unzGetCurrentFileInfo");
    m_unzOpenCurrentFile =
        ResolveProc<decltype(m_unzOpenCurrentFile)>(module, "unzOpenCurrentFile");
    m_unzReadCurrentFile =
        ResolveProc<decltype(m_unzReadCurrentFile)>(module, "unzReadCurrentFile");
    m_unzCloseCurrentFile =
        ResolveProc<decltype(m_unzCloseCurrentFile)>(module, "unzCloseCurrentFile");
    if (m_unzOpen && m_unzClose && m_unzGetGlobalInfo && m_unzGoToNextFile && m_unzLocateFile &&
        m_unzGetCurrentFileInfo && m_unzOpenCurrentFile && m_unzReadCurrentFile &&
        m_unzCloseCurrentFile)
        return true;
    m_module.Reset();
    return false;
}

int CUnzip::Open(const char* archivePath, bool wantZipExtension) {
    if (!m_module || !archivePath)
        return UNZIP_NOT_READY;
    memset(m_archivePath, 0, sizeof(m_archivePath));
    const char* dot = strrchr(archivePath, '.');
    if (wantZipExtension && (!dot || _stricmp(dot + 1, "zip") != 0)) {
        strncpy(m_archivePath, archivePath, 256);
        // 256 characters and ".Zip" fill the 261-byte buffer at most.
        strncat(m_archivePath, ".Zip", sizeof(m_archivePath) - strlen(m_archivePath) - 1);
    } else {
        strncpy(m_archivePath, archivePath, 260);
    }
    m_archive = m_unzOpen(m_archivePath);
    return m_archive ? UNZIP_OK : UNZIP_NOT_READY;
}

int CUnzip::Close() {
    if (!m_archive || !m_unzClose)
        return UNZIP_OK;
    int result = m_unzClose(m_archive);
    m_archive = nullptr;
    return result;
}

int CUnzip::Extract(const char* targetFolder, int keepPaths, int overwrite, EntryCallback callback,
                    void* context) {
    if (!m_module || !m_archive)
        return UNZIP_NOT_READY;
    if (!targetFolder)
        return UNZIP_NO_TARGET;
    unz_global_info global = {};
    int result = m_unzGetGlobalInfo(m_archive, &global);
    if (result != UNZ_OK || global.number_entry == 0)
        return result;
    for (uLong entry = 0;; ++entry) {
        result = ExtractCurrentFile(targetFolder, keepPaths, overwrite, callback, context);
        if (result != UNZIP_OK || entry + 1 >= global.number_entry)
            return result;
        result = m_unzGoToNextFile(m_archive);
        if (result != UNZ_OK)
            return result;
    }
}

int CUnzip::ExtractCurrentFile(const std::string& targetFolder, int keepPaths, int overwrite,
                               EntryCallback callback, void* context) {
    if (!m_unzGetCurrentFileInfo)
        return UNZIP_NO_ENTRY_INFO;
    unz_file_info info = {};
    char name[261] = {};
    int result =
        m_unzGetCurrentFileInfo(m_archive, &info, name, sizeof(name), nullptr, 0, nullptr, 0);
    if (result != UNZ_OK)
        return result;
    std::string entryName = EntryNameWithBackslashes(name);
    // Nothing may land outside the target folder, whatever the archive says.
    if (!IsSafeEntryName(entryName)) {
        LOGA(LOG_ERROR, "%s - Refused entry outside the target folder: %s",
             "CUnzip::ExtractCurrentFile", entryName.c_str());
        return UNZIP_UNSAFE_ENTRY;
    }
    if (callback && callback(entryName.c_str(), context) == 0)
        return UNZIP_OK;
    std::string outputPath = EntryOutputPath(targetFolder, entryName, keepPaths != 0);
    if (!entryName.empty() && entryName.back() == '\\') {
        // A folder entry never ends the extraction; a file inside a folder
        // that could not be made fails on its own.
        CreateFolderTree(outputPath.substr(0, outputPath.size() - 1));
        return UNZIP_OK;
    }
    size_t lastSlash = outputPath.rfind('\\');
    if (lastSlash != std::string::npos) {
        result = CreateFolderTree(outputPath.substr(0, lastSlash));
        if (result != 0)
            return result;
    }
    return CopyCurrentFile(outputPath, overwrite, static_cast<uint32_t>(info.dosDate));
}

int CUnzip::CopyCurrentFile(const std::string& outputPath, int overwrite, uint32_t dosDateTime) {
    int result = m_unzOpenCurrentFile(m_archive);
    if (result != UNZ_OK)
        return result;
    // Closes the entry on every way out, the exceptions included.
    struct EntryCloser {
        CUnzip& unzip;
        ~EntryCloser() { unzip.m_unzCloseCurrentFile(unzip.m_archive); }
    } closer{*this};

    CWinFile file(outputPath.c_str(), GENERIC_WRITE, 0, CREATE_NEW + (overwrite ? 1 : 0),
                  FILE_ATTRIBUTE_NORMAL);
    std::vector<char> block(kCopyBlock);
    for (;;) {
        int read = m_unzReadCurrentFile(m_archive, block.data(), kCopyBlock);
        if (read < 0)
            return read;
        if (read == 0)
            break;
        file.Write(block.data(), static_cast<DWORD>(read));
    }
    file.Flush();
    FILETIME local = {};
    FILETIME utc = {};
    if (!DosDateTimeToFileTime(HIWORD(dosDateTime), LOWORD(dosDateTime), &local) ||
        !LocalFileTimeToFileTime(&local, &utc))
        GetSystemTimeAsFileTime(&utc);
    file.SetTimes(utc);
    return UNZIP_OK;
}
