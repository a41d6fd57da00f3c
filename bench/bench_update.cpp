// Cost of an agent update of a 2,000-file package through the real DLL
// (zephExt_PreUpdate, zephExt_DoUpdate, zephExt_PostUpdate, as the host
// drives them), against a plain recursive CopyFileW of the same tree onto the
// agent folder, and against the same transaction done with bare calls: copy
// the agent folder to the backup, run the agent's "-delete", copy the
// package, run "-install", delete the backup. The agent is installed and
// stopped, as an update leaves it; no log server runs. Prints, never asserts.
#include "AgentDouble.h"
#include "BenchTiming.h"
#include "TestBed.h"
#include "zephExt_TarnClient.h"

#include <windows.h>

#include <cstdio>
#include <cwchar>
#include <string>

namespace {

constexpr int kFolders = 20;
constexpr int kFilesPerFolder = 100;
constexpr int kDataFiles = kFolders * kFilesPerFolder - 3; // beside the 3 agent files
constexpr int kFileBytes = 4096;
constexpr int kRounds = 7;

const std::wstring kSource = L"C:\\ZephTestBed\\benchupdate";
const std::wstring kAgent = AgentDouble::kClientFolder;
const std::wstring kBackup = std::wstring(SimulatedInstall::kFolder) + L"Temp\\TarnAgentBackup";

bool WriteBytes(const std::wstring& path, const std::string& bytes) {
    HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return false;
    DWORD written = 0;
    bool ok = WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr) &&
              written == bytes.size();
    CloseHandle(file);
    return ok;
}

// The new agent (3.3), its second executable, default settings and data
// files in sub-folders: 2,000 files.
bool MakePackage() {
    RemoveFolderTree(kSource);
    if (!CreateFolderTree(kSource + L"\\config") ||
        !CopyFileW(BinPath(L"TarnAgent_3.3.exe").c_str(), (kSource + L"\\TarnAgent.exe").c_str(),
                   FALSE) ||
        !CopyFileW(BinPath(L"hdc.exe").c_str(), (kSource + L"\\hdc.exe").c_str(), FALSE) ||
        !WriteBytes(kSource + L"\\config\\tn_agent.ini", "[Policy]\r\nEnabled=1\r\n"))
        return false;
    std::string bytes(kFileBytes, '\0');
    for (int i = 0; i < kDataFiles; ++i) {
        std::wstring folder = kSource + L"\\data\\" + std::to_wstring(i / kFilesPerFolder);
        if (i % kFilesPerFolder == 0 && !CreateFolderTree(folder))
            return false;
        for (int b = 0; b < kFileBytes; ++b)
            bytes[b] = static_cast<char>((i * 31 + b * 7) & 0xff);
        if (!WriteBytes(folder + L"\\file" + std::to_wstring(i) + L".dat", bytes))
            return false;
    }
    return true;
}

// The plain recursive copy: walk, make folders, CopyFileW overwriting.
int CopyFolder(const std::wstring& from, const std::wstring& to) {
    CreateDirectoryW(to.c_str(), nullptr);
    WIN32_FIND_DATAW entry;
    HANDLE find = FindFirstFileW((from + L"\\*").c_str(), &entry);
    if (find == INVALID_HANDLE_VALUE)
        return 0;
    int copied = 0;
    do {
        if (!wcscmp(entry.cFileName, L".") || !wcscmp(entry.cFileName, L".."))
            continue;
        std::wstring source = from + L"\\" + entry.cFileName;
        std::wstring target = to + L"\\" + entry.cFileName;
        if (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
            copied += CopyFolder(source, target);
        else
            copied += CopyFileW(source.c_str(), target.c_str(), FALSE) ? 1 : 0;
    } while (FindNextFileW(find, &entry));
    FindClose(find);
    return copied;
}

int DeleteFolder(const std::wstring& folder) {
    WIN32_FIND_DATAW entry;
    HANDLE find = FindFirstFileW((folder + L"\\*").c_str(), &entry);
    if (find == INVALID_HANDLE_VALUE)
        return 0;
    int deleted = 0;
    do {
        if (!wcscmp(entry.cFileName, L".") || !wcscmp(entry.cFileName, L".."))
            continue;
        std::wstring path = folder + L"\\" + entry.cFileName;
        if (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
            deleted += DeleteFolder(path);
        else
            deleted += DeleteFileW(path.c_str()) ? 1 : 0;
    } while (FindNextFileW(find, &entry));
    FindClose(find);
    return deleted + (RemoveDirectoryW(folder.c_str()) ? 1 : 0);
}

// The agent executable run as the update runs it, without the output pipe.
DWORD RunAgent(const wchar_t* argument) {
    std::wstring commandLine = L"\"" + kAgent + L"\\TarnAgent.exe\" " + argument;
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION info = {};
    if (!CreateProcessW(nullptr, &commandLine[0], nullptr, nullptr, FALSE, CREATE_NEW_CONSOLE,
                        nullptr, nullptr, &startup, &info))
        return GetLastError();
    WaitForSingleObject(info.hProcess, INFINITE);
    DWORD code = 1;
    GetExitCodeProcess(info.hProcess, &code);
    CloseHandle(info.hThread);
    CloseHandle(info.hProcess);
    return code;
}

template <class Export> Export Bind(HMODULE plugin, const char* name) {
    return reinterpret_cast<Export>(reinterpret_cast<void*>(GetProcAddress(plugin, name)));
}

void Cleanup() {
    RemoveFolderTree(kSource);
    AgentDouble::Remove();
    SimulatedInstall::Remove();
}

} // namespace

int main() {
    AgentDouble::Remove();
    SimulatedInstall::Remove();
    if (!SimulatedInstall::Create() || !AgentDouble::SetBehaviour({}) || !AgentDouble::Place() ||
        AgentDouble::RunInstall() != 0 || !MakePackage()) {
        std::printf("cannot set up the installed agent and the package\n");
        Cleanup();
        return 1;
    }
    HMODULE plugin = LoadLibraryW(BinPath(L"zephExt_TarnClient.dll").c_str());
    auto createContext = Bind<decltype(&zephExt_CreateContext)>(plugin, "zephExt_CreateContext");
    auto releaseContext = Bind<decltype(&zephExt_ReleaseContext)>(plugin, "zephExt_ReleaseContext");
    auto preUpdate = Bind<decltype(&zephExt_PreUpdate)>(plugin, "zephExt_PreUpdate");
    auto doUpdate = Bind<decltype(&zephExt_DoUpdate)>(plugin, "zephExt_DoUpdate");
    auto postUpdate = Bind<decltype(&zephExt_PostUpdate)>(plugin, "zephExt_PostUpdate");
    if (!createContext || !releaseContext || !preUpdate || !doUpdate || !postUpdate) {
        std::printf("cannot load the plug-in\n");
        Cleanup();
        return 1;
    }
    ZephUpdateInfo info = {};
    wcsncpy(info.sourceDir, kSource.c_str(), 259);

    bench::Measure copy{"recursive CopyFileW of the package", {}};
    bench::Measure bareBackup{"bare copy of the agent folder", {}};
    bench::Measure bareLaunches{"the two agent runs (-delete, -install), bare", {}};
    bench::Measure bareDelete{"bare delete of the backup", {}};
    bench::Measure bareReplace{"bare -delete, package copy, -install", {}};
    bench::Measure bareTransaction{"the whole transaction with bare calls", {}};
    bench::Measure pre{"zephExt_PreUpdate (backup)", {}};
    bench::Measure replace{"zephExt_DoUpdate (uninstall, replace, install)", {}};
    bench::Measure post{"zephExt_PostUpdate (delete backup)", {}};
    bench::Measure update{"whole update (pre, do, post)", {}};
    int failures = 0;
    auto updateOnce = [&] {
        void* context = nullptr;
        failures += createContext(&context) != 0;
        double start = bench::Now();
        failures += preUpdate(nullptr, context) != 0;
        double backedUp = bench::Now();
        failures += doUpdate(&info, context) != 0;
        double replaced = bench::Now();
        failures += postUpdate() != 0;
        double end = bench::Now();
        releaseContext(context);
        pre.times.push_back(backedUp - start);
        replace.times.push_back(replaced - backedUp);
        post.times.push_back(end - replaced);
        update.times.push_back(end - start);
    };
    auto bareOnce = [&] {
        double start = bench::Now();
        failures += CopyFolder(kAgent, kBackup) != kFolders * kFilesPerFolder;
        double backedUp = bench::Now();
        failures += RunAgent(L"-delete") != 0;
        double copyStart = bench::Now();
        failures += CopyFolder(kSource, kAgent) != kFolders * kFilesPerFolder;
        double copied = bench::Now();
        failures += RunAgent(L"-install") != 0;
        double installed = bench::Now();
        failures += DeleteFolder(kBackup) < kFolders * kFilesPerFolder;
        double end = bench::Now();
        bareBackup.times.push_back(backedUp - start);
        bareLaunches.times.push_back((copyStart - backedUp) + (installed - copied));
        bareReplace.times.push_back(installed - backedUp);
        bareDelete.times.push_back(end - installed);
        bareTransaction.times.push_back(end - start);
    };

    updateOnce(); // fills the agent folder with the package and warms the caches
    pre.times.clear(), replace.times.clear(), post.times.clear(), update.times.clear();
    for (int round = 0; round < kRounds; ++round) {
        bench::Time(copy.times, 1,
                    [&] { failures += CopyFolder(kSource, kAgent) != kFolders * kFilesPerFolder; });
        bareOnce();
        updateOnce();
    }

    std::printf("Update of a package of %d files (%d KB each but the agent's), agent installed "
                "and stopped, no log server: %d rounds, median per update\n",
                kFolders * kFilesPerFolder, kFileBytes / 1024, kRounds);
    bench::Table table("update", bench::kMilliseconds);
    table.Row(update, copy, "<= 1.3");
    table.Row(replace, copy, "<= 1.3");
    table.Row(update, bareTransaction);
    table.Row(pre, bareBackup);
    table.Row(replace, bareReplace);
    table.Row(post, bareDelete);
    table.Row(bareLaunches, copy);
    table.Print();
    if (failures)
        std::printf("%d steps did not succeed\n", failures);
    FreeLibrary(plugin);
    Cleanup();
    return failures ? 1 : 0;
}
