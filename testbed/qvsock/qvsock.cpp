// The parent product's HTTP client library double: journals every request
// with all its arguments and answers as HKLM\SOFTWARE\ZephTestBed\Qvsock says,
// writing the "server's" answer to the file the caller named.
#include "QvsockDouble.h"

#include "HostDouble.h"
#include "Journal.h"
#include "ScopedHandle.h"

#include <cstdint>
#include <string>

namespace {

std::string Text(const char* text) {
    return text ? text : "NULL";
}

std::string OutText(const void* pointer) {
    return pointer ? "out" : "NULL";
}

DWORD ReadDword(const wchar_t* name, DWORD fallback) {
    DWORD value = fallback;
    TestBedRegistry::ReadDword(kQvsockBehaviourKey, name, value);
    return value;
}

// Writes the whole answer; the bytes written, or -1 when the file cannot be made.
int WriteAnswer(const char* path, const std::string& answer) {
    if (!path)
        return -1;
    ScopedFile file(CreateFileA(path, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                FILE_ATTRIBUTE_NORMAL, nullptr));
    DWORD written = 0;
    if (!file ||
        !WriteFile(file.Get(), answer.data(), static_cast<DWORD>(answer.size()), &written, nullptr))
        return -1;
    return static_cast<int>(written);
}

// Copies the file's bytes as the answer; the bytes written, or -1 when it cannot.
int CopyAnswer(const char* path, const std::wstring& source) {
    WIN32_FILE_ATTRIBUTE_DATA copied{};
    if (!path || !CopyFileW(source.c_str(), Widen(path).c_str(), FALSE) ||
        !GetFileAttributesExA(path, GetFileExInfoStandard, &copied))
        return -1;
    return static_cast<int>(copied.nFileSizeLow);
}

int Send(const char* commandPath, int flag, const char* body, uint32_t bodyLength,
         const char* responseFile, int* httpResponseCode, int* responseLength, int reserved,
         const char* commandText) {
    std::string bodyText = body ? std::string(body, bodyLength) : "NULL";
    AppendJournalLine(kQvsockJournal, "qvSendHttpToCRVLServer2|" + Text(commandPath) + "|" +
                                          std::to_string(flag) + "|" + bodyText + "|" +
                                          std::to_string(bodyLength) + "|" + Text(responseFile) +
                                          "|" + OutText(httpResponseCode) + "|" +
                                          OutText(responseLength) + "|" + std::to_string(reserved) +
                                          "|" + Text(commandText));
    DWORD result = ReadDword(kQvsockSendResultValue, 1);
    if (httpResponseCode)
        *httpResponseCode =
            static_cast<int>(ReadDword(kQvsockHttpCodeValue, kQvsockDefaultHttpCode));
    int written = 0;
    if (result != 0 && !ReadDword(kQvsockNoAnswerFileValue, 0)) {
        std::wstring source;
        if (TestBedRegistry::ReadText(kQvsockBehaviourKey, kQvsockAnswerFromValue, source)) {
            written = CopyAnswer(responseFile, source);
        } else {
            std::wstring answer;
            std::string text =
                TestBedRegistry::ReadText(kQvsockBehaviourKey, kQvsockAnswerValue, answer)
                    ? Narrow(answer)
                    : std::string(kQvsockDefaultAnswer);
            written = WriteAnswer(responseFile, text);
        }
        if (written < 0)
            return 0;
    }
    if (responseLength)
        *responseLength = written;
    return static_cast<int>(result);
}

} // namespace

extern "C" int qvSendHttpToCRVLServer2(const char* commandPath, int flag, const char* body,
                                       uint32_t bodyLength, const char* responseFile,
                                       int* httpResponseCode, int* responseLength, int reserved,
                                       const char* commandText) {
    try {
        return Send(commandPath, flag, body, bodyLength, responseFile, httpResponseCode,
                    responseLength, reserved, commandText);
    } catch (...) {
        return 0;
    }
}
