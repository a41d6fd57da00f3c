#include "DebugLog.h"
#include "JsonRequest.h"
#include "JsonText.h"
#include "RequestEnvelope.h"
#include "RequestHandlers.h"
#include "RequestValidation.h"
#include "ResultCodes.h"
#include "TarnAgentCommands.h"
#include "UtilCommon.h"
#include "ZephProtocol.h"
#include "zephExt_TarnClient.h"

#include <string>

namespace {

constexpr int32_t kMoveClientNotifyType = 3;

// The administrator's self-protection setting goes to the agent as it came.
uint32_t ForwardSelfProtection(const wchar_t* self, const JsonValue& data) {
    static const AgentCallTexts texts = {
        L"%s - Trying send self protection status the %d time(s)...", L"%s - Unable to init pipe.",
        nullptr};
    LOGW(LOG_DETAIL, L"%s - Getting self protection status...", self);
    const JsonValue* content = FindMember(data, "notify_content");
    const JsonValue* enable = content ? FindMember(*content, "enable") : nullptr;
    const JsonValue* service = enable ? FindMember(*enable, "service") : nullptr;
    if (!enable || !service || !service->IsInt()) // validation has made sure of them
        return RESULT_FAILED;
    LOGW(LOG_DETAIL, L"%s - Self protection status, service: %d", self, service->GetInt());
    std::string status = CompactJson(*enable);
    int32_t result =
        CallTarnAgent(self, texts, [&status] { return SendSelfProtectionStatus(status); });
    if (result != 0) {
        LOGW(LOG_ERROR, L"%s - Unable to send self protection status. ret=%d", self, result);
        return RESULT_FAILED;
    }
    return RESULT_SUCCESS;
}

// A lost move-client report does not fail the notification.
uint32_t ReportMoveClient(const wchar_t* self, const std::string& notifyId) {
    LOGW(LOG_DETAIL, L"%s - Getting server changed information...", self);
    std::string text = notifyId + "+MOVE_CLIENT+Result=" + "0";
    if (sendNotifyResultToServer(kMoveClientNotifyType, 0, text.c_str()))
        LOGW(LOG_DETAIL, L"%s - Successfully sent NotifyResult for move client", self);
    else
        LOGW(LOG_ERROR, L"%s - Unable to send NotifyResult for move client", self);
    return RESULT_SUCCESS;
}

} // namespace

uint32_t HandleNotify(const JsonValue& request) {
    const wchar_t* self = L"HandleNotify";
    const JsonValue* data = FindMember(request, "notify_data");
    if (!data)
        return RESULT_SUCCESS;
    std::string notifyId = StringMember(request, "notify_id");
    std::string notifyType = StringMember(*data, "notify_type");
    LOGA(LOG_DETAIL, "%S - notify id=%s, notify type:%s", self, notifyId.c_str(),
         notifyType.c_str());
    if (notifyType == ZEPH_TYPE_SELF_PROTECTION && notifyId == ZEPH_ONNOTIFY_ADMIN_CFG_CHANGE)
        return ForwardSelfProtection(self, *data);
    if (notifyType == ZEPH_TYPE_SERVER_INFO && notifyId == ZEPH_ONNOTIFY_CONTEXT_CHANGE)
        return ReportMoveClient(self, notifyId);
    return RESULT_SUCCESS;
}

extern "C" uint32_t zephExt_OnNotify(void* /*context*/, int32_t length, const char* request) {
    static const RequestKind kNotify = {"zephExt_OnNotify", "%s - Invalid OnNotify request",
                                        IsValidOnNotifyRequest, HandleNotify};
    return RunRequest(kNotify, length, request);
}
