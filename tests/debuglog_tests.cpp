#include "DebugLog.h"
#include "LogServer.h"
#include "StdoutCapture.h"

#include <gtest/gtest.h>

#include <ctime>

namespace {

std::wstring ExeName() {
    wchar_t path[MAX_PATH];
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    return wcsrchr(path, L'\\') + 1;
}

class DebugLogTest : public ::testing::Test {
  protected:
    void SetUp() override {
        SetDebugLogModuleTag(L"zephExt_TarnClient");
        ASSERT_TRUE(server.Start());
    }
    void TearDown() override { SetDebugLogModuleTag(L""); }

    LogRecord OnlyRecord() {
        EXPECT_TRUE(server.Sync());
        std::vector<LogRecord> records = server.Records();
        EXPECT_EQ(records.size(), 1u);
        return records.empty() ? LogRecord() : records.front();
    }

    LogServer server;
};

TEST_F(DebugLogTest, RecordCarriesEightTabSeparatedFieldsAndPrefix) {
    int32_t before = static_cast<int32_t>(time(nullptr));
    DebugLogW(LOG_DETAIL, L"src/x.cpp", 42, L"%s - Request: %s", L"zephExt_OnQueryData", L"{}");
    LogRecord record = OnlyRecord();

    std::wstring expected = L"LOG_WRITE\t" + std::to_wstring(record.time) + L"\t" +
                            std::to_wstring(GetCurrentProcessId()) + L"\t" +
                            std::to_wstring(GetCurrentThreadId()) + L"\t68\tsrc/x.cpp\t42\t" +
                            L"[zephExt_TarnClient][" + ExeName() +
                            L"]zephExt_OnQueryData - Request: {}";
    EXPECT_EQ(record.raw, expected);
    EXPECT_GE(record.time, before);
    EXPECT_LE(record.time, before + 5);
}

TEST_F(DebugLogTest, NarrowCallConvertsTextAndSourceName) {
    DebugLogA(LOG_ERROR, "src/y.cpp", 7, "%s - Unable to load %s. Error:%d", "init",
              "zephAgent_64x", 8);
    LogRecord record = OnlyRecord();
    EXPECT_EQ(record.level, 'E');
    EXPECT_EQ(record.sourceFile, L"src/y.cpp");
    EXPECT_EQ(record.line, 7);
    EXPECT_EQ(record.text, L"[zephExt_TarnClient][" + ExeName() +
                               L"]init - Unable to load zephAgent_64x. Error:8");
}

TEST_F(DebugLogTest, MacroPassesThisFileAndLine) {
    int line = __LINE__ + 1;
    LOGA(LOG_INFO, "%s - >>> %s", "f", "g");
    LogRecord record = OnlyRecord();
    EXPECT_EQ(record.sourceFile, L"tests/debuglog_tests.cpp");
    EXPECT_EQ(record.line, line);
    EXPECT_EQ(record.level, 'I');
}

TEST_F(DebugLogTest, TagOutsideOneToSixtyThreeCharactersLeavesNoPrefix) {
    SetDebugLogModuleTag(L"");
    DebugLogA(LOG_DETAIL, "f", 1, "plain");
    SetDebugLogModuleTag(std::wstring(63, L't').c_str());
    DebugLogA(LOG_DETAIL, "f", 1, "long");
    ASSERT_TRUE(server.Sync());
    std::vector<LogRecord> records = server.Records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].text, L"plain");
    EXPECT_EQ(records[1].text, L"[" + std::wstring(63, L't') + L"][" + ExeName() + L"]long");
}

TEST_F(DebugLogTest, NullSourceAndTextLeaveEmptyFieldsAndOddLevelIsANumber) {
    SendDebugLogRecord(-5, 1, 2, 5, nullptr, 0, nullptr);
    LogRecord record = OnlyRecord();
    EXPECT_EQ(record.raw, L"LOG_WRITE\t-5\t1\t2\t5\t\t0\t");
}

TEST_F(DebugLogTest, TabsInsideFieldsPassUnescaped) {
    DebugLogW(LOG_DETAIL, L"a\tb", 3, L"x\ty");
    LogRecord record = OnlyRecord();
    EXPECT_NE(record.raw.find(L"\ta\tb\t3\t"), std::wstring::npos);
    EXPECT_NE(record.raw.find(L"]x\ty"), std::wstring::npos);
}

TEST_F(DebugLogTest, LongTextIsCutAt4095CharactersAndSentInChunks) {
    std::wstring longText(6000, L'w');
    std::string narrowText(6000, 'n');
    DebugLogW(LOG_DETAIL, L"f", 1, L"%s", longText.c_str());
    DebugLogA(LOG_DETAIL, "f", 1, "%s", narrowText.c_str());
    ASSERT_TRUE(server.Sync());
    std::vector<LogRecord> records = server.Records();
    ASSERT_EQ(records.size(), 2u);
    for (const LogRecord& record : records) {
        EXPECT_EQ(record.text.size(), 4095u);
        size_t total = 0;
        for (size_t size : record.messageSizes) {
            EXPECT_LE(size, 1024u);
            total += size;
        }
        // Every byte of the record, its closing NUL included, arrived.
        EXPECT_EQ(total, (record.raw.size() + 1) * sizeof(wchar_t));
        EXPECT_GT(record.messageSizes.size(), 8u);
    }
}

TEST(DebugLogWithoutServer, WarnsOnceThatTheServerIsMissing) {
    std::string printed = CaptureStdout([] {
        DebugLogA(LOG_DETAIL, "f", 1, "first");
        DebugLogW(LOG_DETAIL, L"f", 2, L"second");
        EXPECT_EQ(SendDebugLogRecord(0, 0, 0, 'D', L"f", 3, L"third"), 0);
    });
    EXPECT_EQ(printed, "Need to Start LogServer for turn on debug log. errno=2\n");
}

} // namespace
