#pragma once
// Commands and notifications through the real exports: zephhost.exe loads the
// DLL in a fresh process per script, with the agent, host library and HTTP
// library doubles on the far ends.
#include "AgentControlFixture.h"
#include "HostScript.h"
#include "QvsockDouble.h"

#include <cmath>
#include <cstring>

inline const wchar_t kAgentKey[] = L"SOFTWARE\\Quorvane\\TarnAgent";
using SimulatedInstall::kProductKey;

// A frame as the agent must see it: magic "NTVQ", type, identifier, payload
// length and payload, stamped with the UTC time of sending.
inline void ExpectFrame(const std::string& frame, uint32_t type, uint32_t identifier,
                        const std::string& payload = std::string()) {
    ASSERT_EQ(frame.size(), 36 + payload.size());
    const uint32_t head[] = {0x5156544E, type, identifier, 0, uint32_t(payload.size())};
    EXPECT_EQ(frame.substr(0, 20), std::string(reinterpret_cast<const char*>(head), 20));
    EXPECT_EQ(frame.substr(36), payload);
    SYSTEMTIME stamp = {};
    memcpy(&stamp, frame.data() + 20, sizeof(stamp));
    ULARGE_INTEGER stampTime = {}, now = {};
    ASSERT_TRUE(SystemTimeToFileTime(&stamp, reinterpret_cast<FILETIME*>(&stampTime)));
    GetSystemTimeAsFileTime(reinterpret_cast<FILETIME*>(&now));
    EXPECT_LT(std::abs(double(now.QuadPart) - double(stampTime.QuadPart)), 5 * 600000000.0);
}

class CommandExportTest : public AgentControlTest {
  protected:
    void SetUp() override {
        AgentControlTest::SetUp();
        TestBedRegistry::DeleteTree(kAgentKey);
    }
    void TearDown() override {
        TestBedRegistry::DeleteTree(kAgentKey);
        TestBedRegistry::DeleteTree((std::wstring(kProductKey) + L"\\LumenfieldPolicy").c_str());
        AgentControlTest::TearDown();
    }

    // Runs the calls in one zephhost.exe process; answers each export's result
    // ("zephExt_OnCommand -> 0", ...) in order.
    static Lines Host(const Lines& calls) {
        ProcessResult run = RunHostScript(calls);
        EXPECT_FALSE(run.timedOut);
        return Starting(SplitLines(run.output), "zephExt_On");
    }
    static std::string Result(const char* exportName, uint32_t result) {
        return std::string(exportName) + " -> " + std::to_string(result);
    }
    static std::string CommandResult(uint32_t result) {
        return Result("zephExt_OnCommand", result);
    }
    // What the plug-in logged, without the host's prefix.
    Lines PluginLog() {
        Lines lines;
        for (std::string line : Logged()) {
            size_t prefix = line.find(P);
            if (prefix != std::string::npos)
                line.erase(prefix, P.size());
            lines.push_back(line);
        }
        return lines;
    }
    Lines PluginComplaints() { return Complaints(PluginLog()); }
    // Each of `lines` was logged.
    static void ExpectAmong(const Lines& log, const Lines& lines) {
        for (const std::string& line : lines)
            EXPECT_TRUE(Contains(log, line)) << line << "\nnot among:\n" << Text(log);
    }
    static void MakeConfigFolder() {
        ASSERT_TRUE(CreateFolderTree(std::wstring(AgentDouble::kClientFolder) + L"\\config"));
    }
};
