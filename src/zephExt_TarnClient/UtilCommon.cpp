#include "UtilCommon.h"

#include "DebugLog.h"
#include "CUnzip.h"
#include "AnsiText.h"
#include "JsonRequest.h"
#include "ResolveProc.h"
#include "ScopedHandle.h"
#include "ServerAnswer.h"
#include "ZephIntegration.h"

#include "Json.h"

#include <atomic>
#include <cstdio>
#include <string>

namespace {

constexpr DWORD kChildTimeoutMs = 300000;

// The pipe whose ends stand in for the child's output. The output is never
// read: the child runs with handle inheritance off in a console of its own.
struct LaunchPipe {
    ScopedKernelHandle read;
    ScopedKernelHandle write;
    ScopedKernelHandle errorWrite;
    ScopedKernelHandle readDuplicate;

    ~LaunchPipe() { CloseAll(); }

    void CloseAll() {
        Close(write, L"%s - CloseHandle for output write failed, err=%d");
        Close(errorWrite, L"%s - CloseHandle for output error write failed, err=%d");
        Close(readDuplicate, L"%s - CloseHandle for output read failed, err=%d");
        Close(read, L"%s - CloseHandle for temp output read failed, err=%d");
    }

    static void Close(ScopedKernelHandle& handle, const wchar_t* failure) {
        if (handle && !CloseHandle(handle.Release()))
            LOGW(LOG_ERROR, failure, L"LaunchCmd", static_cast<int>(GetLastError()));
    }
};

bool DuplicateWithinProcess(HANDLE source, BOOL inheritable, ScopedKernelHandle& duplicate) {
    HANDLE process = GetCurrentProcess();
    HANDLE raw = nullptr;
    if (!DuplicateHandle(process, source, process, &raw, 0, inheritable, DUPLICATE_SAME_ACCESS))
        return false;
    duplicate.Reset(raw);
    return true;
}

} // namespace

bool LaunchCmd(const wchar_t* program, const wchar_t* arguments, void* /*unused*/,
               uint32_t* exitCode) {
    const wchar_t* self = L"LaunchCmd";
    SECURITY_ATTRIBUTES inheritable = {sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
    HANDLE read = nullptr;
    HANDLE write = nullptr;
    if (!CreatePipe(&read, &write, &inheritable, 0)) {
        LOGW(LOG_ERROR, L"%s - CreatePipe failed, err=%d", self, static_cast<int>(GetLastError()));
        return false;
    }
    LaunchPipe pipe;
    pipe.read.Reset(read);
    pipe.write.Reset(write);
    if (!DuplicateWithinProcess(pipe.write.Get(), TRUE, pipe.errorWrite)) {
        LOGW(LOG_ERROR, L"%s - DuplicateHandle for output error write failed, err=%d", self,
             static_cast<int>(GetLastError()));
        return false;
    }
    if (!DuplicateWithinProcess(pipe.read.Get(), FALSE, pipe.readDuplicate)) {
        LOGW(LOG_ERROR, L"%s - DuplicateHandle for output read failed, err=%d", self,
             static_cast<int>(GetLastError()));
        return false;
    }
    LaunchPipe::Close(pipe.read, L"%s - CloseHandle for temp output read failed, err=%d");
    // Nobody reads the child's output. Where the child still gets the write
    // end (Wine hands standard handles over even without inheritance), a
    // closed read end makes its writes fail at once instead of filling the
    // pipe and blocking it until the five-minute limit.
    LaunchPipe::Close(pipe.readDuplicate, L"%s - CloseHandle for output read failed, err=%d");

    bool succeeded = PrepAndLaunchRedirectedChild(program, arguments, exitCode, pipe.write.Get(),
                                                  pipe.errorWrite.Get());
    pipe.CloseAll();
    return succeeded;
}

bool PrepAndLaunchRedirectedChild(const wchar_t* program, const wchar_t* arguments,
                                  uint32_t* exitCode, HANDLE standardOutput, HANDLE standardError) {
    const wchar_t* self = L"PrepAndLaunchRedirectedChild";
    if (!program) {
        LOGW(LOG_ERROR, L"%s - szProgram is null", self);
        return false;
    }
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    startup.hStdOutput = standardOutput;
    startup.hStdError = standardError;

    std::wstring commandLine = std::wstring(L"\"") + program + L"\"";
    if (arguments)
        commandLine += std::wstring(L" ") + arguments;
    LOGW(LOG_DETAIL, L"%s - PrepAndLaunchRedirectedChild: %s, stdout(%d),stderr(%d)", self,
         commandLine.c_str(), static_cast<int>(reinterpret_cast<intptr_t>(standardOutput)),
         static_cast<int>(reinterpret_cast<intptr_t>(standardError)));

    PROCESS_INFORMATION info = {};
    if (!CreateProcessW(nullptr, &commandLine[0], nullptr, nullptr, FALSE, CREATE_NEW_CONSOLE,
                        nullptr, nullptr, &startup, &info)) {
        DWORD error = GetLastError();
        if (exitCode)
            *exitCode = error;
        LOGW(LOG_ERROR, L"%s - CreateProcessW failed, err=%d", self, static_cast<int>(error));
        return false;
    }
    ScopedKernelHandle process(info.hProcess);
    ScopedKernelHandle thread(info.hThread);

    DWORD waited = WaitForSingleObject(process.Get(), kChildTimeoutMs);
    LOGW(LOG_DETAIL, L"%s - WaitForSingleObject result=0x%x", self, static_cast<unsigned>(waited));
    if (waited == WAIT_TIMEOUT) {
        // Abandoned, not terminated: the agent's installer may still finish.
        LOGW(LOG_ERROR, L"%s - CreateProcessW wait timeout", self);
        return false;
    }
    if (waited == WAIT_FAILED) {
        LOGW(LOG_ERROR, L"%s - CreateProcessW wait failed, error=%d", self,
             static_cast<int>(GetLastError()));
        return false;
    }
    if (!exitCode)
        return true;
    DWORD code = 0;
    if (!GetExitCodeProcess(process.Get(), &code)) {
        *exitCode = GetLastError();
        LOGW(LOG_ERROR, L"%s - GetExitCodeProcess failed, err=%d", self,
             static_cast<int>(*exitCode));
        return false;
    }
    *exitCode = code;
    LOGW(LOG_DETAIL, L"%s - got return code %d", self, static_cast<int>(code));
    if (code != 0) {
        LOGW(LOG_ERROR, L"%s - Return code is not zero, err=%d", self, static_cast<int>(code));
        return false;
    }
    return true;
}

bool DecompressFile(const wchar_t* archivePath, const wchar_t* targetFolder) {
    const wchar_t* self = L"DecompressFile";
    LOGW(LOG_DETAIL, L"%s - DecompressFile: compress_file_path = %s", self, archivePath);
    LOGW(LOG_DETAIL, L"%s - DecompressFile: target_folder_path = %s", self, targetFolder);
    // The construction loads the archive library and Load loads it again; the
    // second load is the one the extraction uses.
    CUnzip unzip;
    if (!unzip.Load()) {
        LOGW(LOG_ERROR, L"%s - Failed to load CUnzip", self);
        return false;
    }
    try {
        std::string archive = WideToAnsi(archivePath);
        std::string target = WideToAnsi(targetFolder);
        int result = unzip.Open(archive.c_str(), true);
        if (result != UNZIP_OK) {
            LOGW(LOG_ERROR, L"%s - Failed to open zip file: %S, CUnzip return code: %d", self,
                 archive.c_str(), result);
            return false;
        }
        if (unzip.Extract(target.c_str(), 1, 1, nullptr, nullptr) != UNZIP_OK) {
            LOGW(LOG_ERROR, L"%s - failed to extract zipped files", self);
            return false;
        }
        LOGW(LOG_DETAIL, L"%s - Succeeded to extract zipped files", self);
        unzip.Close();
        return true;
    } catch (const CZipCommonException& error) {
        LOGW(LOG_ERROR, L"%s - error code: %d", self, static_cast<int>(error.Code()));
        return false;
    }
}

// ---- Result notification to the management server ---------------------------

namespace {

// The parent product's HTTP client library, found in its install folder.
constexpr wchar_t kQvsockFile[] = L"Qvsock_64x.dll";
constexpr wchar_t kQvsockModule[] = L"Qvsock_64x";
constexpr char kQvsockName[] = "Qvsock_64x";
constexpr char kSendFunctionName[] = "qvSendHttpToCRVLServer2";
constexpr char kServerCommandPath[] = "corvale_tarn/command";
constexpr char kCommandPrefix[] = "Tarn+";
// The library writes the server's answer here, relative to the current folder.
constexpr char kResponseFolder[] = ".\\";
constexpr char kResponseName[] = "qvsock_response";

using SendHttpToServerFn = int (*)(const char* commandPath, int flag, const char* body,
                                   uint32_t bodyLength, const char* responseFile,
                                   int* httpResponseCode, int* responseLength, int reserved,
                                   const char* commandText);

// Resolved once; the library then stays loaded for the life of the process.
// Two threads resolving at once both load it, which costs only a reference.
std::atomic<SendHttpToServerFn> g_sendHttpToServer{nullptr};

bool ResolveSendFunction() {
    const char* self = "talkToTarnServer";
    std::wstring installPath;
    if (!GetCRVLInstallPath(installPath)) {
        LOGA(LOG_ERROR, "%s - Unable to get CRVL install path.", self);
        return false;
    }
    SetDllDirectoryW(installPath.c_str());
    HMODULE loaded = LoadLibraryW(kQvsockFile);
    SetDllDirectoryW(nullptr);
    if (!loaded) {
        LOGA(LOG_ERROR, "%s - Unable to load %s.dll.", self, kQvsockName);
        return false;
    }
    auto send = ResolveProc<SendHttpToServerFn>(GetModuleHandleW(kQvsockModule), kSendFunctionName);
    if (!send) {
        LOGA(LOG_ERROR, "%s - Unable to load function %s.", self, kSendFunctionName);
        return false;
    }
    g_sendHttpToServer = send;
    return true;
}

} // namespace

bool loadFileToString(const char* path, std::string& content) {
    const char* self = "loadFileToString";
    FILE* file = fopen(path, "rb");
    if (!file) {
        LOGA(LOG_ERROR, "%s - Unable to open %s.", self, path);
        return false;
    }
    long length = -1;
    if (fseek(file, 0, SEEK_END) == 0)
        length = ftell(file);
    rewind(file);
    size_t read = 0;
    if (length > 0) {
        content.assign(static_cast<size_t>(length), '\0');
        read = fread(&content[0], 1, content.size(), file);
    } else {
        content.clear();
    }
    (void)fclose(file); // opened for reading: nothing to flush
    if (length < 0 || read != static_cast<size_t>(length)) {
        LOGA(LOG_ERROR, "%s - Unable to read file(%s), expect length(%d), actual(%d)", self, path,
             static_cast<int>(length), static_cast<int>(read));
        return false;
    }
    return true;
}

bool talkToTarnServer(const JsonValue& request, JsonRequest& response, const char* commandText) {
    const char* self = "talkToTarnServer";
    if (!g_sendHttpToServer && !ResolveSendFunction())
        return false;

    JsonBuffer body;
    JsonWriter writer(body);
    request.Accept(writer);
    std::string command = std::string(kCommandPrefix) + (commandText ? commandText : "");
    std::string responseFile = std::string(kResponseFolder) + kResponseName;

    int httpCode = 0;
    int responseLength = 0;
    int sent = g_sendHttpToServer.load()(
        kServerCommandPath, 0, body.GetString(), static_cast<uint32_t>(body.GetSize()),
        responseFile.c_str(), &httpCode, &responseLength, 0, command.c_str());
    if (!sent) {
        LOGA(LOG_ERROR, "%s - Unable to send request to server, responseCode(%d)", self, httpCode);
        return false;
    }
    LOGA(LOG_DETAIL, "%s - Send request to server succeeded, responseCode(%d)", self, httpCode);

    std::string answer;
    if (!loadFileToString(responseFile.c_str(), answer)) {
        LOGA(LOG_ERROR, "%s - Unable to load qvSock response, file=%s", self, responseFile.c_str());
        return false;
    }
    DeleteFileA(responseFile.c_str());
    if (!response.Parse(static_cast<int32_t>(answer.size()), answer.c_str())) {
        LOGA(LOG_ERROR, "%s - Unable to prase response json, error: %d", self,
             response.ParseErrorCode());
        return false;
    }
    return true;
}

bool sendNotifyResultToServer(int32_t notifyType, int32_t result, const char* commandText) {
    const char* self = "sendNotifyResultToServer";
    JsonDocument record(rapidjson::kObjectType);
    JsonDocument::AllocatorType& allocator = record.GetAllocator();
    record.AddMember("name", "NotifyResult", allocator);
    record.AddMember("notifyType", notifyType, allocator);
    record.AddMember("result", result, allocator);

    JsonRequest answer;
    bool talked = false;
    try {
        talked = talkToTarnServer(record, answer, commandText);
    } catch (...) { // out of memory on the way: the server was not told
        talked = false;
    }
    if (!talked) {
        LOGA(LOG_ERROR, "%s - Unable to talk to Tarn Server.", self);
        return false;
    }
    return CheckServerAnswer(answer.Document()) == ServerAnswer::Success;
}
