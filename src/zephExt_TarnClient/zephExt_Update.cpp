// The agent update as a transaction: back up the agent's folder, uninstall,
// replace the files (keeping the old configuration), install, then either drop
// the backup or roll back exactly the stages that were reached. The host-held
// context is one step counter.
#include "DebugLog.h"
#include "ExportBoundary.h"
#include "FileSystem.h"
#include "ResultCodes.h"
#include "ServiceControl.h"
#include "UtilClientInfo.h"
#include "UtilCommon.h"
#include "ZephIntegration.h"
#include "zephExt_TarnClient.h"

#include <cstdio>
#include <string>
#include <vector>

namespace {

// How far an update got; the rollback undoes the stages from here down.
enum UpdateStep : int32_t {
    STEP_NONE = 0,
    STEP_BACKED_UP = 1,
    STEP_UNINSTALLED = 2,
    STEP_FILES_REPLACED = 3,
    STEP_INSTALLED = 4,
};

struct UpdatePaths {
    std::wstring agentFolder;
    std::wstring agentExecutable;
    std::wstring backupFolder;
};

// Binding, context and install path, as every stage but the last needs them.
bool BeginStage(const char* self, void* context, UpdatePaths& paths, bool needsContext = true) {
    if (!EnterBoundExport(self))
        return false;
    if (needsContext && !context) {
        LOGA(LOG_ERROR, "%s - Update context is null.", self);
        return false;
    }
    std::wstring installPath;
    if (!GetCRVLInstallPath(installPath)) {
        LOGA(LOG_ERROR, "%s - Unable to get CRVL install path.", self);
        return false;
    }
    paths.agentFolder = TarnAgentFolder(installPath);
    paths.agentExecutable = TarnAgentExecutable(paths.agentFolder);
    paths.backupFolder = installPath + L"Temp\\" + L"TarnAgentBackup";
    return true;
}

int32_t& Counter(void* context) {
    return *static_cast<int32_t*>(context);
}

void LogAgentVersion(const char* self, const char* found, const char* missing) {
    FileVersion version;
    if (GetAgentVersion(version))
        LOGA(LOG_DETAIL, found, self, VersionText(version).c_str());
    else
        LOGA(LOG_ERROR, missing, self);
}

// Runs the agent executable with `argument`; false (logged) unless it exits
// with 0. A launch that succeeds has exited with 0, so no exit code is left
// to report after one.
bool RunAgentCommand(const char* self, const std::wstring& executable, const wchar_t* argument) {
    const bool install = std::wstring(argument) == L"-install";
    uint32_t exitCode = 0;
    if (LaunchCmd(executable.c_str(), argument, nullptr, &exitCode))
        return true;
    if (exitCode != 0)
        LOGA(LOG_ERROR,
             install ? "%s - Unable to complete install command. ret=%d"
                     : "%s - Unable to complete uninstall command. ret=%d",
             self, static_cast<int>(exitCode));
    else
        LOGA(LOG_ERROR,
             install ? "%s - Unable to launch install command."
                     : "%s - Unable to launch uninstall command.",
             self);
    return false;
}

// Log files are never part of the backup; those in sub-folders are kept.
void DropTopLevelLogs(const char* self, const std::wstring& backupFolder) {
    std::vector<std::wstring> logs;
    for (const std::wstring& entry : FileSystem::List(backupFolder))
        if (FileSystem::Extension(entry) == L".log")
            logs.push_back(entry);
    for (const std::wstring& log : logs)
        if (!FileSystem::Remove(log)) // throws when the removal fails with an error
            LOGW(LOG_WARNING, L"%S - Unable to delete log backup. %s", self, log.c_str());
}

uint32_t BackUp(const char* self, const UpdatePaths& paths, int32_t& counter) {
    LOGA(LOG_INFO, "%s - Backing up Tarn agent...", self);
    std::uintmax_t removed = FileSystem::RemoveAll(paths.backupFolder);
    LOGA(LOG_DETAIL, "%s - Deleted %d previous backed up file(s).", self,
         static_cast<int>(removed));
    std::error_code error;
    bool exists = FileSystem::Exists(paths.agentFolder, error);
    if (error) {
        LOGA(LOG_ERROR,
             "%s - Unable to check whether Tarn folder exists or not. Error code: %d, error "
             "message: %s. Continue backup process.",
             self, error.value(), error.message().c_str());
        exists = true;
    }
    if (!exists) {
        LOGA(LOG_DETAIL,
             "%s - Tarn folder doesn't exist. Skip backup Tarn folder and try to fix it by update.",
             self);
    } else {
        FileSystem::Copy(paths.agentFolder, paths.backupFolder, error);
        if (error) {
            LOGA(LOG_ERROR,
                 "%s - Unable to backup Tarn agent files. Error code: %d,  error message: %s", self,
                 error.value(), error.message().c_str());
            return RESULT_BACKUP_FAILED;
        }
        DropTopLevelLogs(self, paths.backupFolder);
    }
    counter = STEP_BACKED_UP;
    LogExit(self);
    return RESULT_SUCCESS;
}

uint32_t UninstallOldAgent(const char* self, const UpdatePaths& paths) {
    LOGA(LOG_INFO, "%s - Uninstalling Tarn agent...", self);
    std::error_code error;
    bool exists = FileSystem::Exists(paths.agentExecutable, error);
    if (error) {
        LOGA(LOG_ERROR,
             "%s - Unable to check whether TarnAgent.exe exists or not. Error code: %d, error "
             "message: %s. Continue update process.",
             self, error.value(), error.message().c_str());
        exists = true;
    }
    if (!exists) {
        LOGW(LOG_INFO,
             L"%S - TarnAgent.exe (%s) doesn't exist. Skip uninstall Tarn agent and continue to "
             L"upgrade.",
             self, paths.agentExecutable.c_str());
        return RESULT_SUCCESS;
    }
    if (!RunAgentCommand(self, paths.agentExecutable, L"-delete"))
        return RESULT_UNINSTALL_FAILED;
    return RESULT_SUCCESS;
}

uint32_t ReplaceFiles(const char* self, const ZephUpdateInfo& info, const UpdatePaths& paths) {
    LOGA(LOG_INFO, "%s - Updating Tarn agent...", self);
    std::wstring sourceFolder(info.sourceDir,
                              wcsnlen(info.sourceDir, sizeof(info.sourceDir) / sizeof(wchar_t)));
    FileVersion candidate;
    if (GetFileVersion(sourceFolder + L"\\" + L"TarnAgent" + L".exe", candidate))
        LOGA(LOG_DETAIL, "%s - Candidate tarn agent version: %s", self,
             VersionText(candidate).c_str());
    else
        LOGA(LOG_ERROR, "%s - Unalbe to get candidate tarn agent version.", self);
    LogAgentVersion(self, "%s - Installed tarn agent version: %s",
                    "%s - Unalbe to get installed tarn agent version.");

    std::error_code error;
    FileSystem::Copy(sourceFolder, paths.agentFolder, error);
    if (error) {
        LOGA(LOG_ERROR,
             "%s - Unable to replace files of Tarn agent. Error code: %d,  error message: %s", self,
             error.value(), error.message().c_str());
        return RESULT_REPLACE_FAILED;
    }
    // The old configuration is all that survives of the old installation.
    FileSystem::Copy(FileSystem::Join(paths.backupFolder, L"config"),
                     FileSystem::Join(paths.agentFolder, L"config"), error);
    if (error)
        LOGA(LOG_ERROR,
             "%s - Unable to copy back config file of Tarn agent. Error code: %d,  error message: "
             "%s. Continue update process.",
             self, error.value(), error.message().c_str());
    LogAgentVersion(self, "%s - Updated tarn agent version: %s",
                    "%s - Unalbe to get updated tarn agent version.");
    return RESULT_SUCCESS;
}

// A file-system error that escaped a stage: logged, then the stage's failure code.
uint32_t StageFailed(const char* self, const std::exception& failure, uint32_t code) {
    LOGA(LOG_ERROR, "%s - File system error: %s", self, failure.what());
    return code;
}

uint32_t PreUpdate(const char* self, void* context) {
    UpdatePaths paths;
    if (!BeginStage(self, context, paths))
        return RESULT_GENERIC_FAILURE;
    try {
        return BackUp(self, paths, Counter(context));
    } catch (const std::exception& failure) { // the counter stays as it was
        return StageFailed(self, failure, RESULT_BACKUP_FAILED);
    }
}

uint32_t DoUpdate(const char* self, const ZephUpdateInfo* info, void* context) {
    UpdatePaths paths;
    if (!BeginStage(self, context, paths))
        return RESULT_GENERIC_FAILURE;
    if (!info) { // the host always passes its record; nothing can be copied without it
        LOGA(LOG_ERROR, "%s - Update information is null.", self);
        return RESULT_GENERIC_FAILURE;
    }
    int32_t& counter = Counter(context);
    try {
        uint32_t result = UninstallOldAgent(self, paths);
        if (result != RESULT_SUCCESS)
            return result;
        counter = STEP_UNINSTALLED;
        result = ReplaceFiles(self, *info, paths);
        if (result != RESULT_SUCCESS)
            return result;
    } catch (const std::exception& failure) {
        return StageFailed(self, failure, RESULT_REPLACE_FAILED);
    }
    counter = STEP_FILES_REPLACED;
    LOGA(LOG_INFO, "%s - Installing Tarn agent...", self);
    // Unlike a first install, a reboot-required exit code is a failure here.
    if (!RunAgentCommand(self, paths.agentExecutable, L"-install"))
        return RESULT_INSTALL_FAILED;
    counter = STEP_INSTALLED;
    LogExit(self);
    return RESULT_SUCCESS;
}

uint32_t PostUpdate(const char* self) {
    UpdatePaths paths;
    if (!BeginStage(self, nullptr, paths, false))
        return RESULT_GENERIC_FAILURE;
    try {
        std::uintmax_t removed = FileSystem::RemoveAll(paths.backupFolder);
        LOGA(LOG_INFO, "%s - Deleted backup files(%d).", self, static_cast<int>(removed));
    } catch (const std::exception& failure) {
        return StageFailed(self, failure, RESULT_GENERIC_FAILURE);
    }
    LogExit(self);
    return RESULT_SUCCESS;
}

uint32_t Rollback(const char* self, void* context) {
    UpdatePaths paths;
    if (!BeginStage(self, context, paths))
        return RESULT_GENERIC_FAILURE;
    const int32_t counter = Counter(context);
    const std::wstring agentFolder = paths.agentFolder + L"\\";
    const std::wstring agentExecutable = agentFolder + L"TarnAgent.exe";
    LOGA(LOG_INFO, "%s - Update aborted at step %d.", self, static_cast<int>(counter));
    // The thresholds cascade: each stage reached is undone, latest first.
    if (counter >= STEP_FILES_REPLACED && !RunAgentCommand(self, agentExecutable, L"-delete"))
        return RESULT_ROLLBACK_FAILED;
    if (counter >= STEP_UNINSTALLED) {
        LOGA(LOG_INFO, "%s - Rolling back files from backup...", self);
        try {
            // No backup folder: there was no agent folder to back up, nothing to restore.
            if (FileSystem::Exists(paths.backupFolder))
                FileSystem::Copy(paths.backupFolder, agentFolder);
        } catch (const std::exception& failure) {
            return StageFailed(self, failure, RESULT_ROLLBACK_FAILED);
        }
    }
    if (counter >= STEP_BACKED_UP) {
        LOGA(LOG_INFO, "%s - Installing backed up Tarn agent...", self);
        if (!RunAgentCommand(self, agentExecutable, L"-install"))
            return RESULT_ROLLBACK_FAILED;
    }
    LogExit(self);
    return RESULT_SUCCESS;
}

} // namespace

// A stage that ends in an exception its own handling did not expect (running
// out of memory) fails with the stage's generic code; an interrupted rollback
// has not given the old agent back.
extern "C" {

uint32_t zephExt_PreUpdate(void* /*unused*/, void* context) {
    const char* self = "zephExt_PreUpdate";
    return Shielded(self, RESULT_GENERIC_FAILURE, [&] { return PreUpdate(self, context); });
}

uint32_t zephExt_DoUpdate(const ZephUpdateInfo* info, void* context) {
    const char* self = "zephExt_DoUpdate";
    return Shielded(self, RESULT_GENERIC_FAILURE, [&] { return DoUpdate(self, info, context); });
}

uint32_t zephExt_PostUpdate(void) {
    const char* self = "zephExt_PostUpdate";
    return Shielded(self, RESULT_GENERIC_FAILURE, [&] { return PostUpdate(self); });
}

uint32_t zephExt_Rollback(void* /*unused*/, void* context) {
    const char* self = "zephExt_Rollback";
    return Shielded(self, RESULT_ROLLBACK_FAILED, [&] { return Rollback(self, context); });
}

} // extern "C"
