#include "TarnAgentCommands.h"

#include "DebugLog.h"
#include "ScopedHandle.h"
#include "ServiceControl.h"
#include "TarnAgentPipeClient.h"

#include <windows.h>

#include <algorithm>
#include <cstring>

uint32_t g_CmdId = 0;

namespace {

constexpr size_t kTimestampOffset = 20;
constexpr DWORD kStopLimitMs = 60000;

// What each command says when a step of its exchange fails.
struct CommandTexts {
    const wchar_t* sendFails;
    const wchar_t* receiveFails;       // may show the receive's result
    const wchar_t* identifierMismatch; // the response's identifier, then g_CmdId
};

int32_t SendFrame(const wchar_t* self, std::string& frame, uint32_t& length) {
    TarnAgentPipeClient* client = TarnPipeClient();
    if (!client || frame.size() < TN_FRAME_HEADER_SIZE)
        return -1;
    SYSTEMTIME now = {};
    GetSystemTime(&now);
    static_assert(sizeof(now) == sizeof(TnFrameHeader::timestamp), "a SYSTEMTIME fills the stamp");
    memcpy(&frame[kTimestampOffset], &now, sizeof(now));
    TnFrameHeader header;
    memcpy(&header, frame.data(), TN_FRAME_HEADER_SIZE);
    uint64_t frameLength = uint64_t(header.dwDataLength) + TN_FRAME_HEADER_SIZE;
    if (frameLength > length) {
        LOGW(LOG_ERROR, L"%s - dwBufferSize(%d) > CmdLength(%d)!", self,
             static_cast<int>(frameLength), static_cast<int>(length));
        return -1;
    }
    uint32_t sent = 0;
    length = std::min<uint32_t>(length, static_cast<uint32_t>(frame.size()));
    if (client->SendData(frame.data(), length, sent) != 0)
        return -1;
    length = sent;
    return 0;
}

// Sends the command and reads its response: 0 when the response answers this
// command, otherwise the failed step's result, each failure logged.
int32_t Exchange(const wchar_t* self, std::string frame, const CommandTexts& texts,
                 TnFrameHeader& response) {
    uint32_t length = static_cast<uint32_t>(frame.size());
    int32_t result = sendCmdToServer(frame, length);
    if (result != 0) {
        LOGW(LOG_ERROR, texts.sendFails, self);
        return result;
    }
    std::string bytes;
    result = getResponseFromServer(response, bytes);
    if (result != 0) {
        LOGW(LOG_ERROR, texts.receiveFails, self, static_cast<int>(result));
        return result;
    }
    if (response.dwIdentifier != g_CmdId) {
        LOGW(LOG_ERROR, texts.identifierMismatch, self, static_cast<int>(response.dwIdentifier),
             static_cast<int>(g_CmdId));
        return -1;
    }
    return 0;
}

void LogResponse(const wchar_t* self, const TnFrameHeader& response) {
    LOGW(LOG_DETAIL, L"%s - get reponse: dwTxRetCode(%d), dwDataLength(%d)", self,
         static_cast<int>(response.dwTxRetCode), static_cast<int>(response.dwDataLength));
}

// After the stop command: a fixed overall limit, no regard for check points.
int32_t WaitUntilTarnStopped(const wchar_t* self) {
    TarnServiceQuery query;
    int32_t error = QueryTarnService(self, query);
    if (error != 0)
        return error;
    SERVICE_STATUS_PROCESS& status = query.status;
    ScopedServiceHandle& service = query.service;
    const DWORD start = GetTickCount();
    while (status.dwCurrentState != SERVICE_STOPPED) {
        Sleep(StatusPollSleepMs(status.dwWaitHint));
        if (!QueryTarnStatus(service.Get(), status)) {
            DWORD error = GetLastError();
            LOGW(LOG_ERROR,
                 L"%s - Unalbe to QueryServiceStatusEx(SC_STATUS_PROCESS_INFO) during checking "
                 L"SERVICE_STOPPED [Error=%d]",
                 self, static_cast<int>(error));
            return static_cast<int32_t>(error);
        }
        if (status.dwCurrentState == SERVICE_STOPPED)
            break;
        if (GetTickCount() - start > kStopLimitMs) {
            LOGW(LOG_ERROR,
                 L"%s - Service still not SERVICE_STOPPED, it's kinda too long. Something may go "
                 L"wrong.",
                 self);
            return -1;
        }
    }
    return 0;
}

} // namespace

int32_t sendCmdToServer(std::string& frame, uint32_t& length) {
    const wchar_t* self = L"sendCmdToServer";
    LOGW(LOG_DETAIL, L"%s - >>", self);
    int32_t result = SendFrame(self, frame, length);
    LOGW(LOG_DETAIL, L"%s - dwResult: %d", self, static_cast<int>(result));
    LOGW(LOG_DETAIL, L"%s - <<", self);
    return result;
}

int32_t getResponseFromServer(TnFrameHeader& header, std::string& response) {
    const wchar_t* self = L"getResponseFromServer";
    LOGW(LOG_DETAIL, L"%s - >>", self);
    TarnAgentPipeClient* client = TarnPipeClient();
    for (;;) {
        std::string fetched;
        if (!client || !client->FetchData(fetched)) {
            LOGW(LOG_ERROR, L"%s - FetchData fails: error=%d", self,
                 static_cast<int>(GetLastError()));
            return -1;
        }
        // A response may come in several messages, or a header split across two.
        response += fetched;
        switch (CheckResponse(response, header)) {
        case ResponseState::NeedMore:
            continue;
        case ResponseState::BadMagic:
            LOGW(LOG_ERROR, L"%s - Response Magic check fails", self);
            return -1;
        case ResponseState::NotResponse:
            LOGW(LOG_ERROR, L"%s - dwCmdType(%d) is not TNIPCOMMAND_RESPONSE", self,
                 static_cast<int>(header.dwCmdType));
            return -1;
        case ResponseState::Complete:
            return 0;
        }
    }
}

int32_t NotifyTarnAgent() {
    const wchar_t* self = L"NotifyTarnAgent";
    static const CommandTexts texts = {L"%s - notify - send command fails.",
                                       L"%s - notify - get response fails.",
                                       L"%s - notify - dwIdentifier(%d) != g_CmdId(%d)"};
    LOGW(LOG_DETAIL, L"%s - >>", self);
    TnFrameHeader response;
    int32_t result =
        Exchange(self, BuildCommandFrame(TNIPCOMMAND_NOTIFY, ++g_CmdId), texts, response);
    if (result != 0)
        return -1;
    LogResponse(self, response); // whatever the agent's return code says
    return 0;
}

// By value, as the agent commands' interface takes it.
int32_t
SendSelfProtectionStatus(std::string statusJson) { // NOLINT(performance-unnecessary-value-param)
    const wchar_t* self = L"SendSelfProtectionStatus";
    static const CommandTexts texts = {
        L"%s - Unable to send self protection status.",
        L"%s - Unable to get self protection status response.",
        L"%s - Send self protection status - dwIdentifier(%d) != g_CmdId(%d)"};
    LOGW(LOG_DETAIL, L"%s - >> SendSelfProtectionStatus", self);
    TnFrameHeader response;
    std::string frame =
        BuildCommandFrame(TNIPCOMMAND_SELF_PROTECTION_STATUS, ++g_CmdId, statusJson);
    if (Exchange(self, frame, texts, response) != 0)
        return -1;
    LogResponse(self, response);
    return 0;
}

int32_t StopTarn() {
    const wchar_t* self = L"StopTarn";
    static const CommandTexts texts = {L"%s - Stop service - send command fails.",
                                       L"%s - Stop service - get response fails.",
                                       L"%s - Stop service - dwIdentifier(%d) != g_CmdId(%d)"};
    LOGW(LOG_DETAIL, L"%s - >>", self);
    bool stopped = false;
    int32_t result = IsTarnServiceStopped(stopped);
    if (stopped) // nothing is sent and no identifier is used
        return result;
    TnFrameHeader response;
    result =
        Exchange(self, BuildCommandFrame(TNIPCOMMAND_STOP_SERVICE, ++g_CmdId), texts, response);
    if (result != 0)
        return result;
    LogResponse(self, response);
    return WaitUntilTarnStopped(self);
}

int32_t ClearDriverConfig() {
    const wchar_t* self = L"ClearDriverConfig";
    static const CommandTexts texts = {L"%s - clearConfig - send command fails.",
                                       L"%s - clearConfig - get response fails. err(%d)",
                                       L"%s - clearConfig - dwIdentifier(%d) != g_CmdId(%d)"};
    LOGW(LOG_DETAIL, L"%s - >> ClearDriverConfig", self);
    TnFrameHeader response;
    std::string frame = BuildCommandFrame(TNIPCOMMAND_CLEAR_DRIVER_CONFIG, ++g_CmdId);
    if (Exchange(self, frame, texts, response) != 0)
        return -1;
    // The only command whose result is the agent's own return code.
    if (response.dwTxRetCode != 0) {
        LOGW(LOG_ERROR, L"%s - clearConfig - return code in ResponseCommand is failed. (%d)", self,
             static_cast<int>(response.dwTxRetCode));
        return static_cast<int32_t>(response.dwTxRetCode);
    }
    LogResponse(self, response);
    return 0;
}

int32_t CallTarnAgent(const wchar_t* self, const AgentCallTexts& texts,
                      const std::function<int32_t()>& command, bool* pipeFailed) {
    constexpr int kAttempts = 2;
    if (pipeFailed)
        *pipeFailed = false;
    int32_t result = -1;
    for (int attempt = 1; attempt <= kAttempts; ++attempt) {
        LOGW(LOG_DETAIL, texts.attempt, self, attempt);
        if (!TarnPipeClient() && InitTarnPipeClient() != 0) {
            LOGW(LOG_ERROR, texts.pipeFails, self);
            if (pipeFailed)
                *pipeFailed = true;
            return -1;
        }
        result = command();
        if (result == 0)
            return 0;
        if (texts.attemptFails)
            LOGW(LOG_ERROR, texts.attemptFails, self, static_cast<int>(result));
        DeInitTarnPipeClient();
    }
    return result;
}
