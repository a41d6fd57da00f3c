// The policy command's flag: enable or disable the agent, record the choice in
// its configuration file and tell the management server how it went, or, on a
// machine that takes its policy from the cloud console, drop the stored policy.
#include "CommandHandling.h"
#include "DebugLog.h"
#include "ServiceControl.h"
#include "TarnAgentCommands.h"
#include "UtilCommon.h"
#include "ZephIntegration.h"

#include <windows.h>

#include <filesystem>
#include <string>

namespace {

constexpr int kFlagEnable = 1;
constexpr int kFlagDisable = 2;
constexpr int kFlagIgnore = 4;
constexpr int kTypeEnable = 0;
constexpr int kTypeDisable = 1;
constexpr int32_t kStartFailedStatus = 201512003;
constexpr int32_t kPipeFailedStatus = 201512004;
constexpr int32_t kEnableFailedStatus = 201512001;
constexpr int32_t kDisableFailedStatus = 201512002;

// Where a flag's handling goes on: write the configuration, or straight to
// the report with the result so far.
enum class Next { WriteConfiguration, Report };

struct FlagOutcome {
    int type = kTypeEnable;
    int32_t result = 0;
};

Next Enable(const wchar_t* self, FlagOutcome& outcome) {
    static const AgentCallTexts texts = {L"%s - Trying notify agent the %d time(s)...",
                                         L"%s - Failed to init pipe.", nullptr};
    LOGW(LOG_DETAIL, L"%s - Starting Tarn Agent...", self);
    int32_t started = StartTarn();
    if (started != 0) {
        LOGW(LOG_ERROR, L"%s - Unable to start Tarn agent service. ret=%d", self, started);
        if (started == kStartFailedStatus && g_InstallStatusCode == 0)
            g_InstallStatusCode = kStartFailedStatus;
        outcome.result = -1;
        return Next::Report;
    }
    bool pipeFailed = false;
    int32_t notified = CallTarnAgent(self, texts, NotifyTarnAgent, &pipeFailed);
    if (pipeFailed) {
        g_InstallStatusCode = kPipeFailedStatus;
        outcome.result = -1;
        return Next::Report;
    }
    if (notified != 0) {
        LOGW(LOG_ERROR, L"%s - Unable to notify Tarn agent. ret=%d", self, notified);
        outcome.result = -1;
        return Next::Report;
    }
    WriteServiceStatus(1);
    return Next::WriteConfiguration;
}

Next Disable(const wchar_t* self, const std::wstring& agentFolder, FlagOutcome& outcome) {
    static const AgentCallTexts clearTexts = {
        L"%s - Trying send clear driver config command the %d time(s)...",
        L"%s - Unable to init pipe.", L"%s - Fail to clear driver config. ret=%d"};
    static const AgentCallTexts stopTexts = {
        L"%s - Trying send stop Tarn Agent command the %d time(s)...", L"%s - Unable to init pipe.",
        nullptr};
    outcome.type = kTypeDisable;
    // The throwing form: an error other than "not found" leaves through the export.
    if (!std::filesystem::exists(std::filesystem::path(TarnAgentExecutable(agentFolder)))) {
        LOGW(LOG_DETAIL, L"%s - Agent is not installed. Skip further steps", self);
        return Next::Report;
    }
    bool stopped = false;
    if (IsTarnServiceStopped(stopped) == 0 && stopped) { // a failed query counts as running
        WriteServiceStatus(0);
        LOGW(LOG_DETAIL, L"%s - Tarn Agent service is already stopped. Skip further steps", self);
        return Next::WriteConfiguration;
    }
    LOGW(LOG_DETAIL, L"%s - Stopping Tarn Agent...", self);
    int32_t cleared = CallTarnAgent(self, clearTexts, ClearDriverConfig);
    if (cleared != 0) {
        LOGW(LOG_ERROR, L"%s - Unable to clear driver config. ret=%d", self, cleared);
        outcome.result = -1;
        return Next::Report;
    }
    LOGW(LOG_DETAIL, L"%s - Clear driver config successfully.", self);
    int32_t stoppedNow = CallTarnAgent(self, stopTexts, StopTarn);
    if (stoppedNow != 0) {
        LOGW(LOG_ERROR, L"%s - Unable to stop Tarn agent service. ret=%d", self, stoppedNow);
        outcome.result = -1;
        return Next::Report;
    }
    WriteServiceStatus(0);
    return Next::WriteConfiguration;
}

void WriteConfiguration(const wchar_t* self, const std::wstring& agentFolder, int flag,
                        FlagOutcome& outcome) {
    LOGW(LOG_DETAIL, L"%s - Updating tn_agent.ini...", self);
    std::wstring file = agentFolder + L"\\config\\tn_agent.ini";
    const wchar_t* enabled = flag == kFlagDisable ? L"0" : L"1";
    if (!WritePrivateProfileStringW(L"Policy", L"Enabled", enabled, file.c_str())) {
        LOGW(LOG_ERROR, L"%s - Unable to write tn_agent.ini, err: %d", self,
             static_cast<int>(GetLastError()));
        outcome.result = -1;
    }
}

bool SendPolicyResult(int type, int32_t statusCode) {
    std::string text = std::string("ZEPH_ONCOMMAND_IAGENT_POLICY") + "+" +
                       (type == kTypeEnable ? "Enable" : "Disable") +
                       "+Result=" + std::to_string(statusCode);
    return sendNotifyResultToServer(type, statusCode, text.c_str());
}

// The cloud console's policy replaces ours: its stored copy goes.
void ResetPolicyData(const wchar_t* self) {
    std::wstring policyPath;
    if (!GetLFIPSPolicyPath(policyPath)) {
        LOGW(LOG_ERROR, L"%s - Invalid policy data file.", self);
        return;
    }
    if (policyPath.empty())
        return;
    if (!ClearLFIPSPolicyPath())
        LOGW(LOG_ERROR, L"%s - Failed to reset PolicyData registry value.", self);
    if (!DeleteFileW(policyPath.c_str()))
        LOGW(LOG_ERROR, L"%s - Failed to delete policy data file %s. Error: %d", self,
             policyPath.c_str(), static_cast<int>(GetLastError()));
}

bool Report(const wchar_t* self, const FlagOutcome& outcome) {
    int optIn = IsOptInLumenfieldPolicy();
    LOGW(LOG_INFO, L"%s - NotifyResult. type=%d, result=%d, status code=%d, LF opt-in=%d", self,
         outcome.type, static_cast<int>(outcome.result), static_cast<int>(g_InstallStatusCode),
         optIn);
    if (outcome.result == 0 && outcome.type == kTypeEnable) {
        LOGW(LOG_DETAIL, L"%s - Don't need to send NotifyResult for successful enable notify.",
             self);
    } else if (optIn) {
        if (outcome.result != 0)
            ResetPolicyData(self);
    } else if (outcome.result == 0) {
        if (!SendPolicyResult(outcome.type, 0)) {
            LOGW(LOG_ERROR, L"%s - Unable to send NotifyResult. type=%d, result=%d", self,
                 outcome.type, 0);
            return false;
        }
    } else {
        int32_t statusCode = g_InstallStatusCode;
        if (statusCode == 0)
            statusCode = outcome.type == kTypeEnable ? kEnableFailedStatus : kDisableFailedStatus;
        if (!SendPolicyResult(outcome.type, statusCode)) {
            // The failure code stays for the next report.
            LOGW(LOG_ERROR, L"%s - Unable to send NotifyResult. type=%d, result=%d", self,
                 outcome.type, static_cast<int>(outcome.result));
            return false;
        }
        LOGW(LOG_DETAIL, L"%s - Successfully sent NotifyResult. type=%d, result=%d", self,
             outcome.type, static_cast<int>(outcome.result));
    }
    g_InstallStatusCode = 0;
    return true;
}

} // namespace

bool handleNotifyFlag(int flag) {
    const wchar_t* self = L"handleNotifyFlag";
    LOGW(LOG_DETAIL, L"%s - notify flag: %d", self, flag);
    FlagOutcome outcome;
    std::wstring installPath;
    if (!GetCRVLInstallPath(installPath)) {
        LOGW(LOG_ERROR, L"%s - Unable to get CRVL install path.", self);
        outcome.result = -1;
        return Report(self, outcome);
    }
    std::wstring agentFolder = TarnAgentFolder(installPath);
    Next next = Next::WriteConfiguration;
    switch (flag) {
    case kFlagEnable:
        next = Enable(self, outcome);
        break;
    case kFlagDisable:
        next = Disable(self, agentFolder, outcome);
        break;
    case kFlagIgnore: // still written as enabled
        LOGW(LOG_WARNING, L"%s - Ignore task flag.", self);
        break;
    default:
        LOGW(LOG_ERROR, L"%s - Unknown flag.", self);
        return false;
    }
    if (next == Next::WriteConfiguration)
        WriteConfiguration(self, agentFolder, flag, outcome);
    return Report(self, outcome);
}
