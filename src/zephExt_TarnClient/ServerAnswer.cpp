#include "ServerAnswer.h"

#include "DebugLog.h"
#include "JsonRequest.h"

ServerAnswer CheckServerAnswer(const JsonValue& document) {
    const char* self = "sendNotifyResultToServer";
    const JsonValue* value = FindMember(document, "value");
    if (!IsStringEqual(FindMember(document, "name"), "errorCode") || !value || !value->IsInt()) {
        LOGA(LOG_ERROR, "%s - Invalid response format.", self);
        return ServerAnswer::BadFormat;
    }
    if (value->GetInt() != 0) {
        LOGA(LOG_ERROR, "%s - Tarn server respond error:%d", self, value->GetInt());
        return ServerAnswer::ServerError;
    }
    return ServerAnswer::Success;
}
