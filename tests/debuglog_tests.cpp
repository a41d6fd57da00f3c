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

    std::vector<LogRecord> Records(size_t count) {
        EXPECT_TRUE(server.Sync());
        std::vector<LogRecord> records = server.Records();
        EXPECT_EQ(records.size(), count);
        records.resize(count);
        return records;
    }

    LogServer server;
};

// Eight tab-separated fields; the text behind the tag and the process's name.
// Tabs inside fields pass unescaped.
TEST_F(DebugLogTest, RecordsCarryEightTabSeparatedFieldsAndThePrefix) {
    const int32_t before = static_cast<int32_t>(time(nullptr));
    DebugLogW(LOG_DETAIL, L"src/x.cpp", 42, L"%s - Request: %s", L"zephExt_OnQueryData", L"{\t}");
    DebugLogA(LOG_ERROR, "src/y.cpp", 7, "%s - Unable to load %s. Error:%d", "init",
              "zephAgent_64x", 8);
    const int line = __LINE__ + 1;
    LOGA(LOG_INFO, "%s - >>> %s", "f", "g");
    SendDebugLogRecord(-5, 1, 2, 5, nullptr, 0, nullptr);
    std::vector<LogRecord> records = Records(4);
    const std::wstring prefix = L"[zephExt_TarnClient][" + ExeName() + L"]";
    EXPECT_EQ(records[0].raw, L"LOG_WRITE\t" + std::to_wstring(records[0].time) + L"\t" +
                                  std::to_wstring(GetCurrentProcessId()) + L"\t" +
                                  std::to_wstring(GetCurrentThreadId()) + L"\t68\tsrc/x.cpp\t42\t" +
                                  prefix + L"zephExt_OnQueryData - Request: {\t}");
    EXPECT_GE(records[0].time, before);
    EXPECT_LE(records[0].time, before + 5);
    EXPECT_EQ(records[1].level, 'E');
    EXPECT_EQ(records[1].sourceFile, L"src/y.cpp");
    EXPECT_EQ(records[1].line, 7);
    EXPECT_EQ(records[1].text, prefix + L"init - Unable to load zephAgent_64x. Error:8");
    EXPECT_EQ(records[2].level, 'I');
    EXPECT_EQ(records[2].sourceFile, L"tests/debuglog_tests.cpp");
    EXPECT_EQ(records[2].line, line);
    // Null source and text leave empty fields; an odd level is a number.
    EXPECT_EQ(records[3].raw, L"LOG_WRITE\t-5\t1\t2\t5\t\t0\t");
}

// The tag takes 1 to 63 characters; a long text is cut at 4,095 characters
// and sent in pieces of at most 1,024 bytes.
TEST_F(DebugLogTest, TagLimitsAndLongTexts) {
    SetDebugLogModuleTag(L"");
    DebugLogA(LOG_DETAIL, "f", 1, "plain");
    SetDebugLogModuleTag(std::wstring(63, L't').c_str());
    DebugLogA(LOG_DETAIL, "f", 1, "long");
    SetDebugLogModuleTag(L"");
    DebugLogW(LOG_DETAIL, L"f", 1, L"%s", std::wstring(6000, L'w').c_str());
    DebugLogA(LOG_DETAIL, "f", 1, "%s", std::string(6000, 'n').c_str());
    std::vector<LogRecord> records = Records(4);
    EXPECT_EQ(records[0].text, L"plain");
    EXPECT_EQ(records[1].text, L"[" + std::wstring(63, L't') + L"][" + ExeName() + L"]long");
    for (const LogRecord& record : {records[2], records[3]}) {
        EXPECT_EQ(record.text, std::wstring(4095, record.text[0]));
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
