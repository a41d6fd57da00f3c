// Running the agent's command lines and unpacking its package, for real:
// child processes under Wine, and zips written here, read by the signed
// archive library.
#include "CUnzip.h"
#include "LogCapture.h"
#include "UtilCommon.h"
#include "ZipWriter.h"

namespace {

const std::wstring kWork = L"C:\\ZephTestBed\\unzip";

std::string ReadText(const std::wstring& path) {
    std::string bytes;
    return ReadFileBytes(path, bytes) ? bytes : "(unreadable)";
}

bool IsFolder(const std::wstring& path) {
    DWORD attributes = GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY);
}

class UnzipTest : public LogCaptureTest {
  protected:
    void SetUp() override {
        LogCaptureTest::SetUp();
        RemoveFolderTree(kWork);
        ASSERT_EQ(CreateFolderTree(Narrow(kWork + L"\\target")), 0);
    }
    void TearDown() override { RemoveFolderTree(kWork); }
};

// A folder entry never ends the extraction, even where a file already stands.
TEST_F(UnzipTest, ForwardAndBackSlashesDirectoriesAndNestedFoldersExtractIntoOneTree) {
    ZipWriter zip;
    zip.Add("bin/TarnAgent.exe", "agent");
    zip.Add("bin\\hdc.exe", "second");
    zip.Add("config/", "");
    zip.Add("a/b/c/deep.txt", "deep", 0x6000, 0x5A21); // 2025-01-01 12:00:00 local time
    zip.Add("blocker", "a file where a folder would go");
    zip.Add("blocker/sub/", "");
    zip.Add("after.txt", "still extracted");
    zip.Save(kWork + L"\\pkg.zip");
    // An entry that is already there is replaced.
    ASSERT_EQ(CreateFolderTree(Narrow(kWork + L"\\target\\bin")), 0);
    WriteFileBytes(kWork + L"\\target\\bin\\hdc.exe", "old contents");

    EXPECT_TRUE(DecompressFile((kWork + L"\\pkg.zip").c_str(), (kWork + L"\\target").c_str()));
    EXPECT_EQ(ReadText(kWork + L"\\target\\bin\\TarnAgent.exe"), "agent");
    EXPECT_EQ(ReadText(kWork + L"\\target\\bin\\hdc.exe"), "second");
    EXPECT_TRUE(IsFolder(kWork + L"\\target\\config"));
    EXPECT_EQ(ReadText(kWork + L"\\target\\a\\b\\c\\deep.txt"), "deep");
    EXPECT_FALSE(IsFolder(kWork + L"\\target\\blocker\\sub"));
    EXPECT_EQ(ReadText(kWork + L"\\target\\after.txt"), "still extracted");
    // The file's time comes from the entry.
    WIN32_FILE_ATTRIBUTE_DATA data = {};
    ASSERT_TRUE(GetFileAttributesExW((kWork + L"\\target\\a\\b\\c\\deep.txt").c_str(),
                                     GetFileExInfoStandard, &data));
    FILETIME local = {};
    SYSTEMTIME time = {};
    FileTimeToLocalFileTime(&data.ftLastWriteTime, &local);
    FileTimeToSystemTime(&local, &time);
    EXPECT_EQ(std::to_string(time.wYear) + "-" + std::to_string(time.wMonth) + "-" +
                  std::to_string(time.wDay) + " " + std::to_string(time.wHour),
              "2025-1-1 12");
    Lines logged = Logged();
    ASSERT_GE(logged.size(), 3u);
    EXPECT_EQ(logged[0], "D DecompressFile - DecompressFile: compress_file_path = " +
                             Narrow(kWork) + "\\pkg.zip");
    EXPECT_EQ(logged[1], "D DecompressFile - DecompressFile: target_folder_path = " +
                             Narrow(kWork) + "\\target");
    EXPECT_EQ(logged.back(), "D DecompressFile - Succeeded to extract zipped files");
}

// Names without the ".zip" extension get ".Zip" appended; a corrupt archive
// or none at all fails to open.
TEST_F(UnzipTest, ArchiveNamesAndArchivesThatFailToOpen) {
    ZipWriter zip;
    zip.Add("one.txt", "1");
    zip.Save(kWork + L"\\package.Zip");
    zip.Save(kWork + L"\\UPPER.ZIP");
    zip.Save(kWork + L"\\archive.bin.Zip");
    for (const wchar_t* given : {L"\\package", L"\\UPPER.ZIP", L"\\archive.bin"})
        EXPECT_TRUE(DecompressFile((kWork + given).c_str(), (kWork + L"\\target").c_str()))
            << Narrow(given);

    CUnzip unzip;
    ASSERT_TRUE(unzip.Load());
    EXPECT_EQ(unzip.Open(Narrow(kWork + L"\\UPPER").c_str(), false), UNZIP_NOT_READY);
    EXPECT_EQ(unzip.Open(Narrow(kWork + L"\\archive.bin").c_str(), true), UNZIP_OK);

    WriteFileBytes(kWork + L"\\corrupt.zip", "PK\x03\x04 not a zip");
    EXPECT_FALSE(DecompressFile((kWork + L"\\corrupt.zip").c_str(), (kWork + L"\\target").c_str()));
    EXPECT_EQ(Logged().back(), "E DecompressFile - Failed to open zip file: " + Narrow(kWork) +
                                   "\\corrupt.zip, CUnzip return code: -1");
    CUnzip unopened;
    ASSERT_TRUE(unopened.Load());
    EXPECT_EQ(unopened.Extract(Narrow(kWork).c_str(), 1, 1, nullptr, nullptr), UNZIP_NOT_READY);
}

TEST_F(UnzipTest, EntriesNamedOutsideTheTargetAreRefused) {
    for (const char* name : {"../evil.txt", "ok/../../evil.txt", "C:/evil.txt", "/evil.txt"}) {
        ZipWriter zip;
        zip.Add("first.txt", "fine");
        zip.Add(name, "evil");
        zip.Save(kWork + L"\\slip.zip");
        EXPECT_FALSE(DecompressFile((kWork + L"\\slip.zip").c_str(), (kWork + L"\\target").c_str()))
            << name;
        std::string shown = name;
        for (char& c : shown)
            c = c == '/' ? '\\' : c;
        Lines logged = Logged();
        ASSERT_GE(logged.size(), 2u);
        EXPECT_EQ(logged[logged.size() - 2],
                  "E CUnzip::ExtractCurrentFile - Refused entry outside the target folder: " +
                      shown);
        EXPECT_EQ(logged.back(), "E DecompressFile - failed to extract zipped files");
    }
    // The refusal's own code: -105 is the archive library's CRC error.
    CUnzip unzip;
    ASSERT_TRUE(unzip.Load());
    ASSERT_EQ(unzip.Open(Narrow(kWork + L"\\slip.zip").c_str(), true), UNZIP_OK);
    EXPECT_EQ(unzip.Extract(Narrow(kWork + L"\\target").c_str(), 1, 1, nullptr, nullptr), -106);
    EXPECT_FALSE(PathExists(kWork + L"\\evil.txt"));
    EXPECT_FALSE(PathExists(L"C:\\evil.txt"));
    // Entries before the refused one stay on disk.
    EXPECT_EQ(ReadText(kWork + L"\\target\\first.txt"), "fine");
}

TEST(UnzipPaths, SafeEntryNamesAndFolderTrees) {
    for (const char* safe : {"a.txt", "a\\b\\c.txt", "dir\\", "..a\\b..", "a\\.\\b"})
        EXPECT_TRUE(IsSafeEntryName(safe)) << safe;
    for (const char* unsafe : {"", "\\a", "..", "..\\a", "a\\..\\..\\b", "a\\..", "C:a", "C:\\a"})
        EXPECT_FALSE(IsSafeEntryName(unsafe)) << unsafe;
    EXPECT_EQ(CreateFolderTree(""), 8);
    EXPECT_EQ(CreateFolderTree("C:\\" + std::string(260, 'x')), 8);
    EXPECT_EQ(CreateFolderTree("C:\\ZephTestBed\\tree\\a\\b"), 0);
    EXPECT_EQ(CreateFolderTree("C:\\ZephTestBed\\tree\\a\\b"), 0); // already there
    EXPECT_TRUE(IsFolder(L"C:\\ZephTestBed\\tree\\a\\b"));
    RemoveDirectoryW(L"C:\\ZephTestBed\\tree\\a\\b");
    RemoveDirectoryW(L"C:\\ZephTestBed\\tree\\a");
    RemoveDirectoryW(L"C:\\ZephTestBed\\tree");
}

class LaunchTest : public LogCaptureTest {};

TEST_F(LaunchTest, ExitCodesAndStartFailuresComeBack) {
    wchar_t cmd[MAX_PATH];
    GetSystemDirectoryW(cmd, MAX_PATH);
    wcscat(cmd, L"\\cmd.exe");
    uint32_t exitCode = 77;
    // A child that writes more than a pipe holds must not hang the launch.
    EXPECT_TRUE(LaunchCmd(cmd, L"/c for /L %i in (1,1,3000) do @echo chatter chatter chatter",
                          nullptr, &exitCode));
    EXPECT_EQ(exitCode, 0u);
    EXPECT_FALSE(LaunchCmd(cmd, L"/c exit 3", nullptr, &exitCode));
    EXPECT_EQ(exitCode, 3u);
    Lines logged = Logged();
    ASSERT_EQ(logged.size(), 7u);
    EXPECT_EQ(logged[3].rfind("D PrepAndLaunchRedirectedChild - PrepAndLaunchRedirectedChild: \"" +
                                  Narrow(cmd) + "\" /c exit 3, stdout(",
                              0),
              0u)
        << logged[3];
    EXPECT_EQ(logged[4], "D PrepAndLaunchRedirectedChild - WaitForSingleObject result=0x0");
    EXPECT_EQ(logged[5], "D PrepAndLaunchRedirectedChild - got return code 3");
    EXPECT_EQ(logged[6], "E PrepAndLaunchRedirectedChild - Return code is not zero, err=3");

    EXPECT_FALSE(LaunchCmd(L"C:\\ZephTestBed\\missing.exe", nullptr, nullptr, &exitCode));
    EXPECT_EQ(exitCode, static_cast<uint32_t>(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(Logged().back(), "E PrepAndLaunchRedirectedChild - CreateProcessW failed, err=2");
    EXPECT_FALSE(LaunchCmd(nullptr, nullptr, nullptr, &exitCode));
    EXPECT_EQ(Logged(), Lines{"E PrepAndLaunchRedirectedChild - szProgram is null"});
}

} // namespace
