// What the plug-in does when the system refuses it: each case arms the test
// bed's fault injector on one import of the shipped DLL, makes one call and
// compares the export's answer and every complaint logged, letter for letter,
// then what was left behind. The cases of a group run in one host process.
#include "CommandExportFixture.h"
#include "QvNotifyDouble.h"

#include <algorithm>

namespace {

struct Refusal {
    std::string fault;      // "<function> <call> <error>[; <another>]", armed just before the call
    std::string call;       // one script line
    std::string answer;     // "<export> -> <result>"
    std::string complaints; // the E and W lines it logged, without the host's prefix
    Lines details = {};     // debug lines it must have logged among the others
};

// The system's own text for `code`, as the Microsoft library's
// std::system_category() gives it: FormatMessage without its line break.
std::string SystemText(DWORD code) {
    char text[512] = {};
    DWORD length = FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                                  nullptr, code, 0, text, sizeof(text), nullptr);
    while (length > 0 && (text[length - 1] == '\n' || text[length - 1] == '\r'))
        --length;
    return std::string(text, length);
}

class RefusalTest : public CommandExportTest {
  protected:
    void ExpectRefusals(const std::vector<Refusal>& refusals) {
        Lines script;
        std::string answers;
        std::string complaints;
        Lines details;
        for (const Refusal& refusal : refusals) {
            std::string fired;
            for (size_t at = 0; at < refusal.fault.size();) {
                size_t end = std::min(refusal.fault.find("; ", at), refusal.fault.size());
                std::string fault = refusal.fault.substr(at, end - at);
                script.push_back("fault " + fault);
                fired += "fired " + fault.substr(0, fault.find_first_of(" (")) + "\n";
                at = end + 2;
            }
            script.insert(script.end(), {refusal.call, "faults", "fault-reset"});
            answers += refusal.answer + "\n" + fired;
            complaints += refusal.complaints;
            details.insert(details.end(), refusal.details.begin(), refusal.details.end());
        }
        // Each answer, then each fault it was given: a fault that never
        // fired would make its case prove nothing.
        Lines outcomes;
        for (const std::string& line : SplitLines(RunHostScript(script).output))
            if (line.rfind("zephExt_", 0) == 0 || line.rfind("fired ", 0) == 0)
                outcomes.push_back(line.substr(0, line.find(" x")));
        EXPECT_EQ(Text(outcomes), answers);
        Lines log = PluginLog();
        EXPECT_EQ(Text(Complaints(log)), complaints);
        ExpectAmong(log, details);
    }
};

const std::string kStart = Service("ZEPH_TYPE_IAGT_START");
const std::string kStartFailed = "E HandleCommand - Unable to start Tarn agent service. ret=";
const std::string kGeneric = "17039362"; // 0x1040002

// A refused start leaves the agent stopped, a refused registry write leaves
// the service status unrecorded, and a refused heap fails the context's export.
// A start whose wait cannot query the service judges it by the stopped state
// it last read, whose exit code 0 counts as started.
TEST_F(RefusalTest, ServiceControlAndTheUpdateContext) {
    ASSERT_TRUE(AgentDouble::Install());
    ExpectRefusals({
        {"OpenSCManagerW 1 5", kStart, CommandResult(1),
         "E StartTarn - Failed to OpenSCManager: 5\n" + kStartFailed + "5\n"},
        {"OpenServiceW 1 5", kStart, CommandResult(1),
         "E StartTarn - OpenService(TarnAgent) failed (5)\n" + kStartFailed + "5\n"},
        {"QueryServiceStatusEx 1 6", kStart, CommandResult(1),
         "E StartTarn - Unable to QueryServiceStatusEx(SC_STATUS_PROCESS_INFO) during checking "
         "current status (6)\n" +
             kStartFailed + "6\n"},
        {"StartServiceW 1 1058", kStart, CommandResult(1),
         "E StartTarn - Unalbe to StartService()(1058)\n" + kStartFailed + "1058\n"},
        // The agent's state is written after the fact: a refused write is logged only.
        {"RegCreateKeyExW 1 5", kStart, CommandResult(0),
         "E utilRegKey::SetValueWithCreate - CreateKey Fail Error(5)\n"},
        {"RegSetValueExW 1 5", Service("ZEPH_TYPE_IAGT_STOP"), CommandResult(0),
         "E utilRegKey::SetDWordValue - Can't set value of "
         "'HKLM\\SOFTWARE\\Quorvane\\TarnAgent\\ServiceStatus', err=5\n\n\n"
         "E utilRegKey::SetValueWithCreate - SetValue Fail Error(5)\n"},
        {"QueryServiceStatusEx 2 6", kStart, CommandResult(0),
         "E UntilServiceStatusNotEqualTo - Failed to QueryServiceStatusEx(SC_STATUS_PROCESS_INFO) "
         "during checking State 1 (START_PENDING=2, STOP_PENDING=3) [Error=6]\n"
         "W StartTarn - Cannot wait until service is not stopped. Still continue to check other "
         "status.\n"
         "E StartTarn - Service not started.Current State : [1], Exit Code : [0], Check Point : "
         "[0], Wait Hint : [0]\n"},
        {"GetProcessHeap 1 6", "create-context", "zephExt_CreateContext -> " + kGeneric,
         "E zephExt_CreateContext - Unable to get process heap. err=6\n"},
        {"HeapAlloc 1 8", "create-context", "zephExt_CreateContext -> " + kGeneric,
         "E zephExt_CreateContext - Unable to alloc memory from heap.\n"},
        {"HeapFree 1 6", "release-context", "zephExt_ReleaseContext -> " + kGeneric,
         "E zephExt_ReleaseContext - Unable to free memory to process heap. err=6\n"},
    });
    EXPECT_TRUE(AgentDouble::WaitForState(SERVICE_RUNNING));
    DWORD status = 0;
    EXPECT_TRUE(TestBedRegistry::ReadDword(kAgentKey, L"ServiceStatus", status));
    EXPECT_EQ(status, 1u);
}

// Refused before the installer ran or the package was unpacked, an install
// leaves no service; refused while reading its exit code, the installer has
// run. A refused uninstall deletes no file.
TEST_F(RefusalTest, InstallLaunchAndUninstall) {
    const std::string installFailed = "E HandleCommand - status_error_code: 0\n"
                                      "E HandleCommand - Unable to Install Tarn agent service.\n";
    const std::string notLaunched = "E InstallTarn - Unable to launch install command.\n";
    const std::string package = Narrow(BinPath(L"instupg_Tarn_x64.zip"));
    const std::string noStatus = "E HandleCommand - Unable to get status of Tarn agent service\n";
    const std::string notUnpacked =
        "E InstallTarn - Extract zip(" + package + ") file by failed.\n" + installFailed;
    const std::string uninstallFailed =
        "E HandleCommand - Unable to Uninstall Tarn agent service.\n";
    ExpectRefusals({
        {"OpenSCManagerW 1 5", Install(), CommandResult(1),
         "E InstallTarn - Failed to OpenSCManager: 5\n" + installFailed},
        {"OpenServiceW 1 5", Install(), CommandResult(1),
         "E InstallTarn - Unexpected service return code. (5)\n" + installFailed},
        {"CreatePipe 1 8", Install(), CommandResult(1),
         "E LaunchCmd - CreatePipe failed, err=8\n" + notLaunched + installFailed},
        {"DuplicateHandle 1 6", Install(), CommandResult(1),
         "E LaunchCmd - DuplicateHandle for output error write failed, err=6\n" + notLaunched +
             installFailed},
        {"DuplicateHandle 2 6", Install(), CommandResult(1),
         "E LaunchCmd - DuplicateHandle for output read failed, err=6\n" + notLaunched +
             installFailed},
        // Lookups: the Server Core probe, then the library's nine functions twice (bound
        // when made and again for the extraction); the eleventh is the second unzOpen.
        {"GetProcAddress 11 127", Install(), CommandResult(1),
         "E DecompressFile - Failed to load CUnzip\n" + notUnpacked},
        {"unzOpen 1 0", Install(), CommandResult(1),
         "E DecompressFile - Failed to open zip file: " + package + ", CUnzip return code: -1\n" +
             notUnpacked},
        {"unzGetGlobalInfo 1 0 -103", Install(), CommandResult(1),
         "E DecompressFile - failed to extract zipped files\n" + notUnpacked},
        {"CreateFileA 1 5", Install(), CommandResult(1),
         "E DecompressFile - error code: 5\n" + notUnpacked},
        {"GetExitCodeProcess 1 6", Install(), CommandResult(1),
         "E PrepAndLaunchRedirectedChild - GetExitCodeProcess failed, err=6\n"
         "E InstallTarn - Unable to complete install command. ret=6\n" +
             installFailed},
        // The service's status is read first, through a manager of its own.
        {"OpenSCManagerW 2 5", Uninstall(), CommandResult(1),
         "E UninstallTarn - Failed to OpenSCManager: 5\n" + uninstallFailed},
        {"OpenServiceW 2 5", Uninstall(), CommandResult(1),
         "E UninstallTarn - Unexpected service return code. (5)\n" + uninstallFailed},
        {"OpenSCManagerW 1 5", Uninstall(), CommandResult(1),
         "E GetClientServiceStatus - Failed to OpenSCManager: 5\n\n" + noStatus},
        {"OpenServiceW 1 5", Uninstall(), CommandResult(1),
         "E GetClientServiceStatus - OpenService(TarnAgent) failed (5)\n\n" + noStatus},
        {"QueryServiceStatusEx 1 6", Uninstall(), CommandResult(1),
         "E GetClientServiceStatus - Failed to QueryServiceStatusEx(SC_STATUS_PROCESS_INFO) during "
         "checking current status (6)\n\n" +
             noStatus},
        {"GetFullPathNameW 1 5", Install(), CommandResult(0),
         "E InstallTarn - Failed to GetFullPathName: 5\n"},
        // The uninstaller is not waited for: it goes on, the files stay.
        {"WaitForSingleObject 1 6", Uninstall(), CommandResult(1),
         "E PrepAndLaunchRedirectedChild - CreateProcessW wait failed, error=6\n"
         "E UninstallTarn - Unable to launch uninstall command.\n" +
             uninstallFailed},
    });
    for (int wait = 0; wait < 150 && AgentDouble::State() != 0; ++wait)
        Sleep(100);
    EXPECT_EQ(AgentDouble::State(), 0u) << "the uninstaller ran to its end";
    EXPECT_TRUE(PathExists(std::wstring(AgentDouble::kClientFolder) + L"\\TarnAgent.exe"));
}

// A detection file that cannot be deleted, opened or read stays; a version
// that cannot be read is reported missing; memory refused fails one call.
TEST_F(RefusalTest, DetectionFilesVersionsAndMemory) {
    ASSERT_TRUE(AgentDouble::Install());
    const std::wstring detectionFile = std::wstring(SimulatedInstall::kFolder) + L"detection.log";
    ASSERT_TRUE(WriteFileBytes(detectionFile, "not a record"));
    const std::wstring validFile = std::wstring(SimulatedInstall::kFolder) + L"valid_detection.log";
    ASSERT_TRUE(WriteFileBytes(validFile, std::string(kValidDetectionRecord) + "\n"));
    const std::string noVersion = "E zephExt_GetPrerequest - Unalbe to get agent version.\n";
    const std::string unreadable = "zephExt_ParseLog -> 4294967295";
    ExpectRefusals({
        {"_wremove 1 5", "parselog " + Narrow(detectionFile), "zephExt_ParseLog -> 4294967294",
         "E verifyLog - Invalid format\nE zephExt_ParseLog - Invalid detection log.\n"
         "E zephExt_ParseLog - _wremove error: 5\n"},
        {"GetFileVersionInfoW 1 5", "prereq", "zephExt_GetPrerequest -> 0",
         "E GetFileVersion - Fail to GetFileVersionInfo, error=5\n\n" + noVersion},
        {"GetFileVersionInfoSizeW 1 1813", "prereq", "zephExt_GetPrerequest -> 0", noVersion},
        {"VerQueryValueW 1 1813", "prereq", "zephExt_GetPrerequest -> 0",
         "E GetFileVersion - Fail to VerQueryValue, error=1813\n\n" + noVersion},
        {"CreateFileW(Corvale\\detection.log) 1 5", "parselog " + Narrow(detectionFile), unreadable,
         "E zephExt_ParseLog - Can't open the file: " + Narrow(detectionFile) + "\n"},
        {"ReadFile(valid_detection.log) 1 5", "parselog " + Narrow(validFile), unreadable,
         "E zephExt_ParseLog - Read file error: ios_base::badbit set: iostream stream error\n"},
        // Memory refused inside an export ends that call, never the host.
        {"malloc 1 12", Query("ZEPH_ONQUERY_SELF_PROTECTION"), "zephExt_OnQueryData -> 0",
         "E zephExt_OnQueryData - Unexpected exception: std::bad_alloc\n"},
        {"malloc 1 12", MoveClient(), "zephExt_OnNotify -> 1",
         "E zephExt_OnNotify - Unexpected exception: std::bad_alloc\n"},
    });
    EXPECT_TRUE(PathExists(detectionFile));
    EXPECT_TRUE(PathExists(validFile));
}

// The agent pipe: a refused set-up ends the notice's attempts at once, a
// refused write or read costs one attempt, a busy pipe or a full quota is
// waited out; the agent keeps running through it all. The cases share one
// client, in order: each one that succeeds leaves its read pending for the
// next.
TEST_F(RefusalTest, AgentPipe) {
    ASSERT_TRUE(AgentDouble::Install());
    ASSERT_TRUE(AgentDouble::Start());
    const std::string notice = SelfProtection(0);
    const std::string delivered = Result("zephExt_OnNotify", 0);
    const std::string lost = Result("zephExt_OnNotify", 1);
    const std::string initFails = "E InitTarnPipeClient - TarnAgentPipeClient Init fails: error=";
    const std::string initial = "D TarnAgentPipeClient::Initial - ";
    const std::string noPipe = "E HandleNotify - Unable to init pipe.\n"
                               "E HandleNotify - Unable to send self protection status. ret=-1\n";
    const std::string notSent =
        "E SendSelfProtectionStatus - Unable to send self protection status.\n";
    const std::string noAnswer = "E getResponseFromServer - FetchData fails: error=";
    const std::string noResponse =
        "E SendSelfProtectionStatus - Unable to get self protection status response.\n";
    ExpectRefusals({
        {"CreateEventW 1 8", notice, lost,
         "E InitTarnPipeClient - CreateEvent for hStopEvent fails.\n" + noPipe},
        {"CreateEventW 2 8",
         notice,
         lost,
         initFails + "8\n" + noPipe,
         {initial + "CreateEvent fails\n"}},
        {"CreateFileW(OIPC_TARNAGENT) 1 5",
         notice,
         lost,
         initFails + "5\n" + noPipe,
         {initial + "CreateFile fails: error=5\n"}},
        {"CreateFileW(OIPC_TARNAGENT) 1 231; WaitNamedPipeW(OIPC_TARNAGENT) 1 121",
         notice,
         lost,
         initFails + "121\n" + noPipe,
         {initial + "WaitNamedPipe fails: error=121\n"}},
        {"SetNamedPipeHandleState(OIPC_TARNAGENT) 1 5",
         notice,
         lost,
         initFails + "5\n" + noPipe,
         {initial +
          "Pipe Server seems not to agree to use mode (PIPE_READMODE_MESSAGE | PIPE_WAIT)\n"}},
        {"ReadFile(OIPC_TARNAGENT) 1 5",
         notice,
         delivered,
         noAnswer + "5\n" + noResponse,
         {"D TarnAgentPipeClient::Recv - ReadFile: fails, error=5\n"}},
        {"GetOverlappedResult(OIPC_TARNAGENT) 1 6",
         notice,
         delivered,
         noAnswer + "6\n" + noResponse,
         {"D TarnAgentPipeClient::Recv - GetOverlappedResult fails: error=6\n"}},
        {"WaitForMultipleObjects 1 6", notice, delivered, noAnswer + "6\n" + noResponse},
        {"WriteFile(OIPC_TARNAGENT) 1 232", notice, delivered, notSent},
        {"WriteFile(OIPC_TARNAGENT) 1+ 232", notice, lost,
         notSent + notSent + "E HandleNotify - Unable to send self protection status. ret=-1\n"},
        // A busy pipe is waited for and opened again; a full quota is written again.
        {"CreateFileW(OIPC_TARNAGENT) 1 231", notice, delivered, ""},
        {"WriteFile(OIPC_TARNAGENT) 1 1450", notice, delivered, ""},
        // Each command's own text for a frame that cannot be written; a
        // policy that failed is reported to the server and so succeeds.
        {"WriteFile(OIPC_TARNAGENT) 1+ 232", Policy(1), CommandResult(0),
         "W StartTarn - The service is alreay running. Skip further steps. Current state: 4\n"
         "E NotifyTarnAgent - notify - send command fails.\n"
         "E NotifyTarnAgent - notify - send command fails.\n"
         "E handleNotifyFlag - Unable to notify Tarn agent. ret=-1\n"},
        {"WriteFile(OIPC_TARNAGENT) 1+ 232", Policy(2), CommandResult(0),
         "E ClearDriverConfig - clearConfig - send command fails.\n"
         "E handleNotifyFlag - Fail to clear driver config. ret=-1\n"
         "E ClearDriverConfig - clearConfig - send command fails.\n"
         "E handleNotifyFlag - Fail to clear driver config. ret=-1\n"
         "E handleNotifyFlag - Unable to clear driver config. ret=-1\n"},
        {"WriteFile(OIPC_TARNAGENT) 1+ 232", Service("ZEPH_TYPE_IAGT_STOP"), CommandResult(1),
         "E StopTarn - Stop service - send command fails.\n"
         "E StopTarn - Stop service - send command fails.\n"
         "E HandleCommand - Unable to stop Tarn agent service. ret=-1\n"},
    });
    EXPECT_EQ(AgentDouble::State(), static_cast<DWORD>(SERVICE_RUNNING));
}

// A service stuck stopping that cannot be queried while it is waited for: a
// start tries anyway and the manager refuses it; a disable takes the agent for
// running (its pipe refused here, so the outcome does not hang on whether a
// stopping agent still serves it).
TEST_F(RefusalTest, WaitsOnAStuckStop) {
    AgentDouble::Behaviour stuck;
    stuck.stuckStopPending = true;
    ASSERT_TRUE(AgentDouble::Run(stuck));
    ASSERT_TRUE(AgentDouble::Control(SERVICE_CONTROL_STOP, SERVICE_STOP_PENDING));
    const std::string noQuery =
        "E UntilServiceStatusNotEqualTo - Failed to QueryServiceStatusEx(SC_STATUS_PROCESS_INFO) "
        "during checking State 3 (START_PENDING=2, STOP_PENDING=3) [Error=6]\n";
    ExpectRefusals({
        {"QueryServiceStatusEx 2 6", kStart, CommandResult(1),
         noQuery +
             "W StartTarn - Cannot wait until service is not stop pending. Still continue to try "
             "start service.\n"
             "E StartTarn - Unalbe to StartService()(1056)\n" +
             kStartFailed + "1056\n"},
        {"QueryServiceStatusEx 2 6; CreateFileW(OIPC_TARNAGENT) 1+ 5", Policy(2), CommandResult(0),
         "W IsTarnServiceStopped - Service is already stopped or stop pending. Will wait for "
         "pending.\n" +
             noQuery +
             "E IsTarnServiceStopped - UntilServiceStatusNotEqualTo(SERVICE_STOP_PENDING) failed. "
             "nRet=6\n"
             "E InitTarnPipeClient - TarnAgentPipeClient Init fails: error=5\n"
             "E handleNotifyFlag - Unable to init pipe.\n"
             "E handleNotifyFlag - Unable to clear driver config. ret=-1\n"},
    });
    EXPECT_EQ(AgentDouble::State(), static_cast<DWORD>(SERVICE_STOP_PENDING));
}

// A refused look at the service is taken for a running agent: the stop is
// sent and succeeds. A refused wait after the agent has answered fails the
// command although the agent stops; refusing the second attempt's pipe makes
// that outcome the same on every run, however fast the agent stops.
TEST_F(RefusalTest, StopAndItsWait) {
    AgentDouble::Behaviour slowStop;
    slowStop.stopDelayMs = 2000; // the wait queries again before the agent has stopped
    ASSERT_TRUE(AgentDouble::Install(slowStop));
    const std::string notLooked = "E IsTarnServiceStopped - Unalbe to ";
    const std::string notWaited = "E StopTarn - Unalbe to ";
    const std::string noQuery = "QueryServiceStatusEx(SC_STATUS_PROCESS_INFO) during checking ";
    const std::string secondAttempt = "; CreateFileW(OIPC_TARNAGENT) 2 5";
    const std::string noPipe = "E InitTarnPipeClient - TarnAgentPipeClient Init fails: error=5\n"
                               "E HandleCommand - Unable to init pipe.\n"
                               "E HandleCommand - Unable to stop Tarn agent service. ret=-1\n";
    const std::vector<Refusal> refusals = {
        {"OpenSCManagerW 1 5", "", CommandResult(0), notLooked + "OpenSCManager: 5\n"},
        {"OpenServiceW 1 5", "", CommandResult(0), notLooked + "OpenService(TarnAgent): 5\n"},
        {"QueryServiceStatusEx 1 6", "", CommandResult(0),
         notLooked + noQuery + "current status (6)\n"},
        {"OpenSCManagerW 2 5" + secondAttempt, "", CommandResult(1),
         notWaited + "OpenSCManager: 5\n" + noPipe},
        {"OpenServiceW 2 5" + secondAttempt, "", CommandResult(1),
         notWaited + "OpenService(TarnAgent): 5\n" + noPipe},
        {"QueryServiceStatusEx 2 6" + secondAttempt, "", CommandResult(1),
         notWaited + noQuery + "current status (6)\n" + noPipe},
        {"QueryServiceStatusEx 3 6" + secondAttempt, "", CommandResult(1),
         notWaited + noQuery + "SERVICE_STOPPED [Error=6]\n" + noPipe},
    };
    for (Refusal refusal : refusals) {
        SCOPED_TRACE(refusal.fault);
        ASSERT_TRUE(AgentDouble::Start());
        size_t frames = AgentDouble::ReceivedFrames().size();
        refusal.call = Service("ZEPH_TYPE_IAGT_STOP");
        ExpectRefusals({refusal});
        EXPECT_EQ(AgentDouble::ReceivedFrames().size(), frames + 1);
        EXPECT_TRUE(AgentDouble::WaitForState(SERVICE_STOPPED));
    }
    DWORD status = 1;
    EXPECT_TRUE(TestBedRegistry::ReadDword(kAgentKey, L"ServiceStatus", status));
    EXPECT_EQ(status, 0u);
}

// Each stage of an update refused in turn: the stage fails with its code and
// the system's text, the rollback undoes what the counter says, and the
// agent's files end as they were, byte for byte. Then what is left when the
// rollback or the post-update is refused itself.
TEST_F(RefusalTest, UpdateStages) {
    ASSERT_TRUE(AgentDouble::Install());
    ASSERT_TRUE(AgentDouble::PlaceUpdateSource());
    const std::wstring agent = AgentDouble::kClientFolder;
    ASSERT_TRUE(CreateFolderTree(agent + L"\\config"));
    ASSERT_TRUE(WriteFileBytes(agent + L"\\config\\tn_agent.ini", "[Policy]\r\nEnabled=0\r\n"));
    ASSERT_TRUE(WriteFileBytes(agent + L"\\agent.log", "never backed up"));
    const FileTree before = SnapshotFiles(agent);
    const std::string source = " " + Narrow(AgentDouble::kUpdateSource);
    const std::string update = "update-rollback-after-do" + source;
    // What the host's sequence answers when the pre-update fails, and when it
    // succeeds and the update follows.
    auto sequence = [](const std::string& stages) {
        return "zephExt_CreateContext -> 0\n" + stages + "zephExt_ReleaseContext -> 0";
    };
    auto preFails = [&](uint32_t pre, uint32_t rollback) {
        return sequence("zephExt_PreUpdate -> " + std::to_string(pre) + "\nzephExt_Rollback -> " +
                        std::to_string(rollback) + "\n");
    };
    auto rolledBack = [&](uint32_t update, uint32_t rollback) {
        return sequence("zephExt_PreUpdate -> 0\nzephExt_DoUpdate -> " + std::to_string(update) +
                        "\nzephExt_Rollback -> " + std::to_string(rollback) + "\n");
    };
    const std::string denied = "Error code: 5,  error message: " + SystemText(5);
    const std::string unknown = "Error code: 5, error message: " + SystemText(5);
    const std::string launch = "E PrepAndLaunchRedirectedChild - CreateProcessW failed, err=5\n";
    ExpectRefusals({
        {"CopyFileW 1 5", update, preFails(17039363, 0),
         "E zephExt_PreUpdate - Unable to backup Tarn agent files. " + denied + "\n"},
        // The first backup of the process: nothing left from an earlier one.
        {"DeleteFileW(TarnAgentBackup\\agent.log) 1 5", update, preFails(17039363, 0),
         "E zephExt_PreUpdate - File system error: remove: " + SystemText(5) + "\n"},
        {"GetFileAttributesW(iService\\Tarn) 1 5", update, rolledBack(0, 0),
         "E zephExt_PreUpdate - Unable to check whether Tarn folder exists or not. " + unknown +
             ". Continue backup process.\n"},
        {"GetFileAttributesW(TarnAgentBackup\\agent.log) 2 2", update, rolledBack(0, 0),
         "W zephExt_PreUpdate - Unable to delete log backup. " + Narrow(SimulatedInstall::kFolder) +
             "Temp\\TarnAgentBackup\\agent.log\n"},
        {"FindFirstFileExW(TarnAgentBackup\\*) 2 5", update, preFails(17039363, 0),
         "E zephExt_PreUpdate - File system error: directory_iterator: " + SystemText(5) + "\n"},
        {"GetFileAttributesW(iService\\Tarn\\TarnAgent.exe) 2 5", update, rolledBack(0, 0),
         "E zephExt_DoUpdate - Unable to check whether TarnAgent.exe exists or not. " + unknown +
             ". Continue update process.\n"},
        {"CreateProcessW 1 5", update, rolledBack(17039364, 0),
         launch + "E zephExt_DoUpdate - Unable to complete uninstall command. ret=5\n"},
        // Versions are only logged.
        {"GetFileVersionInfoSizeW(ZephTestBed\\update) 1 1813", update, rolledBack(0, 0),
         "E zephExt_DoUpdate - Unalbe to get candidate tarn agent version.\n"},
        {"GetFileVersionInfoSizeW(iService\\Tarn) 1 1813", update, rolledBack(0, 0),
         "E zephExt_DoUpdate - Unalbe to get installed tarn agent version.\n"},
        {"GetFileVersionInfoSizeW(iService\\Tarn) 2 1813", update, rolledBack(0, 0),
         "E zephExt_DoUpdate - Unalbe to get updated tarn agent version.\n"},
        {"CopyFileW(ZephTestBed\\update) 1 5", update, rolledBack(17039365, 0),
         "E zephExt_DoUpdate - Unable to replace files of Tarn agent. " + denied + "\n"},
        {"CopyFileW(TarnAgentBackup\\config) 1 5", update, rolledBack(0, 0),
         "E zephExt_DoUpdate - Unable to copy back config file of Tarn agent. " + denied +
             ". Continue update process.\n"},
        {"CreateProcessW 2 5", update, rolledBack(17039366, 0),
         launch + "E zephExt_DoUpdate - Unable to complete install command. ret=5\n"},
        {"CreateProcessW 1 5", "update-rollback-after-pre" + source,
         sequence("zephExt_PreUpdate -> 0\nzephExt_Rollback -> 17039367\n"),
         launch + "E zephExt_Rollback - Unable to complete install command. ret=5\n"},
    });
    EXPECT_TRUE(SnapshotFiles(agent) == before) << "the old agent's files are not all back";
    EXPECT_EQ(AgentDouble::State(), static_cast<DWORD>(SERVICE_STOPPED));

    ExpectRefusals({
        {"RemoveDirectoryW(TarnAgentBackup) 3 5", "update" + source,
         sequence("zephExt_PreUpdate -> 0\nzephExt_DoUpdate -> 0\nzephExt_PostUpdate -> "
                  "17039362\n"),
         "E zephExt_PostUpdate - File system error: remove_all: " + SystemText(5) + "\n"},
        {"CreateProcessW 3 5", update, rolledBack(0, 17039367),
         launch + "E zephExt_Rollback - Unable to complete uninstall command. ret=5\n"},
        {"CopyFileW(TarnAgentBackup) 2 5", update, rolledBack(0, 17039367),
         "E zephExt_Rollback - File system error: copy: " + SystemText(5) + "\n"},
    });
    EXPECT_TRUE(PathExists(std::wstring(SimulatedInstall::kFolder) + L"Temp\\TarnAgentBackup"))
        << "a rollback keeps the backup";
}

// A failed policy on a machine opted in to the cloud console's policy clears
// the stored policy: a refused clear or delete is logged, the rest is done
// and the command still succeeds.
TEST_F(RefusalTest, PolicyDataReset) {
    const std::wstring policyFile = std::wstring(SimulatedInstall::kFolder) + L"policy.dat";
    const std::wstring policyKey = std::wstring(kProductKey) + L"\\ZEPH\\ZEPH_IPRODUCT_TARN";
    ASSERT_TRUE(TestBedRegistry::WriteDword(
        (std::wstring(kProductKey) + L"\\LumenfieldPolicy").c_str(), L"LFPolicyOptIn", 1));
    const std::string key = "SOFTWARE\\Wow6432Node\\Quorvane\\HalvaneNTCorp\\CurrentVersion\\ZEPH\\"
                            "ZEPH_IPRODUCT_TARN";
    // No agent installed: the enable fails.
    const std::string notStarted = "E StartTarn - OpenService(TarnAgent) failed (1060)\n"
                                   "E handleNotifyFlag - Unable to start Tarn agent service. "
                                   "ret=1060\n";
    struct Case {
        Refusal refusal;
        bool fileStays;
    };
    for (const Case& c : std::vector<Case>{
             {{"RegSetValueExW 1 5", Policy(1), CommandResult(0),
               notStarted + "E utilRegKey::SetValue - Can't set value of 'HKLM\\" + key +
                   "\\PolicyData', err=5\n\n\n"
                   "E ClearLFIPSPolicyPath - Cannot set value(PolicyData) under key(HKEY_LOCAL_"
                   "MACHINE\\" +
                   key +
                   ")\n"
                   "E handleNotifyFlag - Failed to reset PolicyData registry value.\n"},
              false},
             {{"DeleteFileW(policy.dat) 1 5", Policy(1), CommandResult(0),
               notStarted + "E handleNotifyFlag - Failed to delete policy data file " +
                   Narrow(policyFile) + ". Error: 5\n"},
              true},
         }) {
        SCOPED_TRACE(c.refusal.fault);
        ASSERT_TRUE(TestBedRegistry::WriteText(policyKey.c_str(), L"PolicyData", policyFile));
        ASSERT_TRUE(WriteFileBytes(policyFile, "policy"));
        ExpectRefusals({c.refusal});
        EXPECT_EQ(PathExists(policyFile), c.fileStays);
    }
}

// A report to the server that the system refuses to load, look up or read
// is logged and lost; the move-client notice succeeds all the same. A refused
// load is tried again at the next report.
TEST_F(RefusalTest, ServerNotification) {
    const std::string notice = MoveClient();
    const std::string delivered = Result("zephExt_OnNotify", 0);
    const std::string lost = "E sendNotifyResultToServer - Unable to talk to Tarn Server.\n"
                             "E HandleNotify - Unable to send NotifyResult for move client\n";
    const std::string unread = "E talkToTarnServer - Unable to load qvSock response, "
                               "file=.\\qvsock_response\n";
    ExpectRefusals({
        {"LoadLibraryW(Qvsock_64x) 1 126", notice, delivered,
         "E talkToTarnServer - Unable to load Qvsock_64x.dll.\n" + lost},
        {"GetModuleHandleW(Qvsock_64x) 1 126", notice, delivered,
         "E talkToTarnServer - Unable to load function qvSendHttpToCRVLServer2.\n" + lost},
        {"fopen(qvsock_response) 1 13", notice, delivered,
         "E loadFileToString - Unable to open .\\qvsock_response.\n" + unread + lost},
        {"fseek 1 5", notice, delivered,
         "E loadFileToString - Unable to read file(.\\qvsock_response), expect length(-1), "
         "actual(0)\n" +
             unread + lost},
        {"fread 1 5", notice, delivered,
         "E loadFileToString - Unable to read file(.\\qvsock_response), expect length(30), "
         "actual(0)\n" +
             unread + lost},
    });
}

// The one-time binding refused: each case in a process of its own, since a
// binding that succeeded is never made again, and every export refuses
// service until one does. Then the trust checks of the archive library: the
// first load's refusal is reported to the event log and the second load is
// what counts; with every check refused the package cannot be unpacked.
TEST_F(RefusalTest, HostBindingAndTrust) {
    const std::string refused = Result("zephExt_OnNotify", 8);
    const std::string noBinding = "E IsValidLoader - Unable to initialize zephAgent dll.\n";
    const std::string noPath = "E init - Unable to get CRVL install path.\n" + noBinding;
    const std::string noLibrary = "E init - Unable to load zephAgent_64x. Error:8\n" + noBinding;
    const std::string key =
        "HKEY_LOCAL_MACHINE\\SOFTWARE\\Wow6432Node\\Quorvane\\HalvaneNTCorp\\CurrentVersion";
    const std::string shortKey = "HKLM" + key.substr(key.find('\\'));
    const std::string untrusted = "-2146762496\n"; // TRUST_E_NOSIGNATURE
    auto notSigned = [&](const std::wstring& file) {
        return "E CheckFileIssuer - failed to check digital signature for " + Narrow(file) +
               ", err=" + untrusted;
    };
    for (const Refusal& refusal : std::vector<Refusal>{
             {"RegOpenKeyExW 1 5", MoveClient(), refused,
              "E GetCRVLInstallPath - Cannot find registry " + key + "\n" + noPath},
             {"RegOpenKeyExW 2 5", MoveClient(), refused,
              "E utilRegKey::Open - Can't open registry key '" + shortKey + "', err=5\n\n" +
                  "E GetCRVLInstallPath - Cannot open registry " + key + "\n" + noPath},
             {"RegQueryValueExW 1 5", MoveClient(), refused,
              "E utilRegKey::QueryValue - Can't read value of '" + shortKey +
                  "\\Application Path', err=5\n\n" +
                  "E GetCRVLInstallPath - Cannot find value(Application Path) under key(" + key +
                  ")\n" + noPath},
             {"WinVerifyTrust 1 0x800B0100", MoveClient(), refused,
              notSigned(std::wstring(SimulatedInstall::kFolder) + L"zephAgent_64x.dll") +
                  noLibrary},
             {"LoadLibraryW(zephAgent_64x) 1 5", MoveClient(), refused, noLibrary},
         })
        ExpectRefusals({refusal});

    const std::wstring zlib = BinPath(L"zlibwapi.dll");
    const std::string noNotify =
        "E CQvNotifyDLL::Init - CQvNotifyDLL:CQvNotifyDLL() Verify DigitalSignature "
        "Failed(qvnotify.dll) error = 0x800b0100\n"
        "E CQvNotifyDLL::Init - CQvNotifyDLL::CQvNotifyDLL() LoadLibrary(qvnotify.dll) error = " +
        untrusted;
    DeleteFileW(kQvNotifyJournal);
    ExpectRefusals({
        {"", "prereq", "zephExt_GetPrerequest -> 0",
         "E zephExt_GetPrerequest - Unalbe to get agent version.\n"},
        {"WinVerifyTrust 1+ 0x800B0100",
         Install(),
         CommandResult(1),
         notSigned(zlib) + noNotify + notSigned(zlib) + noNotify +
             "E DecompressFile - Failed to load CUnzip\n"
             "E InstallTarn - Extract zip(" +
             Narrow(BinPath(L"instupg_Tarn_x64.zip")) +
             ") file by failed.\n"
             "E HandleCommand - status_error_code: 0\n"
             "E HandleCommand - Unable to Install Tarn agent service.\n",
         {"D CCrvDigitalSignatureManagerEx::VerifyEmbeddedSignatureSingleSign - failed to call "
          "WinVerifyTrust(), StatusVerify=800b0100, GetLastError=800b0100",
          "D CCrvDigitalSignatureManagerEx::VerifyEmbeddedSignatureSingleSign - failed to verify "
          "by certificate information",
          "D LoadLibraryWithIssuerCheckA - File (" + Narrow(zlib) +
              ") is not issued by (Quorvane, Inc.). Issuer check failed. Write to Windows Event "
              "Log, SetLastError() to customized error code ERROR_FAILED_ISSUER_CHECK "
              "(0x20001447) and return NULL.",
          "D WriteWindowsEventLogForNotLoadingLibDueToIssuerCheckFailed - QvNotify initialization "
          "failed"}},
        {"WinVerifyTrust 1 0x800B0100", Install(), CommandResult(0), notSigned(zlib)},
    });
    const std::vector<std::string> journal = JournalLines(kQvNotifyJournal);
    EXPECT_EQ(std::count_if(journal.begin(), journal.end(),
                            [&](const std::string& line) {
                                return line.rfind("ReportEventLogEx|", 0) == 0 &&
                                       line.find("(" + Narrow(zlib) + ").") != std::string::npos;
                            }),
              1);
    EXPECT_EQ(AgentDouble::State(), static_cast<DWORD>(SERVICE_STOPPED)) << "installed";
}

} // namespace
