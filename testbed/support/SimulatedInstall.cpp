#include "TestBed.h"

#include "QvsockDouble.h"

#include <filesystem>

namespace {

const wchar_t kInstallPathValue[] = L"Application Path";
// Under kTestBedKey: the folder Create made, so that Remove deletes that one.
const wchar_t kInstallFolderValue[] = L"InstallFolder";
const wchar_t kTestBedRoot[] = L"C:\\ZephTestBed";
const wchar_t kHostLibraryName[] = L"zephAgent_64x.dll";

const wchar_t* HostDoubleFile(HostLibraryVariant variant) {
    return variant == HostLibraryVariant::Full ? L"zephAgent_64x.dll" : L"zephAgent_nosyscall.dll";
}

std::wstring WithTrailingBackslash(std::wstring folder) {
    if (!folder.empty() && folder.back() != L'\\')
        folder += L'\\';
    return folder;
}

} // namespace

namespace SimulatedInstall {

const wchar_t kFolder[] = L"C:\\ZephTestBed\\Corvale\\";
const wchar_t kProductKey[] = L"SOFTWARE\\Wow6432Node\\Quorvane\\HalvaneNTCorp\\CurrentVersion";

bool Create(HostLibraryVariant variant, const std::wstring& folder) {
    // The parent product keeps a Temp folder; the agent update backs up into it.
    if (!CreateFolderTree(WithTrailingBackslash(folder) + L"Temp"))
        return false;
    std::wstring target = WithTrailingBackslash(folder) + kHostLibraryName;
    if (!CopyFileW(BinPath(HostDoubleFile(variant)).c_str(), target.c_str(), FALSE))
        return false;
    // The parent product ships its HTTP client library in the same folder.
    std::wstring httpLibrary = WithTrailingBackslash(folder) + QvsockDouble::kFileName;
    if (!CopyFileW(QvsockDouble::BuiltPath().c_str(), httpLibrary.c_str(), FALSE))
        return false;
    return TestBedRegistry::WriteText(kTestBedKey, kInstallFolderValue, folder) &&
           SetApplicationPath(folder);
}

bool SetApplicationPath(const std::wstring& folder) {
    return TestBedRegistry::WriteText(kProductKey, kInstallPathValue, folder, REG_SZ);
}

bool SetApplicationPathExpandable(const std::wstring& value) {
    return TestBedRegistry::WriteText(kProductKey, kInstallPathValue, value, REG_EXPAND_SZ);
}

void RemoveApplicationPath() {
    TestBedRegistry::DeleteValue(kProductKey, kInstallPathValue);
}

void Remove() {
    RemoveApplicationPath();
    std::wstring folder = kFolder;
    TestBedRegistry::ReadText(kTestBedKey, kInstallFolderValue, folder);
    RemoveFolderTree(folder);
    ClearHostJournal();
    TestBedRegistry::DeleteTree(kTestBedKey);
    RemoveDirectoryW(kTestBedRoot); // only when nothing else is left in it
}

bool SetHostBehaviour(const HostBehaviour& behaviour) {
    return TestBedRegistry::WriteDword(kHostBehaviourKey, kLoaderVerdictValue,
                                       behaviour.loaderVerdict) &&
           TestBedRegistry::WriteDword(kHostBehaviourKey, kSystemCallStatusValue,
                                       behaviour.systemCallStatus) &&
           TestBedRegistry::WriteText(kHostBehaviourKey, kSystemCallResponseValue,
                                      Widen(behaviour.systemCallResponse));
}

std::vector<std::string> HostJournal() {
    return JournalLines(HostJournalPath());
}

void ClearHostJournal() {
    DeleteFileW(HostJournalPath().c_str());
}

} // namespace SimulatedInstall
