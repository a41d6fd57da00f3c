#include "CommandHandling.h"
#include "DebugLog.h"
#include "JsonRequest.h"
#include "RequestEnvelope.h"
#include "RequestHandlers.h"
#include "RequestValidation.h"
#include "ResultCodes.h"
#include "ServiceControl.h"
#include "TarnAgentCommands.h"
#include "TarnAgentPipeClient.h"
#include "UtilClientInfo.h"
#include "UtilRegistry.h"
#include "ZephIntegration.h"
#include "ZephProtocol.h"
#include "zephExt_TarnClient.h"

#include <string>

int32_t g_InstallStatusCode = 0;

namespace {

const wchar_t kAgentKey[] = L"HKEY_LOCAL_MACHINE\\SOFTWARE\\Quorvane\\TarnAgent";
const char kPackageName[] = "instupg_Tarn_x64.zip";
constexpr int32_t kInstallRebootStatus = 101;
constexpr int32_t kInstallPackageStatus = 112;

bool StartService(const wchar_t* self) {
    LOGW(LOG_DETAIL, L"%s - Starting Tarn agent service...", self);
    int32_t result = StartTarn();
    if (result != 0) {
        LOGW(LOG_ERROR, L"%s - Unable to start Tarn agent service. ret=%d", self, result);
        return false;
    }
    WriteServiceStatus(1);
    return true;
}

bool StopService(const wchar_t* self) {
    static const AgentCallTexts texts = {
        L"%s - Trying send stop Tarn agent command the %d time(s)...", L"%s - Unable to init pipe.",
        nullptr};
    LOGW(LOG_DETAIL, L"%s - Stoping Tarn agent service...", self);
    int32_t result = CallTarnAgent(self, texts, StopTarn);
    if (result != 0) {
        LOGW(LOG_ERROR, L"%s - Unable to stop Tarn agent service. ret=%d", self, result);
        return false;
    }
    WriteServiceStatus(0);
    return true;
}

// The host asks for the reboot; the install itself has succeeded.
bool RequestRebootFor(const wchar_t* self) {
    if (RequestReboot())
        return true;
    LOGW(LOG_ERROR, L"%s - Unable to request reboot.", self);
    return false;
}

bool InstallAgent(const wchar_t* self, const JsonValue& data) {
    LOGW(LOG_DETAIL, L"%s - Installing Tarn agent service...", self);
    // The package path is the folder; it is joined with the name as it stands.
    int32_t result = InstallTarn(StringMember(data, "PkgPath") + kPackageName);
    LOGW(LOG_DETAIL, L"%s - ret = %d", self, result);
    if (result == 0)
        return true;
    if (result == kTarnInstalledRebootRequired) {
        g_InstallStatusCode = kInstallRebootStatus;
        LOGW(LOG_DETAIL, L"%s - status_error_code: %d", self, g_InstallStatusCode);
        LOGW(LOG_WARNING, L"%s - Install Tarn agent service successfully but requires a reboot.",
             self);
        if (RequestRebootFor(self))
            return true;
        // A reboot the host refuses leaves the install unfinished: it fails like any other.
    } else if (result >= -104 && result <= -101)
        g_InstallStatusCode = kInstallPackageStatus;
    else if (result == 130 || result == 201512009)
        g_InstallStatusCode = result;
    else if (result == -111) {
        g_InstallStatusCode = kInstallRebootStatus;
        RequestRebootFor(self);
    }
    LOGW(LOG_ERROR, L"%s - status_error_code: %d", self, g_InstallStatusCode);
    LOGW(LOG_ERROR, L"%s - Unable to Install Tarn agent service.", self);
    return false;
}

bool UninstallAgent(const wchar_t* self) {
    static const AgentCallTexts texts = {
        L"%s - Trying send self protection status the %d time(s)...", L"%s - Unable to init pipe.",
        nullptr};
    LOGW(LOG_DETAIL, L"%s - Uninstalling Tarn agent service...", self);
    uint32_t state = 0;
    if (!GetClientServiceStatus(state)) {
        LOGW(LOG_ERROR, L"%s - Unable to get status of Tarn agent service", self);
        return false;
    }
    LOGW(LOG_DETAIL, L"%s - Status of Tarn agent service is %d.", self, static_cast<int>(state));
    if (state == SERVICE_RUNNING) { // its self-protection would keep its files
        int32_t result =
            CallTarnAgent(self, texts, [] { return SendSelfProtectionStatus("{\"service\":0}"); });
        if (result != 0)
            LOGW(LOG_ERROR, L"%s - Unable to send self protection status. ret=%d", self, result);
    }
    if (UninstallTarn() != 0) {
        LOGW(LOG_ERROR, L"%s - Unable to Uninstall Tarn agent service.", self);
        return false;
    }
    return true;
}

bool IssuePolicy(const wchar_t* self, const JsonValue& data) {
    LOGW(LOG_DETAIL, L"%s - Handling notify.", self);
    // Validation lets any type through; only an integer is a flag.
    const JsonValue* member = FindMember(data, "cfg_flag");
    int flag = member && member->IsInt() ? member->GetInt() : 0;
    if (!handleNotifyFlag(flag)) {
        LOGW(LOG_ERROR, L"%s - Unable to handle notify flag: %d", self, flag);
        return false;
    }
    return true;
}

bool RunCommand(const JsonValue& request, const JsonValue& data) {
    const wchar_t* self = L"HandleCommand";
    const JsonValue* id = FindMember(request, "command_id");
    const JsonValue* type = FindMember(data, "command_type");
    auto is = [&](const char* commandId, const char* commandType) {
        return IsStringEqual(id, commandId) && IsStringEqual(type, commandType);
    };
    if (is(ZEPH_ONCOMMAND_IAGT_SERVICE, ZEPH_TYPE_IAGT_START))
        return StartService(self);
    if (is(ZEPH_ONCOMMAND_IAGT_SERVICE, ZEPH_TYPE_IAGT_STOP))
        return StopService(self);
    if (is(ZEPH_ONCOMMAND_INSTALLATION, ZEPH_IAGENT_INSTALL))
        return InstallAgent(self, data);
    if (is(ZEPH_ONCOMMAND_INSTALLATION, ZEPH_IAGENT_UNINSTALL))
        return UninstallAgent(self);
    if (is(ZEPH_ONCOMMAND_IAGENT_POLICY, ZEPH_IAGENT_ISSUE_POLICY))
        return IssuePolicy(self, data);
    return false;
}

} // namespace

bool WriteServiceStatus(uint32_t status) {
    utilRegKey key(kAgentKey, utilRegKey::VIEW_DEFAULT);
    return key.SetValueWithCreate(L"ServiceStatus", &status);
}

uint32_t HandleCommand(const JsonValue& request) {
    const JsonValue* data = FindMember(request, "command_data");
    return data && RunCommand(request, *data) ? RESULT_SUCCESS : RESULT_FAILED;
}

extern "C" uint32_t zephExt_OnCommand(void* /*context*/, int32_t length, const char* request) {
    static const RequestKind kCommand = {"zephExt_OnCommand", "%s - Invalid OnCommand request: %s",
                                         IsValidOnCommandRequest, HandleCommand};
    return RunRequest(kCommand, length, request);
}
