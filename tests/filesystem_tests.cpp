// The update's, the uninstall's and the detection log's file operations on
// the real file system: the platform library's rules for missing parents,
// read-only entries, dot-names, a file where a folder is expected and a text
// stream's first line.
#include "FileSystem.h"
#include "TestBed.h"

#include <gtest/gtest.h>
#include <windows.h>

namespace {

const std::wstring kWork = L"C:\\ZephTestBed\\filesystem";

std::wstring At(const std::wstring& relative) {
    return kWork + L"\\" + relative;
}

void Write(const std::wstring& relative, const std::string& bytes, bool readOnly = false) {
    WriteFileBytes(At(relative), bytes);
    if (readOnly)
        SetFileAttributesW(At(relative).c_str(), FILE_ATTRIBUTE_READONLY);
}

void MakeFolder(const std::wstring& relative, bool readOnly = false) {
    CreateDirectoryW(At(relative).c_str(), nullptr);
    if (readOnly)
        SetFileAttributesW(At(relative).c_str(), FILE_ATTRIBUTE_READONLY);
}

bool IsThere(const std::wstring& relative) {
    return PathExists(At(relative));
}

std::string Read(const std::wstring& relative) {
    std::string bytes;
    ReadFileBytes(At(relative), bytes);
    return bytes;
}

class FileSystemTest : public ::testing::Test {
  protected:
    void SetUp() override {
        RemoveFolderTree(kWork);
        CreateDirectoryW(kWork.c_str(), nullptr);
        MakeFolder(L"from");
        MakeFolder(L"from\\sub");
        Write(L"from\\a.txt", "new a");
        Write(L"from\\sub\\b.txt", "new b");
    }
    void TearDown() override { RemoveFolderTree(kWork); }
};

TEST_F(FileSystemTest, CopyMakesItsTargetFolderButNeverAMissingParent) {
    std::error_code error;
    FileSystem::Copy(At(L"from"), At(L"to"), error);
    EXPECT_FALSE(error) << error.message();
    EXPECT_EQ(Read(L"to\\a.txt"), "new a");
    EXPECT_EQ(Read(L"to\\sub\\b.txt"), "new b");

    FileSystem::Copy(At(L"from"), At(L"missing\\to"), error);
    EXPECT_EQ(error.value(), ERROR_PATH_NOT_FOUND);
    EXPECT_FALSE(IsThere(L"missing"));
    // A trailing separator names the same folder.
    FileSystem::Copy(At(L"from"), At(L"missing\\to\\"), error);
    EXPECT_EQ(error.value(), ERROR_PATH_NOT_FOUND);
    EXPECT_THROW(FileSystem::Copy(At(L"from"), At(L"missing\\to")), std::system_error);
    EXPECT_FALSE(IsThere(L"missing"));

    FileSystem::Copy(At(L"nothing"), At(L"to"), error);
    EXPECT_EQ(error.value(), ERROR_FILE_NOT_FOUND);
    EXPECT_FALSE(FileSystem::Exists(At(L"nothing\\deeper"), error));
    EXPECT_FALSE(error);
    // The system's wording, without the line break it ends in.
    std::string message = FileSystem::Win32Category().message(ERROR_PATH_NOT_FOUND);
    EXPECT_FALSE(message.empty());
    EXPECT_EQ(message.find_last_of("\r\n"), std::string::npos) << message;

    // Onto a tree: files are overwritten, what the source lacks stays.
    Write(L"to\\a.txt", "old a");
    Write(L"to\\extra.txt", "old extra");
    FileSystem::Copy(At(L"from"), At(L"to"), error);
    EXPECT_FALSE(error) << error.message();
    EXPECT_EQ(Read(L"to\\a.txt"), "new a");
    EXPECT_EQ(Read(L"to\\extra.txt"), "old extra");

    // A file copies onto a file, or into a folder.
    FileSystem::Copy(At(L"from\\a.txt"), At(L"to\\sub"), error);
    EXPECT_EQ(Read(L"to\\sub\\a.txt"), "new a");
    FileSystem::Copy(At(L"from\\sub\\b.txt"), At(L"to\\a.txt"), error);
    EXPECT_EQ(Read(L"to\\a.txt"), "new b");
}

TEST_F(FileSystemTest, AFileWhereAFolderIsExpected) {
    Write(L"to", "a file");
    std::error_code error;
    FileSystem::Copy(At(L"from"), At(L"to"), error);
    EXPECT_EQ(error, std::make_error_code(std::errc::file_exists));
    EXPECT_EQ(Read(L"to"), "a file");
    // A folder below a file cannot be made or listed.
    FileSystem::Copy(At(L"from"), At(L"to\\inside"), error);
    EXPECT_TRUE(error);
    EXPECT_THROW(FileSystem::List(At(L"to")), std::system_error);
    EXPECT_EQ(FileSystem::RemoveAll(At(L"to"), error), 1u);
    EXPECT_FALSE(error);
}

TEST_F(FileSystemTest, RemovalsDeleteReadOnlyFilesAndFolders) {
    MakeFolder(L"tree");
    MakeFolder(L"tree\\locked", true);
    Write(L"tree\\locked\\kept.dat", "read-only", true);
    Write(L"tree\\plain.txt", "plain");
    Write(L"lone.log", "read-only", true);

    EXPECT_TRUE(FileSystem::Remove(At(L"lone.log")));
    EXPECT_FALSE(IsThere(L"lone.log"));
    EXPECT_FALSE(FileSystem::Remove(At(L"lone.log"))) << "nothing left to remove";
    EXPECT_THROW(FileSystem::Remove(At(L"tree")), std::system_error) << "not empty";

    std::error_code error;
    EXPECT_EQ(FileSystem::RemoveAll(At(L"tree"), error), 4u);
    EXPECT_FALSE(error) << error.message();
    EXPECT_FALSE(IsThere(L"tree"));
    EXPECT_EQ(FileSystem::RemoveAll(At(L"tree")), 0u) << "nothing there";
}

// A text stream's first line: a line feed ends it, a carriage return right
// before that goes, a Ctrl-Z ends the file, and a file that ends before its
// first byte has no line at all.
TEST_F(FileSystemTest, TheFirstLineIsReadAsATextStreamReadsIt) {
    const std::string longLine(5000, 'x');
    const struct {
        std::string bytes;
        FileSystem::LineRead result;
        std::string line;
    } cases[] = {
        {"one\r\ntwo\n", FileSystem::LineRead::Read, "one"},
        {"a\rb\r\r\n", FileSystem::LineRead::Read, "a\rb\r"},
        {"\r\nnext", FileSystem::LineRead::Read, ""},
        {"no end", FileSystem::LineRead::Read, "no end"},
        {longLine + "\r\n", FileSystem::LineRead::Read, longLine},
        {std::string("a\0b\x1A\nc", 7), FileSystem::LineRead::Read, std::string("a\0b", 3)},
        {"\x1A\n", FileSystem::LineRead::Empty, ""},
        {"", FileSystem::LineRead::Empty, ""},
    };
    for (const auto& c : cases) {
        Write(L"line.txt", c.bytes);
        std::string line = "stale";
        EXPECT_EQ(FileSystem::ReadFirstLine(At(L"line.txt"), line), c.result) << c.bytes;
        EXPECT_EQ(line, c.line) << c.bytes;
    }
    std::string line;
    EXPECT_EQ(FileSystem::ReadFirstLine(At(L"none.txt"), line), FileSystem::LineRead::NotOpened);
    EXPECT_EQ(FileSystem::ReadFirstLine(kWork, line), FileSystem::LineRead::NotOpened);
}

TEST(FileSystemNames, ExtensionRunsFromTheLastDotOfTheName) {
    const std::pair<const wchar_t*, const wchar_t*> cases[] = {
        {L"C:\\x\\agent.log", L".log"},
        {L"C:\\x\\.log", L".log"},
        {L"C:\\x\\UP.LOG", L".LOG"},
        {L"C:\\x\\a.b.log", L".log"},
        {L"C:\\x\\log", L""},
        {L"C:\\x\\.", L""},
        {L"C:\\x\\..", L""},
        {L"C:\\x.d\\name", L""},
        {L"name.", L"."},
    };
    for (const auto& [path, extension] : cases)
        EXPECT_EQ(FileSystem::Extension(path), extension) << path;
    EXPECT_EQ(FileSystem::Join(L"C:\\a\\", L"b"), L"C:\\a\\b");
    EXPECT_EQ(FileSystem::Join(L"C:\\a", L"b"), L"C:\\a\\b");
}

} // namespace
