#include "Queries.h"

#include "DebugLog.h"
#include "ResultCodes.h"
#include "UtilClientInfo.h"
#include "ZephProtocol.h"

#include <windows.h>

#include <cstdio>
#include <string>

namespace {

const wchar_t kImageOptionsKey[] =
    L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\Image File Execution Options\\";

void SetQueryResult(JsonValue& result, JsonValue& content, JsonAllocator& allocator) {
    result.AddMember("type", ZEPH_QUERY_RESULT_TYPE_DATA, allocator);
    result.AddMember("content", content, allocator);
}

JsonValue CopiedString(const std::string& text, JsonAllocator& allocator) {
    return JsonValue(text.c_str(), static_cast<rapidjson::SizeType>(text.size()), allocator);
}

std::string ToUtf8(const std::wstring& text) {
    if (text.empty())
        return std::string();
    int length = WideCharToMultiByte(CP_UTF8, 0, text.c_str(), static_cast<int>(text.size()),
                                     nullptr, 0, nullptr, nullptr);
    std::string utf8(static_cast<size_t>(length), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.c_str(), static_cast<int>(text.size()), &utf8[0], length,
                        nullptr, nullptr);
    return utf8;
}

JsonValue StringArray(std::initializer_list<std::string> elements, JsonAllocator& allocator) {
    JsonValue array(rapidjson::kArrayType);
    for (const std::string& element : elements)
        array.PushBack(CopiedString(element, allocator), allocator);
    return array;
}

// "SLF_Status": stopped 3, present in any other state 7, unknown 1.
int StatusLogState(uint32_t state) {
    if (state == SERVICE_STOPPED)
        return 3;
    if (state >= SERVICE_START_PENDING && state <= SERVICE_PAUSED)
        return 7;
    return 1;
}

// "status_code": running or paused 1, stopped 2, pending 3, anything else 0.
int ServiceStatusCode(uint32_t state) {
    switch (state) {
    case SERVICE_RUNNING:
    case SERVICE_PAUSED:
        return 1;
    case SERVICE_STOPPED:
        return 2;
    case SERVICE_START_PENDING:
    case SERVICE_STOP_PENDING:
    case SERVICE_CONTINUE_PENDING:
    case SERVICE_PAUSE_PENDING:
        return 3;
    default:
        return 0;
    }
}

// The agent's version as "%d.%d.%d" (numbers 1, 2 and 4: the third stays out)
// or, for display, all four; empty when it can't be read.
std::string AgentVersionText(bool display, const char* failure) {
    FileVersion version;
    if (!GetAgentVersion(version)) {
        LOGA(LOG_ERROR, failure, "getClientStatusData");
        return std::string();
    }
    return VersionText(version, display);
}

// The agent's folder for a query that can't answer without it.
bool ClientPathFor(const char* query, std::wstring& clientPath) {
    if (GetClientPath(clientPath))
        return true;
    LOGA(LOG_ERROR, "%s - Unable to get tarn agent install path.", query);
    return false;
}

// Makes sure the agent's two Image File Execution Options keys exist.
void hasImageOptionsRegistryCreated() {
    // One handle variable serves both keys and is closed once, after the
    // second: a handle left from the first key stays open, as it always has.
    HKEY key = nullptr;
    for (const wchar_t* program : {L"TarnAgent.exe", L"hdc.exe"}) {
        std::wstring path = std::wstring(kImageOptionsKey) + program;
        if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_READ, &key) !=
            ERROR_FILE_NOT_FOUND)
            continue; // present, or not ours to judge (access denied)
        LONG status = RegCreateKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, 0,
                                      KEY_ALL_ACCESS, nullptr, &key, nullptr);
        if (status != ERROR_SUCCESS)
            LOGW(LOG_ERROR, L"%s - Failed to create image options key for %s (%ld).\n",
                 L"hasImageOptionsRegistryCreated", program, static_cast<long>(status));
        else
            LOGW(LOG_DETAIL, L"%s - Image options key for %s created.\n",
                 L"hasImageOptionsRegistryCreated", program);
    }
    if (key)
        RegCloseKey(key);
}

} // namespace

uint32_t getClientStatusData(JsonValue& result, JsonAllocator& allocator) {
    JsonValue info(rapidjson::kObjectType);
    info.AddMember("SLF_LastCompliantState", "0", allocator);
    info.AddMember("SLF_PluginServiceID", 747, allocator);
    info.AddMember("SLF_PropertyID", 12, allocator);
    uint32_t state = 0;
    int status = 1;
    if (!GetClientServiceStatus(state))
        LOGA(LOG_ERROR, "%s - Failed to get client status.", "getClientStatusData");
    else
        status = StatusLogState(state);
    info.AddMember("SLF_Status", status, allocator);
    std::string version = AgentVersionText(false, "%s - Failed to get client version.");
    std::string display = AgentVersionText(true, "%s - Failed to get display client version.");
    info.AddMember("SLF_Version", CopiedString(version, allocator), allocator);
    info.AddMember("Display_Version", CopiedString(display, allocator), allocator);

    JsonValue content(rapidjson::kObjectType);
    content.AddMember("EngineInfo", JsonValue(rapidjson::kArrayType), allocator);
    content.AddMember("PatternInfo", JsonValue(rapidjson::kArrayType), allocator);
    content.AddMember("PluginServiceInfo", info, allocator);
    SetQueryResult(result, content, allocator);
    return RESULT_SUCCESS;
}

uint32_t getCommonSettings(JsonValue& result, JsonAllocator& allocator) {
    std::wstring clientPath;
    if (!ClientPathFor("getCommonSettings", clientPath))
        return RESULT_FAILED;
    std::wstring settingsFile = clientPath + L"\\" + L"config" + L"\\" + L"tn_agent.ini";
    int enabled =
        static_cast<int>(GetPrivateProfileIntW(L"Policy", L"Enabled", 0, settingsFile.c_str()));
    JsonValue content(rapidjson::kObjectType);
    content.AddMember("enable", enabled, allocator);
    SetQueryResult(result, content, allocator);
    return RESULT_SUCCESS;
}

uint32_t getServiceStatus(JsonValue& result, JsonAllocator& allocator) {
    uint32_t state = 0;
    int statusCode = 4;
    if (!GetClientServiceStatus(state))
        LOGA(LOG_ERROR, "%s - Unable to get service status. Treat as not installed.",
             "getServiceStatus");
    else
        statusCode = ServiceStatusCode(state);
    JsonValue content(rapidjson::kObjectType);
    content.AddMember("status_code", statusCode, allocator);
    content.AddMember("status_mode", 0, allocator);
    SetQueryResult(result, content, allocator);
    return RESULT_SUCCESS;
}

uint32_t getSelfProtectionData(JsonValue& result, JsonAllocator& allocator) {
    std::wstring clientPath;
    if (!ClientPathFor("getSelfProtectionData", clientPath))
        return RESULT_FAILED;
    std::string folder = ToUtf8(clientPath);
    std::string agent = ToUtf8(ClientFile(clientPath, L"TarnAgent.exe"));
    std::string secondAgent = ToUtf8(ClientFile(clientPath, L"hdc.exe"));

    JsonValue content(rapidjson::kObjectType);
    content.AddMember("folder_path", StringArray({folder}, allocator), allocator);
    hasImageOptionsRegistryCreated();
    const std::string services = "HKLM\\SYSTEM\\CurrentControlSet\\Services\\";
    const std::string imageOptions =
        "HKLM\\SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\Image File Execution Options\\";
    content.AddMember(
        "registry_path",
        StringArray({services + "kvfltsa", services + "TarnAgent", services + "kvfltsa" + "\\*",
                     imageOptions + "TarnAgent.exe", imageOptions + "hdc.exe"},
                    allocator),
        allocator);
    content.AddMember("process_path", StringArray({agent}, allocator), allocator);
    content.AddMember("service_path",
                      StringArray({"SYSTEM\\CurrentControlSet\\Services\\kvfltsa",
                                   "SYSTEM\\CurrentControlSet\\Services\\TarnAgent"},
                                  allocator),
                      allocator);
    content.AddMember("whitelist_program", StringArray({agent, secondAgent}, allocator), allocator);
    SetQueryResult(result, content, allocator);
    return RESULT_SUCCESS;
}
