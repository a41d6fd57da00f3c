// A log server whose only pipe instance is taken and never read: the next
// writer waits the full 20 s for it, then drops its record.
#include "SilentLogServer.h"
#include "StdoutCapture.h"

#include <gtest/gtest.h>

namespace {

TEST(SilentLogServerTest, AWriterThatFindsThePipeBusyGivesUpAfterTwentySeconds) {
    SilentLogServer server(64 * 1024);
    ASSERT_TRUE(server.Listening());
    ASSERT_EQ(SendLogRecord(L"first"), 1); // the server's one instance, kept and unread

    const DWORD start = GetTickCount();
    std::string printed = CaptureStdout([] { EXPECT_EQ(SendLogRecord(L"second"), 0); });
    const DWORD waited = GetTickCount() - start;
    EXPECT_GE(waited, 19900u); // the tick count's granularity
    EXPECT_LT(waited, 25000u);
    EXPECT_EQ(printed, "Initial pipe client failed! errno=121\n");
}

} // namespace
