#include "DebugLog.h"
#include "JsonRequest.h"
#include "RequestValidation.h"
#include "ZephProtocol.h"

namespace {

bool Reject(const char* validator, const char* format) {
    LOGA(LOG_ERROR, format, validator);
    return false;
}

} // namespace

bool IsValidOnCommandRequest(const JsonValue& request) {
    const char* self = "IsValidOnCommandRequest";
    if (!request.IsObject() || request.MemberCount() != 3)
        return Reject(self, "%s - Invalid request member count.");
    const JsonValue* commandId = FindMember(request, "command_id");
    bool isService = IsStringEqual(commandId, ZEPH_ONCOMMAND_IAGT_SERVICE);
    bool isInstallation = IsStringEqual(commandId, ZEPH_ONCOMMAND_INSTALLATION);
    bool isPolicy = IsStringEqual(commandId, ZEPH_ONCOMMAND_IAGENT_POLICY);
    if (!isService && !isInstallation && !isPolicy)
        return Reject(self, "%s - Invalid command id.");
    if (!IsStringEqual(FindMember(request, "product_id"), ZEPH_PRODUCT_ID))
        return Reject(self, "%s - Invalid product id.");
    const JsonValue* commandData = FindMember(request, "command_data");
    if (!commandData || commandData->IsNull())
        return Reject(self, "%s - Invalid command format.");
    if (isService)
        return isValidServiceRequest(*commandData);
    if (isInstallation)
        return isValidInstallRequest(*commandData);
    return isValidIssuePolicyRequest(*commandData);
}

bool isValidServiceRequest(const JsonValue& commandData) {
    const char* self = "isValidServiceRequest";
    const JsonValue* type = FindMember(commandData, "command_type");
    if (!type || commandData.MemberCount() != 1)
        return Reject(self, "%s - Invalid command data.");
    if (!IsStringEqual(type, ZEPH_TYPE_IAGT_START) && !IsStringEqual(type, ZEPH_TYPE_IAGT_STOP))
        return Reject(self, "%s - Invalid command type.");
    return true;
}

bool isValidInstallRequest(const JsonValue& commandData) {
    const char* self = "isValidInstallRequest";
    // The member count of the installation data is deliberately not checked.
    const JsonValue* type = FindMember(commandData, "command_type");
    if (!type)
        return Reject(self, "%s - Invalid command data.");
    if (IsStringEqual(type, ZEPH_IAGENT_UNINSTALL))
        return true;
    if (!IsStringEqual(type, ZEPH_IAGENT_INSTALL))
        return Reject(self, "%s - Invalid command type.");
    const JsonValue* packagePath = FindMember(commandData, "PkgPath");
    if (!packagePath)
        return Reject(self, "%s - Invalid command data. Missing package path.");
    if (packagePath->IsNull() || IsStringEqual(packagePath, ""))
        return Reject(self, "%s - Invalid Package Path.");
    return true;
}

bool isValidIssuePolicyRequest(const JsonValue& commandData) {
    const char* self = "isValidIssuePolicyRequest";
    const JsonValue* type = FindMember(commandData, "command_type");
    if (!type)
        return Reject(self, "%s - Invalid command data.");
    if (!IsStringEqual(type, ZEPH_IAGENT_ISSUE_POLICY))
        return Reject(self, "%s - Invalid command type.");
    // Any present flag passes here, whatever its type; the handler reads it.
    if (!FindMember(commandData, "cfg_flag"))
        return Reject(self, "%s - Invalid command policy flag.");
    return true;
}
