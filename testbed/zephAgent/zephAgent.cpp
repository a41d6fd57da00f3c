// The host library double: answers the plug-in's calls as the test set up in
// the registry and appends one journal line per call, so a test can check
// exactly what the plug-in asked for and whether it gave every buffer back.
#include "HostDouble.h"
#include "Journal.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <set>
#include <string>

namespace {

std::mutex g_lock;
std::set<void*> g_handedOut; // buffers given to the caller and not yet freed

std::string ToUtf8(const std::wstring& text) {
    int length = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()),
                                     nullptr, 0, nullptr, nullptr);
    std::string narrow(static_cast<size_t>(length), '\0');
    if (length > 0)
        WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), &narrow[0],
                            length, nullptr, nullptr);
    return narrow;
}

void Journal(const std::string& line) {
    AppendJournalLine(HostJournalPath(), line);
}

DWORD Setting(const wchar_t* name, DWORD fallback) {
    DWORD value = fallback;
    TestBedRegistry::ReadDword(kHostBehaviourKey, name, value);
    return value;
}

#ifndef ZEPHAGENT_WITHOUT_SYSTEM_CALL
std::string SystemCallResponse() {
    std::wstring response;
    if (!TestBedRegistry::ReadText(kHostBehaviourKey, kSystemCallResponseValue, response))
        return kDefaultSystemCallResponse;
    return ToUtf8(response);
}

// The response text with its NUL, from this library's own heap.
char* HandOut(const std::string& text) {
    char* buffer = static_cast<char*>(std::malloc(text.size() + 1));
    if (!buffer)
        return nullptr;
    std::memcpy(buffer, text.c_str(), text.size() + 1);
    std::lock_guard<std::mutex> guard(g_lock);
    g_handedOut.insert(buffer);
    return buffer;
}
#endif

// "buffer" for one this library handed out (and frees it), "foreign" for
// any other pointer, which is left alone.
const char* TakeBack(void* buffer) {
    if (!buffer)
        return "null";
    std::lock_guard<std::mutex> guard(g_lock);
    if (g_handedOut.erase(buffer) == 0)
        return "foreign";
    std::free(buffer);
    return "buffer";
}

} // namespace

extern "C" {

#ifndef ZEPHAGENT_WITHOUT_SYSTEM_CALL
uint32_t zephCnt_SystemCall(void* /*context*/, uint32_t requestSize, const char* request,
                            char** response, uint32_t* responseSize) {
    Journal("SystemCall " + std::to_string(requestSize) + " " + (request ? request : "null"));
    uint32_t status = Setting(kSystemCallStatusValue, 0);
    std::string text = SystemCallResponse();
    char* buffer = status == 0 ? HandOut(text) : nullptr;
    if (response)
        *response = buffer;
    if (responseSize)
        *responseSize = buffer ? static_cast<uint32_t>(text.size() + 1) : 0;
    return status;
}
#endif

uint32_t zephCnt_Free(void* hostBuffer) {
    Journal(std::string("Free ") + TakeBack(hostBuffer));
    return 0;
}

uint32_t zephCnt_VerifyLoaderProcessSign(const wchar_t* loaderPath) {
    Journal("VerifyLoaderProcessSign " + (loaderPath ? ToUtf8(loaderPath) : std::string("null")));
    return Setting(kLoaderVerdictValue, 1);
}

// Resolved by the plug-in and never called; their arguments are not needed
// here (the x64 caller owns its argument area), only the call is recorded.
uint32_t zephCnt_CreateProcessWithSignCheck() {
    Journal("CreateProcessWithSignCheck");
    return 0;
}
uint32_t zephCnt_LoadLibraryWithSignCheck() {
    Journal("LoadLibraryWithSignCheck");
    return 0;
}
uint32_t zephCnt_VerifyEmbeddedSignature() {
    Journal("VerifyEmbeddedSignature");
    return 0;
}
uint32_t zephCnt_VerifyEmbeddedSignatureAndSigner() {
    Journal("VerifyEmbeddedSignatureAndSigner");
    return 0;
}
uint32_t zephCnt_CreateProcessWithSignCheckAndAddException() {
    Journal("CreateProcessWithSignCheckAndAddException");
    return 0;
}
uint32_t zephCnt_IsLightWeightModeEnabled() {
    Journal("IsLightWeightModeEnabled");
    return 0;
}

} // extern "C"
