#include "JsonRequest.h"
#include "JsonText.h"
#include "LogCapture.h"
#include "RequestValidation.h"

namespace {

// The requests that draw one error line; "" for requests that pass, null for
// silent refusals.
struct Verdict {
    const char* logged;
    std::vector<std::string> requests;
};

class ValidationTest : public LogCaptureTest {
  protected:
    void Check(bool (*validator)(const JsonValue&), const std::vector<Verdict>& verdicts) {
        for (const Verdict& verdict : verdicts) {
            const bool valid = verdict.logged && !*verdict.logged;
            for (const std::string& text : verdict.requests) {
                JsonRequest request;
                ASSERT_TRUE(request.Parse(static_cast<int32_t>(text.size()), text.data())) << text;
                EXPECT_EQ(validator(request.Document()), valid) << text;
                Lines expected;
                if (!valid && verdict.logged)
                    expected.push_back(std::string("E ") + verdict.logged);
                EXPECT_EQ(Logged(), expected) << text;
            }
        }
    }
};

// {"<key>":"<id>","product_id":"ZEPH_IPRODUCT_TARN","<member>":<data>}, as a
// function of the data.
auto Request(const char* key, const char* id, const char* member) {
    return [=](const std::string& data) {
        return std::string("{\"") + key + "\":\"" + id +
               "\",\"product_id\":\"ZEPH_IPRODUCT_TARN\",\"" + member + "\":" + data + "}";
    };
}

TEST_F(ValidationTest, Commands) {
    auto service = Request("command_id", "ZEPH_ONCOMMAND_IAGT_SERVICE", "command_data");
    auto install = Request("command_id", "ZEPH_ONCOMMAND_INSTALLATION", "command_data");
    auto policy = Request("command_id", "ZEPH_ONCOMMAND_IAGENT_POLICY", "command_data");
    Check(
        IsValidOnCommandRequest,
        {
            {"",
             {service(R"({"command_type":"ZEPH_TYPE_IAGT_STOP"})"),
              service(R"({"command_type":"ZEPH_TYPE_IAGT_START"})"),
              install(R"({"command_type":"ZEPH_IAGENT_UNINSTALL"})"),
              install(R"({"command_type":"ZEPH_IAGENT_INSTALL","PkgPath":"C:\\pkg","x":1})"),
              policy(R"({"command_type":"ZEPH_IAGENT_ISSUE_POLICY","cfg_flag":1})"),
              // Any present flag passes validation, whatever its type.
              policy(R"({"command_type":"ZEPH_IAGENT_ISSUE_POLICY","cfg_flag":"1"})")}},
            {"IsValidOnCommandRequest - Invalid request member count.",
             {service(R"({"command_type":"ZEPH_TYPE_IAGT_STOP"},"x":1)"),
              R"({"product_id":"ZEPH_IPRODUCT_TARN","command_data":{}})", "[1,2,3]"}},
            {"IsValidOnCommandRequest - Invalid command id.",
             {R"({"command_id":"zeph_oncommand_iagt_service","product_id":"ZEPH_IPRODUCT_TARN","command_data":{}})",
              R"({"command":"ZEPH_ONCOMMAND_IAGT_SERVICE","product_id":"ZEPH_IPRODUCT_TARN","command_data":{}})",
              R"({"command_id":7,"product_id":"ZEPH_IPRODUCT_TARN","command_data":{}})"}},
            {"IsValidOnCommandRequest - Invalid product id.",
             {R"({"command_id":"ZEPH_ONCOMMAND_IAGT_SERVICE","product_id":"ZEPH_IPRODUCT_X","command_data":{}})"}},
            {"IsValidOnCommandRequest - Invalid command format.",
             {service("null"), Request("command_id", "ZEPH_ONCOMMAND_IAGT_SERVICE", "data")("{}")}},
            {"isValidServiceRequest - Invalid command data.",
             {service(R"({"command_type":"ZEPH_TYPE_IAGT_START","extra":1})"),
              service(R"({"type":"ZEPH_TYPE_IAGT_START"})"), service(R"("ZEPH_TYPE_IAGT_START")")}},
            {"isValidServiceRequest - Invalid command type.",
             {service(R"({"command_type":"ZEPH_TYPE_IAGT_RESTART"})"),
              service(R"({"command_type":1})")}},
            {"isValidInstallRequest - Invalid command data.",
             {install(R"({"PkgPath":"C:\\pkg"})")}},
            {"isValidInstallRequest - Invalid command type.",
             {install(R"({"command_type":"ZEPH_IAGENT_REPAIR"})")}},
            {"isValidInstallRequest - Invalid command data. Missing package path.",
             {install(R"({"command_type":"ZEPH_IAGENT_INSTALL"})")}},
            {"isValidInstallRequest - Invalid Package Path.",
             {install(R"({"command_type":"ZEPH_IAGENT_INSTALL","PkgPath":""})"),
              install(R"({"command_type":"ZEPH_IAGENT_INSTALL","PkgPath":null})")}},
            {"isValidIssuePolicyRequest - Invalid command data.", {policy(R"({"cfg_flag":1})")}},
            {"isValidIssuePolicyRequest - Invalid command type.",
             {policy(R"({"command_type":"ZEPH_IAGENT_INSTALL","cfg_flag":1})")}},
            {"isValidIssuePolicyRequest - Invalid command policy flag.",
             {policy(R"({"command_type":"ZEPH_IAGENT_ISSUE_POLICY"})")}},
        });
}

TEST_F(ValidationTest, Notifications) {
    auto context = Request("notify_id", "ZEPH_ONNOTIFY_CONTEXT_CHANGE", "notify_data");
    auto selfProtection = [](const std::string& content) {
        return Request("notify_id", "ZEPH_ONNOTIFY_ADMIN_CFG_CHANGE", "notify_data")(
            R"({"notify_type":"ZEPH_TYPE_SELF_PROTECTION","notify_content":)" + content + "}");
    };
    auto admin = Request("notify_id", "ZEPH_ONNOTIFY_ADMIN_CFG_CHANGE", "notify_data");
    Check(
        IsValidOnNotifyRequest,
        {
            {"",
             {context(R"({"notify_type":"ZEPH_TYPE_SERVER_INFO"})"),
              selfProtection(R"({"enable":{"service":1}})"),
              selfProtection(R"({"enable":{"service":0,"other":true}})")}},
            {"IsValidOnNotifyRequest - Invalid request member count.",
             {context(R"({"notify_type":"ZEPH_TYPE_SERVER_INFO"},"x":1)")}},
            {"IsValidOnNotifyRequest - Invalid notify id.",
             {Request("notify_id", "ZEPH_ONNOTIFY_OTHER", "notify_data")("{}")}},
            {"IsValidOnNotifyRequest - Invalid product id.",
             {R"({"notify_id":"ZEPH_ONNOTIFY_CONTEXT_CHANGE","product_id":"","notify_data":{}})"}},
            {"IsValidOnNotifyRequest - Invalid notify format.", {context("null")}},
            // A server move with a wrong or missing type is refused without a message.
            {nullptr,
             {context(R"({"notify_type":"ZEPH_TYPE_SELF_PROTECTION"})"), context("{}"),
              context("5")}},
            {"isValidAdminConfigChangeNotifyData - Invalid notify data.",
             {admin(R"({"notify_type":"ZEPH_TYPE_SELF_PROTECTION"})"),
              admin(R"({"notify_type":"ZEPH_TYPE_SERVER_INFO","notify_content":{}})"),
              admin(R"({"notify_type":1,"notify_content":{}})")}},
            {"isValidSelfProtectionNotifyContent - Invalid notify content.",
             {selfProtection("{}"), selfProtection(R"({"enable":[1]})")}},
            {"isValidSelfProtectionNotifyContent - Invalid service protection flag.",
             {selfProtection(R"({"enable":{"service":2}})"),
              selfProtection(R"({"enable":{"service":"1"}})"),
              selfProtection(R"({"enable":{"service":1.0}})")}},
        });
}

TEST_F(ValidationTest, Queries) {
    auto status = Request("query_id", "ZEPH_ONQUERY_SERVICE_STATUS", "query_data");
    auto statusLog = Request("query_id", "ZEPH_ONQUERY_CLIENT_STATUS_LOG", "query_data");
    Check(IsValidOnQueryRequest,
          {
              {"",
               {status("{}"),
                Request("query_id", "ZEPH_ONQUERY_SELF_PROTECTION", "query_data")("null,\"x\":1"),
                statusLog(R"({"query_type":"ZEPH_CLIENT_ALL_STATUS_LOG"})")}},
              {"IsValidOnQueryRequest - Invalid request format.",
               {R"({"query_id":"ZEPH_ONQUERY_SERVICE_STATUS","product_id":"ZEPH_IPRODUCT_TARN"})",
                "\"text\""}},
              {"IsValidOnQueryRequest - Invalid query id.",
               {Request("query_id", "zeph_onquery_service_status", "query_data")("{}"),
                Request("query", "ZEPH_ONQUERY_SERVICE_STATUS", "query_data")("{}")}},
              {"IsValidOnQueryRequest - Invalid product id.",
               {R"({"query_id":"ZEPH_ONQUERY_SERVICE_STATUS","product_id":"X","query_data":{}})"}},
              {"IsValidOnQueryRequest - Invalid query_data.",
               {Request("query_id", "ZEPH_ONQUERY_SERVICE_STATUS", "data")("{}"),
                statusLog(R"({"query_type":"ZEPH_CLIENT_ALL_STATUS_LOG","x":1})"),
                statusLog(R"({"query_type":"OTHER"})"), statusLog(R"("x")")}},
          });
}

TEST(JsonRequestTest, ParsesTheGivenBytesAndFailsAsTheDefaultParserAtAnyDepth) {
    const char text[] = R"({"a":1}garbage)";
    JsonRequest bounded;
    EXPECT_TRUE(bounded.Parse(7, text));
    JsonRequest whole;
    EXPECT_FALSE(whole.Parse(static_cast<int32_t>(strlen(text)), text));
    EXPECT_EQ(whole.ParseErrorCode(), rapidjson::kParseErrorDocumentRootNotSingular);
    JsonRequest negative;
    EXPECT_FALSE(negative.Parse(-5, text));
    EXPECT_EQ(negative.ParseErrorCode(), rapidjson::kParseErrorDocumentEmpty);
    JsonRequest null;
    EXPECT_FALSE(null.Parse(10, nullptr));
    EXPECT_EQ(RequestText(3, "abcdef"), "abc");
    EXPECT_EQ(RequestText(-1, "abc"), "");

    // Beyond the depth the fuzzer's differential reaches, the errors are still
    // the default parser's, without recursion.
    const std::tuple<std::string, rapidjson::ParseErrorCode, size_t> cases[] = {
        {std::string(100000, '['), rapidjson::kParseErrorValueInvalid, 100000},
        {std::string(100000, '{'), rapidjson::kParseErrorObjectMissName, 1},
    };
    for (const auto& [deep, code, offset] : cases) {
        JsonRequest request;
        EXPECT_FALSE(request.Parse(static_cast<int32_t>(deep.size()), deep.data()));
        EXPECT_EQ(request.ParseErrorCode(), code) << deep[0];
        EXPECT_EQ(request.ParseErrorOffset(), offset) << deep[0];
    }
    // A deep text that is whole parses too.
    std::string deep = std::string(100000, '[') + std::string(100000, ']');
    JsonDocument document;
    EXPECT_FALSE(ParseJson(document, deep.data(), deep.size()).IsError());
    EXPECT_TRUE(document.IsArray());
}

} // namespace
