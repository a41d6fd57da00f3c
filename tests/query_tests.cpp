// The four queries against the real Service Control Manager, registry and
// files of the Wine prefix, with the agent double installed in its states.
#include "AgentControlFixture.h"
#include "HostScript.h"
#include "JsonText.h"
#include "MakerCheckLog.h"
#include "Queries.h"
#include "UtilClientInfo.h"

namespace {

const std::string kClientFolder = "C:\\\\ZephTestBed\\\\iService\\\\Tarn"; // as JSON text

// The simulated parent product and the agent double, set up and removed per case.
class QueryTest : public AgentControlTest {
  protected:
    // Runs one query; answers its result object as compact JSON.
    static std::string Run(uint32_t (*query)(JsonValue&, JsonAllocator&),
                           uint32_t expectedCode = 0) {
        JsonDocument result(rapidjson::kObjectType);
        EXPECT_EQ(query(result, result.GetAllocator()), expectedCode);
        return CompactJson(result);
    }

    static std::string ServiceStatus(int code) {
        return R"({"type":"ZEPH_QUERY_RESULT_TYPE_DATA","content":{"status_code":)" +
               std::to_string(code) + R"(,"status_mode":0}})";
    }
    static std::string ClientStatus(int status, const std::string& version,
                                    const std::string& display) {
        return R"({"type":"ZEPH_QUERY_RESULT_TYPE_DATA","content":{"EngineInfo":[],)"
               R"("PatternInfo":[],"PluginServiceInfo":{"SLF_LastCompliantState":"0",)"
               R"("SLF_PluginServiceID":747,"SLF_PropertyID":12,"SLF_Status":)" +
               std::to_string(status) + R"(,"SLF_Version":")" + version +
               R"(","Display_Version":")" + display + R"("}}})";
    }

    // Both status queries for the agent service in its current state.
    void ExpectStatus(int statusLog, int statusCode) {
        EXPECT_EQ(Run(getClientStatusData), ClientStatus(statusLog, "3.2.7", "3.2.1045.7"));
        EXPECT_EQ(Run(getServiceStatus), ServiceStatus(statusCode));
        EXPECT_EQ(Logged(), Lines{});
    }
};

// Beside the parent product's folder; without that, settings and
// self-protection fail.
TEST_F(QueryTest, ClientFolderIsBesideTheParentProductsFolder) {
    std::wstring clientPath;
    ASSERT_TRUE(SimulatedInstall::SetApplicationPath(L"C:\\A\\B\\"));
    EXPECT_TRUE(GetClientPath(clientPath));
    EXPECT_EQ(clientPath, L"C:\\A\\iService\\Tarn");
    ASSERT_TRUE(SimulatedInstall::SetApplicationPath(L"C:\\"));
    EXPECT_TRUE(GetClientPath(clientPath));
    EXPECT_EQ(clientPath, L"iService\\Tarn");
    EXPECT_EQ(Logged(), Lines{});
    EXPECT_EQ(ClientFile(L"C:\\x", L"a.exe"), L"C:\\x\\a.exe");
    EXPECT_EQ(ClientFile(L"C:\\x\\", L"a.exe"), L"C:\\x\\a.exe");

    SimulatedInstall::RemoveApplicationPath();
    EXPECT_EQ(Run(getCommonSettings, 1), "{}");
    Lines unbound = UnboundLog("");
    EXPECT_EQ(Logged(),
              (Lines{unbound[0], unbound[1], "E GetClientPath - Unable to get CRVL install path.",
                     "E getCommonSettings - Unable to get tarn agent install path."}));
    EXPECT_EQ(Run(getSelfProtectionData, 1), "{}");
    EXPECT_EQ(Logged().back(), "E getSelfProtectionData - Unable to get tarn agent install path.");
}

TEST_F(QueryTest, AbsentAgentAnswersUnknownStateAndEmptyVersions) {
    EXPECT_EQ(Run(getClientStatusData), ClientStatus(1, "", ""));
    const std::string openFailed =
        "E GetClientServiceStatus - OpenService(TarnAgent) failed (1060)\n";
    EXPECT_EQ(Logged(), (Lines{openFailed, "E getClientStatusData - Failed to get client status.",
                               "E getClientStatusData - Failed to get client version.",
                               "E getClientStatusData - Failed to get display client version."}));
    EXPECT_EQ(Run(getServiceStatus), ServiceStatus(4));
    EXPECT_EQ(
        Logged(),
        (Lines{openFailed,
               "E getServiceStatus - Unable to get service status. Treat as not installed."}));
}

// The versions of whichever agent is placed; then each state of its service.
TEST_F(QueryTest, EveryServiceStateHasItsStatus) {
    ASSERT_TRUE(AgentDouble::Place(AgentDouble::Version::V3_3));
    EXPECT_EQ(Run(getClientStatusData), ClientStatus(1, "3.3.9", "3.3.1100.9")); // not installed
    Logged();
    AgentDouble::Behaviour behaviour;
    behaviour.startDelayMs = 8000;
    behaviour.stuckStopPending = true;
    ASSERT_TRUE(AgentDouble::Install(behaviour));
    ExpectStatus(3, 2);
    ASSERT_TRUE(AgentDouble::Start(SERVICE_START_PENDING));
    ExpectStatus(7, 3);
    ASSERT_TRUE(AgentDouble::Start(SERVICE_RUNNING));
    ExpectStatus(7, 1);
    ASSERT_TRUE(AgentDouble::Control(SERVICE_CONTROL_PAUSE, SERVICE_PAUSED));
    ExpectStatus(7, 1);
    ASSERT_TRUE(AgentDouble::Control(SERVICE_CONTROL_CONTINUE, SERVICE_RUNNING));
    ASSERT_TRUE(AgentDouble::Control(SERVICE_CONTROL_STOP, SERVICE_STOP_PENDING));
    ExpectStatus(7, 3);
}

TEST_F(QueryTest, SettingsComeFromTheAgentsIniFile) {
    ASSERT_TRUE(AgentDouble::Place());
    std::wstring config = std::wstring(AgentDouble::kClientFolder) + L"\\config";
    CreateDirectoryW(config.c_str(), nullptr);
    const std::pair<const char*, char> cases[] = {
        {nullptr, '0'},
        {"[Other]\r\nEnabled=1\r\n", '0'},
        {"[Other]\r\nEnabled=1\r\n[Policy]\r\nEnabled=1\r\n", '1'}};
    for (const auto& [ini, enabled] : cases) {
        if (ini) {
            ASSERT_TRUE(WriteFileBytes(config + L"\\tn_agent.ini", ini));
        }
        EXPECT_EQ(Run(getCommonSettings),
                  R"({"type":"ZEPH_QUERY_RESULT_TYPE_DATA","content":{"enable":)" +
                      std::string(1, enabled) + "}}");
    }
    EXPECT_EQ(Logged(), Lines{});
}

TEST_F(QueryTest, SelfProtectionListsTheAgentsFootprintAndMakesMissingImageOptionsKeys) {
    const std::wstring agentKey = std::wstring(kImageOptionsKey) + L"TarnAgent.exe";
    const std::wstring hdcKey = std::wstring(kImageOptionsKey) + L"hdc.exe";
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, agentKey.c_str());
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, hdcKey.c_str());

    const std::string expected =
        R"({"type":"ZEPH_QUERY_RESULT_TYPE_DATA","content":{"folder_path":[")" + kClientFolder +
        R"("],"registry_path":["HKLM\\SYSTEM\\CurrentControlSet\\Services\\kvfltsa",)"
        R"("HKLM\\SYSTEM\\CurrentControlSet\\Services\\TarnAgent",)"
        R"("HKLM\\SYSTEM\\CurrentControlSet\\Services\\kvfltsa\\*",)"
        R"("HKLM\\SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\Image File Execution Options\\TarnAgent.exe",)"
        R"("HKLM\\SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\Image File Execution Options\\hdc.exe"],)"
        R"("process_path":[")" +
        kClientFolder +
        R"(\\TarnAgent.exe"],)"
        R"("service_path":["SYSTEM\\CurrentControlSet\\Services\\kvfltsa",)"
        R"("SYSTEM\\CurrentControlSet\\Services\\TarnAgent"],"whitelist_program":[")" +
        kClientFolder + R"(\\TarnAgent.exe",")" + kClientFolder + R"(\\hdc.exe"]}})";
    EXPECT_EQ(Run(getSelfProtectionData), expected);
    EXPECT_EQ(
        Logged(),
        (Lines{"D hasImageOptionsRegistryCreated - Image options key for TarnAgent.exe created.\n",
               "D hasImageOptionsRegistryCreated - Image options key for hdc.exe created.\n"}));

    // Keys that exist are left alone; only the missing one is made.
    ASSERT_EQ(RegDeleteTreeW(HKEY_LOCAL_MACHINE, hdcKey.c_str()), ERROR_SUCCESS);
    EXPECT_EQ(Run(getSelfProtectionData), expected);
    EXPECT_EQ(Logged(),
              Lines{"D hasImageOptionsRegistryCreated - Image options key for hdc.exe created.\n"});
    EXPECT_EQ(Run(getSelfProtectionData), expected);
    EXPECT_EQ(Logged(), Lines{});
    HKEY key = nullptr;
    EXPECT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, hdcKey.c_str(), 0, KEY_READ, &key), ERROR_SUCCESS);
    RegCloseKey(key);
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, agentKey.c_str());
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, hdcKey.c_str());
}

// The whole road: the real DLL in a fresh host process, a query and the
// prerequisite with the running agent's version.
TEST_F(QueryTest, ClientStatusAndPrerequisiteThroughTheExports) {
    ASSERT_TRUE(AgentDouble::Run());
    const std::string request =
        Query("ZEPH_ONQUERY_CLIENT_STATUS_LOG", R"({"query_type":"ZEPH_CLIENT_ALL_STATUS_LOG"})");
    const std::string response =
        R"({"query_id":"ZEPH_ONQUERY_CLIENT_STATUS_LOG","product_id":"ZEPH_IPRODUCT_TARN",)"
        R"("result_code":0,"result_data":)" +
        ClientStatus(7, "3.2.7", "3.2.1045.7") + "}";
    EXPECT_EQ(
        RunHostScript({request, "prereq"}).output,
        "zephExt_OnQueryData -> 0\nresponse(" + std::to_string(response.size() + 1) +
            "): " + response +
            "\nzephExt_Free -> 0\nzephExt_GetPrerequest -> 0\n"
            "record: reserved=2779096485 kind=100 major=3 minor=2 build=7 flag=0\n"
            "bytes: a5 a5 a5 a5 64 00 00 00 03 00 00 00 02 00 00 00 07 00 00 00 00 ff ff ff\n");
    EXPECT_EQ(
        WithoutBinding(Logged()),
        (Lines{"D " + P + "zephExt_OnQueryData - Request: " + request.substr(request.find('{')),
               "D " + P + "zephExt_OnQueryData - Response: " + response,
               "I " + P + "zephExt_GetPrerequest - >>> zephExt_GetPrerequest",
               "I " + P + "zephExt_GetPrerequest - <<< zephExt_GetPrerequest"}));
}

} // namespace
