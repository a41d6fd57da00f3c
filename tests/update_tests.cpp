// The agent update transaction on real folders with the agent double: every
// way it can fail ends, after the rollback, with the old agent's files and the
// user's configuration as they were, or with the new agent after success.
#include "AgentControlFixture.h"
#include "UtilClientInfo.h"
#include "zephExt_TarnClient.h"

#include <filesystem>
#include <map>

namespace {

namespace fs = std::filesystem;

const std::wstring kAgent = AgentDouble::kClientFolder;
const std::wstring kAgentParent = fs::path(kAgent).parent_path().wstring();
const std::wstring kTemp = std::wstring(SimulatedInstall::kFolder) + L"Temp";
const std::wstring kSource = AgentDouble::kUpdateSource;
const std::wstring kBackup = std::wstring(SimulatedInstall::kFolder) + L"Temp\\TarnAgentBackup";
const std::string kUserConfig = "[Policy]\r\nEnabled=0\r\n; the user's own settings\r\n";

void WriteFile(const std::wstring& path, const std::string& bytes) {
    EXPECT_TRUE(CreateFolderTree(fs::path(path).parent_path().wstring()));
    EXPECT_TRUE(WriteFileBytes(path, bytes));
}

std::string AgentVersion() {
    FileVersion version;
    return GetAgentVersion(version) ? VersionText(version) : "none";
}

class UpdateTest : public AgentControlTest {
  protected:
    void SetUp() override {
        AgentControlTest::SetUp();
        RemoveFolderTree(kSource);
        ASSERT_EQ(zephExt_CreateContext(&m_context), 0u);
        PlaceNewVersion();
        Logged();
    }
    void TearDown() override {
        zephExt_ReleaseContext(m_context);
        RemoveFolderTree(kSource);
        AgentControlTest::TearDown();
    }

    // Version 3.2 installed (service stopped), with the user's configuration
    // and log files beside it.
    void PlaceOldAgent() {
        AgentDouble::Remove();
        ASSERT_TRUE(AgentDouble::Install());
        WriteFile(kAgent + L"\\config\\tn_agent.ini", kUserConfig);
        WriteFile(kAgent + L"\\agent.log", "top-level log");
        WriteFile(kAgent + L"\\.log", "a log too");
        WriteFile(kAgent + L"\\UP.LOG", "not a log: the test is exact");
        WriteFile(kAgent + L"\\logs\\detail.log", "kept log");
        m_oldFiles = SnapshotFiles(kAgent);
    }
    // Version 3.3 in the update's source folder, with default settings of its own.
    static void PlaceNewVersion() {
        ASSERT_TRUE(AgentDouble::PlaceUpdateSource());
        ASSERT_TRUE(
            CopyFileW(BinPath(L"hdc.exe").c_str(), (kSource + L"\\hdc.exe").c_str(), FALSE));
        WriteFile(kSource + L"\\new.dat", "only in 3.3");
    }

    uint32_t PreUpdate() { return zephExt_PreUpdate(nullptr, m_context); }
    uint32_t DoUpdate() {
        ZephUpdateInfo info = {};
        wcsncpy(info.sourceDir, kSource.c_str(), MAX_PATH - 1);
        return zephExt_DoUpdate(&info, m_context);
    }
    uint32_t Rollback() { return zephExt_Rollback(nullptr, m_context); }
    int32_t& Counter() { return *static_cast<int32_t*>(m_context); }

    // The old agent is back: every file it had, byte for byte, its service,
    // its version.
    void ExpectOldAgentRestored() {
        FileTree now = SnapshotFiles(kAgent);
        for (const auto& [path, bytes] : m_oldFiles)
            EXPECT_EQ(now[path], bytes) << path;
        EXPECT_EQ(AgentVersion(), "3.2.1045.7");
        EXPECT_EQ(AgentDouble::State(), static_cast<DWORD>(SERVICE_STOPPED));
    }

    // The complaints logged since the last look, one a line, without the
    // version lines; the system's own wording of an error is cut off.
    static std::string Grievances(const Lines& log) {
        std::string text;
        for (std::string line : Complaints(log)) {
            size_t wording = line.find("error message: ");
            if (wording != std::string::npos)
                line.resize(wording + 15);
            if (line.find("version.") == std::string::npos)
                text += line + "\n";
        }
        return text;
    }

    static std::string ReplaceFailed(int code) {
        return "E zephExt_DoUpdate - Unable to replace files of Tarn agent. Error code: " +
               std::to_string(code) + ",  error message: \n";
    }

    void* m_context = nullptr;
    FileTree m_oldFiles;
};

// The backup may hold read-only files, copied as they were: every removal
// deletes them all the same.
TEST_F(UpdateTest, UpdateReplacesTheAgentAndKeepsTheUsersConfiguration) {
    PlaceOldAgent();
    WriteFile(kAgent + L"\\locked.dat", "read-only");
    WriteFile(kAgent + L"\\locked.log", "read-only log");
    for (const wchar_t* name : {L"\\locked.dat", L"\\locked.log"})
        ASSERT_TRUE(SetFileAttributesW((kAgent + name).c_str(), FILE_ATTRIBUTE_READONLY));
    m_oldFiles = SnapshotFiles(kAgent);
    ASSERT_EQ(PreUpdate(), 0u);
    ASSERT_EQ(PreUpdate(), 0u) << "a leftover backup is replaced";
    EXPECT_EQ(Counter(), 1);
    FileTree backup = m_oldFiles;
    backup.erase("agent.log"); // top-level logs are left out, others kept
    backup.erase(".log");
    backup.erase("locked.log");
    EXPECT_EQ(SnapshotFiles(kBackup), backup);

    ASSERT_EQ(DoUpdate(), 0u);
    EXPECT_EQ(Counter(), 4);
    EXPECT_EQ(AgentVersion(), "3.3.1100.9");
    FileTree now = SnapshotFiles(kAgent);
    EXPECT_EQ(now["config\\tn_agent.ini"], kUserConfig);
    EXPECT_EQ(now["new.dat"], "only in 3.3");
    EXPECT_EQ(AgentDouble::State(), static_cast<DWORD>(SERVICE_STOPPED)) << "installed again";
    EXPECT_EQ(AgentDouble::Journal(), (Lines{"install", "delete", "install"}));
    EXPECT_EQ(Complaints(Logged()), Lines{});

    EXPECT_EQ(zephExt_PostUpdate(), 0u);
    EXPECT_FALSE(fs::exists(kBackup));
    // Four files, two folders with a file each, and the backup folder itself.
    EXPECT_TRUE(Contains(Logged(), "I zephExt_PostUpdate - Deleted backup files(9)."));
}

TEST_F(UpdateTest, RollbackFromEveryStageRestoresTheOldAgent) {
    auto launched = [](const std::string& command, int code) {
        return "E PrepAndLaunchRedirectedChild - Return code is not zero, err=" +
               std::to_string(code) + "\nE zephExt_DoUpdate - Unable to complete " + command +
               " command. ret=" + std::to_string(code) + "\n";
    };
    const struct {
        const char* name;
        AgentDouble::Behaviour behaviour; // install and uninstall exit codes
        bool lockAFile;
        uint32_t result;
        int32_t counter;
        std::string complaints; // one per line
    } cases[] = {
        {"uninstall fails", {0, 5}, false, 0x1040004, 1, launched("uninstall", 5)},
        {"a file is locked", {}, true, 0x1040005, 2, ReplaceFailed(32)},
        {"install fails", {1603}, false, 0x1040006, 3, launched("install", 1603)},
        {"install wants a reboot", {0xFFFFFF92}, false, 0x1040006, 3, launched("install", -110)},
        {"install wants a restart", {3010}, false, 0x1040006, 3, launched("install", 3010)},
        {"nothing fails: the finished update is undone", {}, false, 0, 4, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        PlaceOldAgent();
        ASSERT_EQ(PreUpdate(), 0u);
        Logged();
        ASSERT_TRUE(AgentDouble::SetBehaviour(c.behaviour));
        {
            ScopedFile locked(c.lockAFile
                                  ? CreateFileW((kAgent + L"\\hdc.exe").c_str(), GENERIC_READ, 0,
                                                nullptr, OPEN_EXISTING, 0, nullptr)
                                  : INVALID_HANDLE_VALUE);
            EXPECT_EQ(DoUpdate(), c.result);
        }
        EXPECT_EQ(Counter(), c.counter);
        EXPECT_EQ(Grievances(Logged()), c.complaints);

        ASSERT_TRUE(AgentDouble::SetBehaviour({})); // the old installer works
        EXPECT_EQ(Rollback(), 0u);
        ExpectOldAgentRestored();
        EXPECT_EQ(Complaints(Logged()), Lines{});
    }
    // Undone all the way, the new agent's extra file stays; the backup is kept
    // for the next pre-update.
    EXPECT_TRUE(fs::exists(kAgent + L"\\new.dat"));
    EXPECT_TRUE(fs::exists(kBackup));
}

TEST_F(UpdateTest, AMissingAgentIsRepairedAndALeftoverBackupReplaced) {
    ASSERT_TRUE(CreateFolderTree(kAgentParent)); // only the agent's own folder is gone
    WriteFile(kBackup + L"\\stale.txt", "from an earlier update");
    ASSERT_EQ(PreUpdate(), 0u) << "no agent folder: nothing to back up";
    EXPECT_EQ(Counter(), 1);
    EXPECT_FALSE(fs::exists(kBackup));

    ASSERT_EQ(DoUpdate(), 0u);
    EXPECT_EQ(Counter(), 4);
    EXPECT_EQ(AgentVersion(), "3.3.1100.9");
    Lines log = Logged();
    EXPECT_TRUE(Contains(log, "I zephExt_DoUpdate - TarnAgent.exe "
                              "(C:\\ZephTestBed\\Corvale\\..\\iService\\Tarn\\TarnAgent.exe) "
                              "doesn't exist. Skip uninstall Tarn agent and continue to upgrade."));
    EXPECT_EQ(Grievances(log),
              "E zephExt_DoUpdate - Unable to copy back config file of Tarn agent. "
              "Error code: 3,  error message: \n");

    // The next update finds the repaired agent and a backup to replace.
    WriteFile(kBackup + L"\\stale.txt", "from an earlier update");
    ASSERT_EQ(PreUpdate(), 0u);
    EXPECT_FALSE(fs::exists(kBackup + L"\\stale.txt"));
    EXPECT_TRUE(fs::exists(kBackup + L"\\TarnAgent.exe"));
}

// A copy makes its target folder, never a missing parent: each stage fails instead.
TEST_F(UpdateTest, MissingParentsAreNeverMade) {
    PlaceOldAgent();
    RemoveFolderTree(kTemp);
    EXPECT_EQ(PreUpdate(), 0x1040003u);
    EXPECT_EQ(Counter(), 0);
    EXPECT_FALSE(fs::exists(kTemp));
    EXPECT_EQ(Grievances(Logged()),
              "E zephExt_PreUpdate - Unable to backup Tarn agent files. Error code: "
              "3,  error message: \n");
    EXPECT_EQ(Rollback(), 0u) << "nothing done yet";
    EXPECT_EQ(Logged(), (Lines{"I zephExt_Rollback - >>> zephExt_Rollback",
                               "I zephExt_Rollback - Update aborted at step 0.",
                               "I zephExt_Rollback - <<< zephExt_Rollback"}));

    ASSERT_TRUE(CreateFolderTree(kTemp));
    ASSERT_EQ(PreUpdate(), 0u);
    AgentDouble::Remove(); // the agent's folder and its parent go
    ASSERT_FALSE(fs::exists(kAgentParent));
    EXPECT_EQ(DoUpdate(), 0x1040005u);
    EXPECT_EQ(Counter(), 2);
    EXPECT_FALSE(fs::exists(kAgentParent));
    EXPECT_EQ(Grievances(Logged()), ReplaceFailed(3));

    EXPECT_EQ(Rollback(), 0x1040007u) << "nowhere to restore the backup to";
    EXPECT_FALSE(fs::exists(kAgentParent));
    EXPECT_EQ(AgentDouble::Journal(), Lines{}) << "no installer ran";
}

} // namespace
