// The plug-in as the host sees it: the real DLL, loaded by zephhost.exe in a
// fresh process per scenario, with the log records it sent to our server.
#include "HostScript.h"
#include "LogCapture.h"
#include "MakerCheckLog.h"

#include <algorithm>

namespace {

class ExportTest : public SimulatedInstallTest {
  protected:
    // Runs one call of zephhost.exe and answers what it printed.
    std::string Host(const std::wstring& call, const std::string& argument = std::string()) {
        ProcessResult result = RunHost({call, Widen(argument)});
        EXPECT_FALSE(result.timedOut);
        EXPECT_EQ(result.exitCode, 0u) << result.output;
        return result.output;
    }

    // What one query answers: the export's result, the response and its length.
    static std::string QueryOutput(const std::string& response) {
        return "zephExt_OnQueryData -> 0\nresponse(" + std::to_string(response.size() + 1) +
               "): " + response + "\nzephExt_Free -> 0\n";
    }

    // The three lines every query logs around what lies between.
    static Lines QueryLog(const std::string& request, const Lines& between,
                          const std::string& response) {
        Lines lines = {"D " + P + "zephExt_OnQueryData - Request: " + request};
        lines.insert(lines.end(), between.begin(), between.end());
        lines.push_back("D " + P + "zephExt_OnQueryData - Response: " + response);
        return lines;
    }
};

TEST_F(ExportTest, RefusedQueriesStillAnswerAFullResponse) {
    auto refused = [](const std::string& id) {
        return R"({"query_id":")" + id +
               R"(","product_id":"ZEPH_IPRODUCT_TARN","result_code":2,"result_data":{}})";
    };
    const std::string parsing = "E " + P + "zephExt_OnQueryData - rapidjosn - parsing error: ";
    const std::string invalidId = "E " + P + "IsValidOnQueryRequest - Invalid query id.";
    struct Case {
        std::string request;
        std::string response;
        std::string why;
    } cases[] = {
        {R"({"query_id":"zeph_onquery_service_status","product_id":"ZEPH_IPRODUCT_TARN","query_data":{}})",
         refused("zeph_onquery_service_status"), invalidId},
        {R"({"query_id":"ZEPH_ONQUERY_SERVICE_STATUS","product_id":"ZEPH_IPRODUCT_TARN"})",
         refused("ZEPH_ONQUERY_SERVICE_STATUS"),
         "E " + P + "IsValidOnQueryRequest - Invalid request format."},
        {R"({"query_id":["x"],"product_id":"ZEPH_IPRODUCT_TARN","query_data":{}})", refused(""),
         invalidId},
        {R"({"query_id":"ZEPH_ONQUERY_SERVICE_STATUS","product_)", refused(""), parsing + "11"},
        {"]", refused(""), parsing + "3"},
        {"", refused(""), parsing + "1"}, // no request at all
    };
    for (const Case& c : cases) {
        EXPECT_EQ(Host(L"query", c.request), QueryOutput(c.response));
        EXPECT_EQ(WithoutBinding(Logged()), QueryLog(c.request, {c.why}, c.response));
    }
}

// A refused command or notification logs its entry, its request and why.
TEST_F(ExportTest, CommandsAndNotificationsAreLoggedParsedAndValidated) {
    const std::string fourMembers =
        R"({"command_id":"ZEPH_ONCOMMAND_IAGT_SERVICE","product_id":"ZEPH_IPRODUCT_TARN",)"
        R"("command_data":{"command_type":"ZEPH_TYPE_IAGT_STOP"},"extra":0})";
    const std::string badId =
        R"({"notify_id":"ZEPH_ONNOTIFY_X","product_id":"ZEPH_IPRODUCT_TARN","notify_data":{}})";
    const struct {
        const wchar_t* call;
        const char* exportName;
        std::string request;
        std::string why; // one or two lines
    } cases[] = {
        {L"command", "zephExt_OnCommand", fourMembers,
         "E " + P + "IsValidOnCommandRequest - Invalid request member count.\nE " + P +
             "zephExt_OnCommand - Invalid OnCommand request: " + fourMembers},
        {L"command", "zephExt_OnCommand", "not json",
         "E " + P + "zephExt_OnCommand - rapidjson - parsing error: 3"},
        {L"notify", "zephExt_OnNotify", badId,
         "E " + P + "IsValidOnNotifyRequest - Invalid notify id.\nE " + P +
             "zephExt_OnNotify - Invalid OnNotify request"},
        {L"notify", "zephExt_OnNotify", "{",
         "E " + P + "zephExt_OnNotify - rapidjson - parsing error: 4"},
    };
    for (const auto& c : cases) {
        const std::string name = c.exportName;
        EXPECT_EQ(Host(c.call, c.request), name + " -> 2\n");
        Lines expected = {"I " + P + name + " - >>> " + name,
                          "D " + P + name + " - Request: " + c.request};
        for (const std::string& line : SplitLines(c.why))
            expected.push_back(line);
        EXPECT_EQ(WithoutBinding(Logged()), expected);
    }
}

// The host pre-fills the record; the plug-in writes all but the first field
// and the padding after the flag byte.
TEST_F(ExportTest, PrerequisiteFallsBackToVersion3_0_1001AndContextsComeAndGo) {
    EXPECT_EQ(RunHostScript({"prereq", "create-context", "release-context"}).output,
              "zephExt_GetPrerequest -> 0\n"
              "record: reserved=2779096485 kind=100 major=3 minor=0 build=1001 flag=0\n"
              "bytes: a5 a5 a5 a5 64 00 00 00 03 00 00 00 00 00 00 00 e9 03 00 00 00 ff ff ff\n"
              "zephExt_CreateContext -> 0\nzephExt_ReleaseContext -> 0\n");
    Lines expected = {"I " + P + "zephExt_GetPrerequest - >>> zephExt_GetPrerequest",
                      "E " + P + "zephExt_GetPrerequest - Unalbe to get agent version.",
                      "I " + P + "zephExt_GetPrerequest - <<< zephExt_GetPrerequest"};
    for (const std::string name : {"zephExt_CreateContext", "zephExt_ReleaseContext"})
        for (const char* mark : {" - >>> ", " - <<< "})
            expected.push_back("I " + P + name + mark + name);
    EXPECT_EQ(WithoutBinding(Logged()), expected);
}

TEST_F(ExportTest, WithoutTheHostEveryExportRefusesButInitAndDeinit) {
    SimulatedInstall::RemoveApplicationPath();
    ProcessResult result = RunHostScript(
        {"init", Query("ZEPH_ONQUERY_SERVICE_STATUS"), Service("ZEPH_TYPE_IAGT_START"), "notify {}",
         "free-null", "prereq", "create-context", "preupdate", "postupdate", "rollback",
         "parselog C:\\x.log", "release-context", "deinit"});
    // 17039362 is 0x1040002. The host keeps a response it cannot hand back while unbound.
    EXPECT_EQ(result.output,
              "zephExt_Init -> 0\n"
              "zephExt_OnQueryData -> 0\n"
              R"(response(83): {"query_id":"","product_id":"ZEPH_IPRODUCT_TARN","result_code":8,)"
              R"("result_data":{}})"
              "\nzephExt_Free -> 17039362\n"
              "zephExt_OnCommand -> 8\n"
              "zephExt_OnNotify -> 8\n"
              "zephExt_Free -> 17039362\n"
              "zephExt_GetPrerequest -> 17039362\n"
              "record: reserved=2779096485 kind=4294967295 major=4294967295 minor=4294967295 "
              "build=4294967295 flag=255\n"
              "bytes: a5 a5 a5 a5 ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff\n"
              "zephExt_CreateContext -> 17039362\n"
              "zephExt_PreUpdate -> 17039362\n"
              "zephExt_PostUpdate -> 17039362\n"
              "zephExt_Rollback -> 17039362\n"
              "zephExt_ParseLog -> 4294967295\n"
              "type: \n"
              "zephExt_ReleaseContext -> 17039362\n"
              "zephExt_Deinit -> 0\n");

    // The command logs its entry, then the binding's refusal, and nothing more.
    Lines command = UnboundLog(P);
    command.insert(command.begin(), "I " + P + "zephExt_OnCommand - >>> zephExt_OnCommand");
    command.push_back("I " + P + "zephExt_OnNotify - >>> zephExt_OnNotify");
    Lines logged = Logged();
    EXPECT_NE(std::search(logged.begin(), logged.end(), command.begin(), command.end()),
              logged.end())
        << Text(logged);
}

} // namespace
