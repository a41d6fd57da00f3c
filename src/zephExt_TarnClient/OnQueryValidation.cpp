#include "DebugLog.h"
#include "JsonRequest.h"
#include "RequestValidation.h"
#include "ZephProtocol.h"

namespace {

bool Reject(const char* format) {
    LOGA(LOG_ERROR, format, "IsValidOnQueryRequest");
    return false;
}

} // namespace

bool IsValidOnQueryRequest(const JsonValue& request) {
    if (!request.IsObject() || request.MemberCount() < 3)
        return Reject("%s - Invalid request format.");
    const JsonValue* queryId = FindMember(request, "query_id");
    bool isClientStatus = IsStringEqual(queryId, ZEPH_ONQUERY_CLIENT_STATUS_LOG);
    if (!isClientStatus && !IsStringEqual(queryId, ZEPH_ONQUERY_COMMON_SETTINGS) &&
        !IsStringEqual(queryId, ZEPH_ONQUERY_SERVICE_STATUS) &&
        !IsStringEqual(queryId, ZEPH_ONQUERY_SELF_PROTECTION))
        return Reject("%s - Invalid query id.");
    if (!IsStringEqual(FindMember(request, "product_id"), ZEPH_PRODUCT_ID))
        return Reject("%s - Invalid product id.");
    const JsonValue* queryData = FindMember(request, "query_data");
    if (!queryData)
        return Reject("%s - Invalid query_data.");
    // The client-status query takes exactly {"query_type":"ZEPH_CLIENT_ALL_STATUS_LOG"};
    // the others accept any data.
    if (isClientStatus &&
        (!queryData->IsObject() || queryData->MemberCount() != 1 ||
         !IsStringEqual(FindMember(*queryData, "query_type"), ZEPH_CLIENT_ALL_STATUS_LOG)))
        return Reject("%s - Invalid query_data.");
    return true;
}
