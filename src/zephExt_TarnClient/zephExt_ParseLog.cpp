#include "zephExt_TarnClient.h"

#include "DebugLog.h"
#include "ExportBoundary.h"
#include "FileSystem.h"
#include "ResultCodes.h"
#include "ZephIntegration.h"
#include "eventLogValidation.h"

#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

const char kSelf[] = "zephExt_ParseLog";
const wchar_t kLogType[] = L"ZEPH_IPRODUCT_DETECTION_LOG";
// How the Windows C++ library's text stream describes a read that failed.
const char kReadFailure[] = "ios_base::badbit set: iostream stream error";

void RemoveLogFile(const wchar_t* path) {
    if (_wremove(path) != 0)
        LOGA(LOG_ERROR, "%s - _wremove error: %d", kSelf, static_cast<int>(GetLastError()));
}

// "%s" into a buffer of `capacity` characters: cut to fit, always terminated.
void CopyTruncated(wchar_t* buffer, uint32_t capacity, const wchar_t* text) {
    if (!buffer || capacity == 0)
        return;
    size_t length = wcsnlen(text, capacity - 1);
    wmemcpy(buffer, text, length);
    buffer[length] = L'\0';
}

uint32_t ParseLog(const wchar_t* logFilePath, uint32_t typeBufferSize, wchar_t* typeBuffer,
                  char** data, uint32_t* dataSize) {
    if (!IsValidLoader())
        return RESULT_PARSELOG_FAILED;

    // A host that passes no path gets the open failure.
    std::string line;
    switch (logFilePath ? FileSystem::ReadFirstLine(logFilePath, line)
                        : FileSystem::LineRead::NotOpened) {
    case FileSystem::LineRead::NotOpened:
        LOGW(LOG_ERROR, L"%s - Can't open the file: %s", L"zephExt_ParseLog", logFilePath);
        return RESULT_PARSELOG_FAILED;
    case FileSystem::LineRead::Failed: // the file stays for a later try
        LOGA(LOG_ERROR, "%s - Read file error: %s", kSelf, kReadFailure);
        return RESULT_PARSELOG_FAILED;
    case FileSystem::LineRead::Empty:
        LOGA(LOG_ERROR, "%s - Empty file", kSelf);
        RemoveLogFile(logFilePath);
        return RESULT_PARSELOG_INVALID;
    case FileSystem::LineRead::Read:
        break;
    }
    std::vector<std::string> fields = splitLogRecord(line);
    if (!verifyLog(fields)) {
        LOGA(LOG_ERROR, "%s - Invalid detection log.", kSelf);
        RemoveLogFile(logFilePath);
        return RESULT_PARSELOG_INVALID;
    }

    // Handed to the host, which gives it back through zephExt_Free. Copied as
    // "%s": a NUL inside an unchecked field ends the text, the rest stays 0.
    size_t size = line.size() + 1;
    char* copy = static_cast<char*>(std::malloc(size));
    if (!copy)
        return RESULT_PARSELOG_FAILED;
    std::memset(copy, 0, size);
    std::memcpy(copy, line.c_str(), std::strlen(line.c_str()));
    CopyTruncated(typeBuffer, typeBufferSize, kLogType);
    if (data)
        *data = copy;
    else
        std::free(copy);
    if (dataSize)
        *dataSize = static_cast<uint32_t>(size);
    return RESULT_SUCCESS;
}

} // namespace

// A file that cannot be read through to the end (memory running out) counts
// as unreadable: the file stays.
extern "C" uint32_t zephExt_ParseLog(const wchar_t* logFilePath, uint32_t typeBufferSize,
                                     wchar_t* typeBuffer, char** data, uint32_t* dataSize) {
    return Shielded(kSelf, RESULT_PARSELOG_FAILED, [&] {
        return ParseLog(logFilePath, typeBufferSize, typeBuffer, data, dataSize);
    });
}
