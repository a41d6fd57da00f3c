#pragma once
// The four commands the plug-in gives the agent over its pipe. Each is one
// frame; the agent answers each with one response frame carrying the same
// identifier. A pipe client must exist (InitTarnPipeClient) before a command;
// after a failed one the caller drops it and, where it retries, connects again.
#include "TarnAgentProtocol.h"

#include <cstdint>
#include <functional>
#include <string>

// The identifier of the latest command: 0 at load, never reset.
extern uint32_t g_CmdId;

// Stamps the frame with the current UTC time and sends `length` bytes of it;
// `length` becomes the count sent. 0 or -1.
int32_t sendCmdToServer(std::string& frame, uint32_t& length);
// Reads until a whole response is there; `response` gets all its bytes. 0 or -1.
int32_t getResponseFromServer(TnFrameHeader& header, std::string& response);

int32_t NotifyTarnAgent();
int32_t SendSelfProtectionStatus(std::string statusJson);
// Sends nothing for a stopped or absent service; otherwise waits up to 60 s for the stop.
int32_t StopTarn();
// The agent's non-zero dwTxRetCode comes back unchanged.
int32_t ClearDriverConfig();

// What a caller logs while it gives the agent a command.
struct AgentCallTexts {
    const wchar_t* attempt;      // before each attempt, with its number from 1
    const wchar_t* pipeFails;    // when the pipe cannot be connected; ends the attempts
    const wchar_t* attemptFails; // after each failed attempt, with its result; may be null
};

// Up to two attempts, without a pause: connect the pipe when there is no
// client, give the command, drop the client after a failure. Answers the last
// attempt's result, or -1 with `pipeFailed` set when the pipe could not be
// connected.
int32_t CallTarnAgent(const wchar_t* self, const AgentCallTexts& texts,
                      const std::function<int32_t()>& command, bool* pipeFailed = nullptr);
