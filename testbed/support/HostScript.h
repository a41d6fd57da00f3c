#pragma once
// Driving the plug-in as the host does: zephhost.exe loads the DLL beside the
// suites in a fresh process and makes one call from its command line or each
// call of a script, "<call> <argument>" a line.
#include "TestBed.h"

// zephhost.exe with the plug-in and `arguments` ("query <json>", "prereq", ...).
ProcessResult RunHost(const std::vector<std::wstring>& arguments, DWORD timeoutMs = 60000);
// The script's calls in one zephhost.exe process.
ProcessResult RunHostScript(const std::vector<std::string>& calls, DWORD timeoutMs = 180000);
// The calls as a script file of that name in the temp folder; answers its path.
std::wstring WriteHostScript(const std::vector<std::string>& calls,
                             const wchar_t* name = L"zephhost_script.txt");

// Script lines of the JSON exports' requests.
std::string Command(const std::string& id, const std::string& data);
std::string Service(const std::string& type); // start or stop the agent
std::string Install();                        // the package beside the suites
std::string Uninstall();
std::string Policy(int flag);
std::string SelfProtection(int service);
std::string MoveClient();
std::string Query(const std::string& id, const std::string& data = "{}");
