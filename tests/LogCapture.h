#pragma once
// Tests compare what reached the log server: level letter and whole text.
#include "LogServer.h"
#include "QvsockDouble.h"
#include "TestBed.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

class LogCaptureTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(m_server.Start()) << "log pipe already served"; }

    // "L text" for every record since the last call, L the level letter.
    std::vector<std::string> Logged() {
        EXPECT_TRUE(m_server.Sync());
        std::vector<std::string> lines;
        for (const LogRecord& record : m_server.Records())
            lines.push_back(std::string(1, static_cast<char>(record.level)) + " " +
                            Narrow(record.text));
        m_server.Clear();
        return lines;
    }

    std::vector<LogRecord> Records() {
        EXPECT_TRUE(m_server.Sync());
        std::vector<LogRecord> records = m_server.Records();
        m_server.Clear();
        return records;
    }

  private:
    LogServer m_server;
};

// A case with the parent product's simulated installation made afresh, its
// HTTP library double answering as by default.
class SimulatedInstallTest : public LogCaptureTest {
  protected:
    void SetUp() override {
        LogCaptureTest::SetUp();
        Clean();
        ASSERT_TRUE(SimulatedInstall::Create());
    }
    void TearDown() override { Clean(); }

  private:
    static void Clean() {
        SimulatedInstall::Remove();
        QvsockDouble::Remove();
    }
};

using Lines = std::vector<std::string>;

// What the plug-in puts before each text it logs inside zephhost.exe.
inline const std::string P = "[zephExt_TarnClient][zephhost.exe]";

// Lines that start with `prefix`, in order.
inline Lines Starting(const Lines& lines, const std::string& prefix) {
    Lines found;
    for (const std::string& line : lines)
        if (line.rfind(prefix, 0) == 0)
            found.push_back(line);
    return found;
}

// The lines as one text, each ended by a line break: what compact tables hold.
inline std::string Text(const Lines& lines) {
    std::string text;
    for (const std::string& line : lines)
        text += line + "\n";
    return text;
}
