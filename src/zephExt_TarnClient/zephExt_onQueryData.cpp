#include "DebugLog.h"
#include "ExportBoundary.h"
#include "JsonRequest.h"
#include "Queries.h"
#include "RequestHandlers.h"
#include "RequestValidation.h"
#include "ResultCodes.h"
#include "ZephIntegration.h"
#include "ZephProtocol.h"
#include "zephExt_TarnClient.h"

#include "Json.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

namespace {

using Allocator = JsonDocument::AllocatorType;

std::string QueryIdOf(const JsonValue& request) {
    const JsonValue* queryId = FindMember(request, "query_id");
    if (!queryId || !queryId->IsString())
        return std::string();
    return std::string(queryId->GetString(), queryId->GetStringLength());
}

// {"query_id":..,"product_id":..,"result_code":..,"result_data":..}, compact.
std::string ResponseText(const std::string& queryId, uint32_t resultCode,
                         const JsonValue& resultData) {
    JsonBuffer buffer;
    JsonWriter writer(buffer);
    writer.StartObject();
    writer.Key("query_id");
    writer.String(queryId.data(), static_cast<rapidjson::SizeType>(queryId.size()));
    writer.Key("product_id");
    writer.String(ZEPH_PRODUCT_ID);
    writer.Key("result_code");
    writer.Uint(resultCode);
    writer.Key("result_data");
    resultData.Accept(writer);
    writer.EndObject();
    return std::string(buffer.GetString(), buffer.GetSize());
}

} // namespace

uint32_t HandleQuery(const JsonValue& request, JsonValue& result, Allocator& allocator) {
    static const struct {
        const char* queryId;
        uint32_t (*query)(JsonValue&, Allocator&);
    } kQueries[] = {
        {ZEPH_ONQUERY_CLIENT_STATUS_LOG, getClientStatusData},
        {ZEPH_ONQUERY_COMMON_SETTINGS, getCommonSettings},
        {ZEPH_ONQUERY_SERVICE_STATUS, getServiceStatus},
        {ZEPH_ONQUERY_SELF_PROTECTION, getSelfProtectionData},
    };
    const JsonValue* queryId = FindMember(request, "query_id");
    for (const auto& entry : kQueries) {
        if (IsStringEqual(queryId, entry.queryId))
            return entry.query(result, allocator);
    }
    LOGA(LOG_ERROR, "%s - Invalid query id.", "HandleQuery");
    return RESULT_INVALID_REQUEST;
}

namespace {

uint32_t Answer(const char* self, int32_t length, const char* request, uint32_t* responseLength,
                char** response) {
    LOGA(LOG_DETAIL, "%s - Request: %s", self, RequestText(length, request).c_str());

    JsonDocument resultData(rapidjson::kObjectType);
    std::string queryId;
    uint32_t resultCode = RESULT_NO_HOST;
    if (IsValidLoader()) {
        JsonRequest parsed;
        if (!parsed.Parse(length, request)) {
            LOGA(LOG_ERROR, "%s - rapidjosn - parsing error: %d", self, parsed.ParseErrorCode());
            resultCode = RESULT_INVALID_REQUEST;
        } else {
            queryId = QueryIdOf(parsed.Document());
            resultCode =
                IsValidOnQueryRequest(parsed.Document()) ? RESULT_SUCCESS : RESULT_INVALID_REQUEST;
            if (resultCode == RESULT_SUCCESS)
                resultCode = HandleQuery(parsed.Document(), resultData, resultData.GetAllocator());
        }
    }

    std::string text = ResponseText(queryId, resultCode, resultData);
    // Handed to the host, which gives it back through zephExt_Free. Taken from
    // the C run time's allocator like the detection-log copy, so one release
    // fits both.
    char* buffer = static_cast<char*>(std::malloc(text.size() + 1));
    if (!buffer)
        throw std::bad_alloc();
    memcpy(buffer, text.c_str(), text.size() + 1);
    LOGA(LOG_DETAIL, "%s - Response: %s", self, buffer);
    if (response && responseLength) {
        *response = buffer;
        *responseLength = static_cast<uint32_t>(text.size() + 1);
    } else {
        std::free(buffer);
    }
    return RESULT_SUCCESS;
}

} // namespace

// Without memory for the response the host gets none (its pointer stays as it
// was) and the result it always gets.
extern "C" uint32_t zephExt_OnQueryData(void* /*context*/, int32_t length, const char* request,
                                        uint32_t* responseLength, char** response) {
    const char* self = "zephExt_OnQueryData";
    return Shielded(self, RESULT_SUCCESS,
                    [&] { return Answer(self, length, request, responseLength, response); });
}

extern "C" uint32_t zephExt_Free(void* buffer) {
    return Shielded("zephExt_Free", RESULT_GENERIC_FAILURE, [&] {
        if (!IsValidLoader())
            return RESULT_GENERIC_FAILURE;
        std::free(buffer);
        return RESULT_SUCCESS;
    });
}
