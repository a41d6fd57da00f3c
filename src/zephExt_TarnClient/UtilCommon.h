#pragma once
// Running the agent's own command lines, unpacking its package archive and
// reporting outcomes to the management server.
#include <windows.h>

#include "Json.h"

#include <cstdint>
#include <string>

class JsonRequest;

// Runs "program" arguments in a new console and waits up to five minutes;
// true when it exited with 0. `exitCode` gets the child's exit code, or the
// system error when it could not be started or its code could not be read.
bool LaunchCmd(const wchar_t* program, const wchar_t* arguments, void* unused, uint32_t* exitCode);
bool PrepAndLaunchRedirectedChild(const wchar_t* program, const wchar_t* arguments,
                                  uint32_t* exitCode, HANDLE standardOutput, HANDLE standardError);

// Extracts every entry of the archive into `targetFolder` (paths kept,
// existing files replaced); true when all of them were extracted.
bool DecompressFile(const wchar_t* archivePath, const wchar_t* targetFolder);

// Reports an action's outcome to the management server through the parent
// product's HTTP library: the record {"name":"NotifyResult","notifyType":n,
// "result":n} with the command text "Tarn+" + `commandText`. True when the
// server answered with error code 0.
bool sendNotifyResultToServer(int32_t notifyType, int32_t result, const char* commandText);

// Sends `request` to the management server through the parent product's HTTP
// library with the command text "Tarn+" + `commandText`, then reads, deletes
// and parses the answer file. True when `response` holds the parsed answer.
bool talkToTarnServer(const JsonValue& request, JsonRequest& response, const char* commandText);
// The whole file, read as bytes; false when it cannot be opened or read whole.
bool loadFileToString(const char* path, std::string& content);
