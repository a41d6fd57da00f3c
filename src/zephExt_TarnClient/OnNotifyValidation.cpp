#include "DebugLog.h"
#include "JsonRequest.h"
#include "RequestValidation.h"
#include "ZephProtocol.h"

namespace {

bool Reject(const wchar_t* validator, const wchar_t* format) {
    LOGW(LOG_ERROR, format, validator);
    return false;
}

} // namespace

bool IsValidOnNotifyRequest(const JsonValue& request) {
    const wchar_t* self = L"IsValidOnNotifyRequest";
    if (!request.IsObject() || request.MemberCount() != 3)
        return Reject(self, L"%s - Invalid request member count.");
    const JsonValue* notifyId = FindMember(request, "notify_id");
    bool isAdminConfigChange = IsStringEqual(notifyId, ZEPH_ONNOTIFY_ADMIN_CFG_CHANGE);
    bool isContextChange = IsStringEqual(notifyId, ZEPH_ONNOTIFY_CONTEXT_CHANGE);
    if (!isAdminConfigChange && !isContextChange)
        return Reject(self, L"%s - Invalid notify id.");
    if (!IsStringEqual(FindMember(request, "product_id"), ZEPH_PRODUCT_ID))
        return Reject(self, L"%s - Invalid product id.");
    const JsonValue* notifyData = FindMember(request, "notify_data");
    if (!notifyData || notifyData->IsNull())
        return Reject(self, L"%s - Invalid notify format.");
    if (isAdminConfigChange)
        return isValidAdminConfigChangeNotifyData(*notifyData);
    // A server move needs only its type; a wrong or missing one is refused silently.
    return IsStringEqual(FindMember(*notifyData, "notify_type"), ZEPH_TYPE_SERVER_INFO);
}

bool isValidAdminConfigChangeNotifyData(const JsonValue& notifyData) {
    const JsonValue* type = FindMember(notifyData, "notify_type");
    const JsonValue* content = FindMember(notifyData, "notify_content");
    if (!type || !content || !IsStringEqual(type, ZEPH_TYPE_SELF_PROTECTION))
        return Reject(L"isValidAdminConfigChangeNotifyData", L"%s - Invalid notify data.");
    return isValidSelfProtectionNotifyContent(*content);
}

bool isValidSelfProtectionNotifyContent(const JsonValue& notifyContent) {
    const wchar_t* self = L"isValidSelfProtectionNotifyContent";
    const JsonValue* enable = FindMember(notifyContent, "enable");
    const JsonValue* service = enable ? FindMember(*enable, "service") : nullptr;
    if (!service)
        return Reject(self, L"%s - Invalid notify content.");
    if (!service->IsInt() || (service->GetInt() != 0 && service->GetInt() != 1))
        return Reject(self, L"%s - Invalid service protection flag.");
    return true;
}
