#include "RebootAnswer.h"

#include "DebugLog.h"
#include "JsonText.h"

#include "Json.h"

#include <string>

RebootAnswer CheckRebootAnswer(const char* response, uint32_t responseSize) {
    std::string text = response ? std::string(response, responseSize) : std::string();
    LOGA(LOG_DETAIL, "%s - Response: %s", "RequestReboot", text.c_str());
    JsonDocument document;
    rapidjson::ParseResult parsed = ParseJson(document, text.data(), text.size());
    if (parsed.IsError()) {
        LOGA(LOG_ERROR, "%s - Unable to parse response, rapidjosn parsing error: %d\n",
             "RequestReboot", static_cast<int>(parsed.Code()));
        return RebootAnswer::NotJson;
    }
    const JsonValue* error = nullptr;
    if (document.IsObject()) {
        auto result = document.FindMember("system_call_result");
        if (result != document.MemberEnd() && result->value.IsObject()) {
            auto member = result->value.FindMember("system_call_error");
            if (member != result->value.MemberEnd())
                error = &member->value;
        }
    }
    if (!error || error->IsNull() || !error->IsInt()) {
        LOGA(LOG_ERROR, "%s - Missing error code in ZEPH response.", "RequestReboot");
        return RebootAnswer::NoErrorCode;
    }
    if (error->GetInt() != 0) {
        LOGA(LOG_ERROR, "%s - ZEPH response with error code: %d", "RequestReboot", error->GetInt());
        return RebootAnswer::Refused;
    }
    // The host's own convention logs this success at error level too.
    LOGA(LOG_ERROR, "%s - Successfully requested a reboot.", "RequestReboot");
    return RebootAnswer::Accepted;
}
