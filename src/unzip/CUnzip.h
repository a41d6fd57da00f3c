#pragma once
// Unpacking the agent's package archive through the archive library's unz
// functions, bound at run time from a library that passed the issuer check.
#include "EntryPath.h"
#include "ScopedHandle.h"

#include <unzip.h>

#include <cstdint>
#include <string>

// Archive errors that abort an extraction; the code is the failing call's.
class CZipCommonException {
  public:
    explicit CZipCommonException(int32_t code) : m_code(code) {}
    int32_t Code() const { return m_code; }

  private:
    int32_t m_code;
};

// A file that could not be made or written; the code is the system error.
class CWinFileException : public CZipCommonException {
  public:
    using CZipCommonException::CZipCommonException;
};

// An output file; throws CWinFileException on any failure.
class CWinFile {
  public:
    CWinFile(const char* path, DWORD access, DWORD share, DWORD creation, DWORD attributes);
    void Write(const void* data, DWORD size);
    void Flush();
    void SetTimes(const FILETIME& time);

  private:
    ScopedFile m_file;
};

enum UnzipResult : int {
    UNZIP_OK = 0,
    UNZIP_NOT_READY = -1,       // no library, no archive, or the open failed
    UNZIP_NO_TARGET = -102,     // no target folder given
    UNZIP_NO_ENTRY_INFO = -104, // the library lacks unzGetCurrentFileInfo
    // An entry named outside the target folder: minizip's own codes run from
    // -100 to -105 and zlib's from -6 to 2, so no library call answers this.
    UNZIP_UNSAFE_ENTRY = -106,
};

class CUnzip {
  public:
    // Called with each entry's name; answering 0 skips the entry.
    using EntryCallback = int (*)(const char* name, void* context);

    CUnzip();
    virtual ~CUnzip();
    CUnzip(const CUnzip&) = delete;
    CUnzip& operator=(const CUnzip&) = delete;

    bool Load();
    int Open(const char* archivePath, bool wantZipExtension);
    int Extract(const char* targetFolder, int keepPaths, int overwrite, EntryCallback callback,
                void* context);
    int Close();
    void SetLibraryDirectory(const std::string& folder) { m_libraryDirectory = folder; }

  private:
    bool LoadLibraryFile(const std::string& path);
    int ExtractCurrentFile(const std::string& targetFolder, int keepPaths, int overwrite,
                           EntryCallback callback, void* context);
    int CopyCurrentFile(const std::string& outputPath, int overwrite, uint32_t dosDateTime);

    unzFile m_archive = nullptr;
    char m_archivePath[261] = {};
    ScopedModule m_module;
    std::string m_libraryDirectory;
    decltype(&unzOpen) m_unzOpen = nullptr;
    decltype(&unzClose) m_unzClose = nullptr;
    decltype(&unzGetGlobalInfo) m_unzGetGlobalInfo = nullptr;
    decltype(&unzGoToNextFile) m_unzGoToNextFile = nullptr;
    decltype(&unzLocateFile) m_unzLocateFile = nullptr;
    decltype(&unzGetCurrentFileInfo) m_unzGetCurrentFileInfo = nullptr;
    decltype(&unzOpenCurrentFile) m_unzOpenCurrentFile = nullptr;
    decltype(&unzReadCurrentFile) m_unzReadCurrentFile = nullptr;
    decltype(&unzCloseCurrentFile) m_unzCloseCurrentFile = nullptr;
};

// Creates `folder` and every missing parent, one level at a time from the
// root. 0 when it exists afterwards; 8 for an empty or over-long path; else
// the system error.
int CreateFolderTree(const std::string& folder);
