#include "JsonText.h"
#include "JsonRequest.h"
#include "LogCapture.h"
#include "RequestValidation.h"

#include <string>

namespace {

struct Case {
    const char* request;
    bool valid;
    const char* logged; // the one error line of a refusal; null for a silent one
};

class ValidationTest : public LogCaptureTest {
  protected:
    void Check(bool (*validator)(const rapidjson::Value&), const std::vector<Case>& cases) {
        for (const Case& c : cases) {
            JsonRequest request;
            ASSERT_TRUE(request.Parse(static_cast<int32_t>(strlen(c.request)), c.request))
                << c.request;
            EXPECT_EQ(validator(request.Document()), c.valid) << c.request;
            Lines expected = c.valid || !c.logged ? Lines{} : Lines{std::string("E ") + c.logged};
            EXPECT_EQ(Logged(), expected) << c.request;
        }
    }
};

#define SERVICE R"("command_id":"ZEPH_ONCOMMAND_IAGT_SERVICE","product_id":"ZEPH_IPRODUCT_TARN")"
#define INSTALL R"("command_id":"ZEPH_ONCOMMAND_INSTALLATION","product_id":"ZEPH_IPRODUCT_TARN")"
#define POLICY R"("command_id":"ZEPH_ONCOMMAND_IAGENT_POLICY","product_id":"ZEPH_IPRODUCT_TARN")"

TEST_F(ValidationTest, Commands) {
    Check(
        IsValidOnCommandRequest,
        {
            {"{" SERVICE R"(,"command_data":{"command_type":"ZEPH_TYPE_IAGT_STOP"}})", true, ""},
            {"{" SERVICE R"(,"command_data":{"command_type":"ZEPH_TYPE_IAGT_STOP"},"x":1})", false,
             "IsValidOnCommandRequest - Invalid request member count."},
            {R"({"product_id":"ZEPH_IPRODUCT_TARN","command_data":{}})", false,
             "IsValidOnCommandRequest - Invalid request member count."},
            {"[1,2,3]", false, "IsValidOnCommandRequest - Invalid request member count."},
            {R"({"command_id":"zeph_oncommand_iagt_service","product_id":"ZEPH_IPRODUCT_TARN","command_data":{}})",
             false, "IsValidOnCommandRequest - Invalid command id."},
            {R"({"command":"ZEPH_ONCOMMAND_IAGT_SERVICE","product_id":"ZEPH_IPRODUCT_TARN","command_data":{}})",
             false, "IsValidOnCommandRequest - Invalid command id."},
            {R"({"command_id":7,"product_id":"ZEPH_IPRODUCT_TARN","command_data":{}})", false,
             "IsValidOnCommandRequest - Invalid command id."},
            {R"({"command_id":"ZEPH_ONCOMMAND_IAGT_SERVICE","product_id":"ZEPH_IPRODUCT_X","command_data":{}})",
             false, "IsValidOnCommandRequest - Invalid product id."},
            {"{" SERVICE R"(,"command_data":null})", false,
             "IsValidOnCommandRequest - Invalid command format."},
            {"{" SERVICE R"(,"data":{}})", false,
             "IsValidOnCommandRequest - Invalid command format."},
            {"{" SERVICE R"(,"command_data":{"command_type":"ZEPH_TYPE_IAGT_START"}})", true, ""},
            {"{" SERVICE R"(,"command_data":{"command_type":"ZEPH_TYPE_IAGT_START","extra":1}})",
             false, "isValidServiceRequest - Invalid command data."},
            {"{" SERVICE R"(,"command_data":{"type":"ZEPH_TYPE_IAGT_START"}})", false,
             "isValidServiceRequest - Invalid command data."},
            {"{" SERVICE R"(,"command_data":"ZEPH_TYPE_IAGT_START"})", false,
             "isValidServiceRequest - Invalid command data."},
            {"{" SERVICE R"(,"command_data":{"command_type":"ZEPH_TYPE_IAGT_RESTART"}})", false,
             "isValidServiceRequest - Invalid command type."},
            {"{" SERVICE R"(,"command_data":{"command_type":1}})", false,
             "isValidServiceRequest - Invalid command type."},
            {"{" INSTALL R"(,"command_data":{"command_type":"ZEPH_IAGENT_UNINSTALL"}})", true, ""},
            {"{" INSTALL
             R"(,"command_data":{"command_type":"ZEPH_IAGENT_INSTALL","PkgPath":"C:\\pkg","x":1}})",
             true, ""},
            {"{" INSTALL R"(,"command_data":{"PkgPath":"C:\\pkg"}})", false,
             "isValidInstallRequest - Invalid command data."},
            {"{" INSTALL R"(,"command_data":{"command_type":"ZEPH_IAGENT_REPAIR"}})", false,
             "isValidInstallRequest - Invalid command type."},
            {"{" INSTALL R"(,"command_data":{"command_type":"ZEPH_IAGENT_INSTALL"}})", false,
             "isValidInstallRequest - Invalid command data. Missing package path."},
            {"{" INSTALL R"(,"command_data":{"command_type":"ZEPH_IAGENT_INSTALL","PkgPath":""}})",
             false, "isValidInstallRequest - Invalid Package Path."},
            {"{" INSTALL
             R"(,"command_data":{"command_type":"ZEPH_IAGENT_INSTALL","PkgPath":null}})",
             false, "isValidInstallRequest - Invalid Package Path."},
            {"{" POLICY
             R"(,"command_data":{"command_type":"ZEPH_IAGENT_ISSUE_POLICY","cfg_flag":1}})",
             true, ""},
            // Any present flag passes validation, whatever its type.
            {"{" POLICY
             R"(,"command_data":{"command_type":"ZEPH_IAGENT_ISSUE_POLICY","cfg_flag":"1"}})",
             true, ""},
            {"{" POLICY R"(,"command_data":{"cfg_flag":1}})", false,
             "isValidIssuePolicyRequest - Invalid command data."},
            {"{" POLICY R"(,"command_data":{"command_type":"ZEPH_IAGENT_INSTALL","cfg_flag":1}})",
             false, "isValidIssuePolicyRequest - Invalid command type."},
            {"{" POLICY R"(,"command_data":{"command_type":"ZEPH_IAGENT_ISSUE_POLICY"}})", false,
             "isValidIssuePolicyRequest - Invalid command policy flag."},
        });
}

#define ADMIN R"("notify_id":"ZEPH_ONNOTIFY_ADMIN_CFG_CHANGE","product_id":"ZEPH_IPRODUCT_TARN")"
#define CONTEXT R"("notify_id":"ZEPH_ONNOTIFY_CONTEXT_CHANGE","product_id":"ZEPH_IPRODUCT_TARN")"
#define SELF_PROTECTION R"("notify_type":"ZEPH_TYPE_SELF_PROTECTION")"

TEST_F(ValidationTest, Notifications) {
    Check(
        IsValidOnNotifyRequest,
        {
            {"{" CONTEXT R"(,"notify_data":{"notify_type":"ZEPH_TYPE_SERVER_INFO"}})", true, ""},
            {"{" CONTEXT R"(,"notify_data":{"notify_type":"ZEPH_TYPE_SERVER_INFO"},"x":1})", false,
             "IsValidOnNotifyRequest - Invalid request member count."},
            {R"({"notify_id":"ZEPH_ONNOTIFY_OTHER","product_id":"ZEPH_IPRODUCT_TARN","notify_data":{}})",
             false, "IsValidOnNotifyRequest - Invalid notify id."},
            {R"({"notify_id":"ZEPH_ONNOTIFY_CONTEXT_CHANGE","product_id":"","notify_data":{}})",
             false, "IsValidOnNotifyRequest - Invalid product id."},
            {"{" CONTEXT R"(,"notify_data":null})", false,
             "IsValidOnNotifyRequest - Invalid notify format."},
            // A server move with a wrong or missing type is refused without a message.
            {"{" CONTEXT R"(,"notify_data":{"notify_type":"ZEPH_TYPE_SELF_PROTECTION"}})", false,
             nullptr},
            {"{" CONTEXT R"(,"notify_data":{}})", false, nullptr},
            {"{" CONTEXT R"(,"notify_data":5})", false, nullptr},
            {"{" ADMIN R"(,"notify_data":{)" SELF_PROTECTION
             R"(,"notify_content":{"enable":{"service":1}}}})",
             true, ""},
            {"{" ADMIN R"(,"notify_data":{)" SELF_PROTECTION
             R"(,"notify_content":{"enable":{"service":0,"other":true}}}})",
             true, ""},
            {"{" ADMIN R"(,"notify_data":{)" SELF_PROTECTION "}}", false,
             "isValidAdminConfigChangeNotifyData - Invalid notify data."},
            {"{" ADMIN
             R"(,"notify_data":{"notify_type":"ZEPH_TYPE_SERVER_INFO","notify_content":{}}})",
             false, "isValidAdminConfigChangeNotifyData - Invalid notify data."},
            {"{" ADMIN R"(,"notify_data":{"notify_type":1,"notify_content":{}}})", false,
             "isValidAdminConfigChangeNotifyData - Invalid notify data."},
            {"{" ADMIN R"(,"notify_data":{)" SELF_PROTECTION R"(,"notify_content":{}}})", false,
             "isValidSelfProtectionNotifyContent - Invalid notify content."},
            {"{" ADMIN R"(,"notify_data":{)" SELF_PROTECTION
             R"(,"notify_content":{"enable":[1]}}})",
             false, "isValidSelfProtectionNotifyContent - Invalid notify content."},
            {"{" ADMIN R"(,"notify_data":{)" SELF_PROTECTION
             R"(,"notify_content":{"enable":{"service":2}}}})",
             false, "isValidSelfProtectionNotifyContent - Invalid service protection flag."},
            {"{" ADMIN R"(,"notify_data":{)" SELF_PROTECTION
             R"(,"notify_content":{"enable":{"service":"1"}}}})",
             false, "isValidSelfProtectionNotifyContent - Invalid service protection flag."},
            {"{" ADMIN R"(,"notify_data":{)" SELF_PROTECTION
             R"(,"notify_content":{"enable":{"service":1.0}}}})",
             false, "isValidSelfProtectionNotifyContent - Invalid service protection flag."},
        });
}

#define QUERY_TAIL R"(,"product_id":"ZEPH_IPRODUCT_TARN")"

TEST_F(ValidationTest, Queries) {
    Check(IsValidOnQueryRequest,
          {
              {R"({"query_id":"ZEPH_ONQUERY_SERVICE_STATUS")" QUERY_TAIL R"(,"query_data":{}})",
               true, ""},
              {R"({"query_id":"ZEPH_ONQUERY_SELF_PROTECTION")" QUERY_TAIL
               R"(,"query_data":null,"x":1})",
               true, ""},
              {R"({"query_id":"ZEPH_ONQUERY_CLIENT_STATUS_LOG")" QUERY_TAIL
               R"(,"query_data":{"query_type":"ZEPH_CLIENT_ALL_STATUS_LOG"}})",
               true, ""},
              {R"({"query_id":"ZEPH_ONQUERY_SERVICE_STATUS")" QUERY_TAIL "}", false,
               "IsValidOnQueryRequest - Invalid request format."},
              {"\"text\"", false, "IsValidOnQueryRequest - Invalid request format."},
              {R"({"query_id":"zeph_onquery_service_status")" QUERY_TAIL R"(,"query_data":{}})",
               false, "IsValidOnQueryRequest - Invalid query id."},
              {R"({"query":"ZEPH_ONQUERY_SERVICE_STATUS")" QUERY_TAIL R"(,"query_data":{}})", false,
               "IsValidOnQueryRequest - Invalid query id."},
              {R"({"query_id":"ZEPH_ONQUERY_SERVICE_STATUS","product_id":"X","query_data":{}})",
               false, "IsValidOnQueryRequest - Invalid product id."},
              {R"({"query_id":"ZEPH_ONQUERY_SERVICE_STATUS")" QUERY_TAIL R"(,"data":{}})", false,
               "IsValidOnQueryRequest - Invalid query_data."},
              {R"({"query_id":"ZEPH_ONQUERY_CLIENT_STATUS_LOG")" QUERY_TAIL
               R"(,"query_data":{"query_type":"ZEPH_CLIENT_ALL_STATUS_LOG","x":1}})",
               false, "IsValidOnQueryRequest - Invalid query_data."},
              {R"({"query_id":"ZEPH_ONQUERY_CLIENT_STATUS_LOG")" QUERY_TAIL
               R"(,"query_data":{"query_type":"OTHER"}})",
               false, "IsValidOnQueryRequest - Invalid query_data."},
              {R"({"query_id":"ZEPH_ONQUERY_CLIENT_STATUS_LOG")" QUERY_TAIL R"(,"query_data":"x"})",
               false, "IsValidOnQueryRequest - Invalid query_data."},
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

    // The log names the default parser's error; the parse itself must survive any depth.
    struct Case {
        std::string text;
        rapidjson::ParseErrorCode code;
        size_t offset;
    } cases[] = {
        {"}", rapidjson::kParseErrorValueInvalid, 0},
        {"]", rapidjson::kParseErrorValueInvalid, 0},
        {" ,{}", rapidjson::kParseErrorValueInvalid, 1},
        {"\t\n:", rapidjson::kParseErrorValueInvalid, 2},
        {"  ", rapidjson::kParseErrorDocumentEmpty, 2},
        {std::string(" \0}", 3), rapidjson::kParseErrorDocumentEmpty, 1},
        {"[}", rapidjson::kParseErrorValueInvalid, 1},
        {"{}}", rapidjson::kParseErrorDocumentRootNotSingular, 2},
        {std::string(100000, '['), rapidjson::kParseErrorValueInvalid, 100000},
        {std::string(100000, '{'), rapidjson::kParseErrorObjectMissName, 1},
    };
    for (const Case& c : cases) {
        JsonRequest request;
        EXPECT_FALSE(request.Parse(static_cast<int32_t>(c.text.size()), c.text.data()));
        EXPECT_EQ(request.ParseErrorCode(), c.code) << c.text.substr(0, 8);
        EXPECT_EQ(request.ParseErrorOffset(), c.offset) << c.text.substr(0, 8);
    }
    // A deep text that is whole parses too, without recursion.
    std::string deep = std::string(100000, '[') + std::string(100000, ']');
    rapidjson::Document document;
    EXPECT_FALSE(ParseJson(document, deep.data(), deep.size()).IsError());
    EXPECT_TRUE(document.IsArray());
}

} // namespace
