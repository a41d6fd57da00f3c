// The result notification against the HTTP library double, loaded from the
// simulated installation as the plug-in finds it there.
#include "LogCapture.h"
#include "QvsockDouble.h"
#include "UtilCommon.h"

namespace {

const wchar_t kAnswerFile[] = L".\\qvsock_response";
const std::string kSent =
    "D talkToTarnServer - Send request to server succeeded, responseCode(200)";
const std::string kTalkFailed = "E sendNotifyResultToServer - Unable to talk to Tarn Server.";
const std::string kInvalid = "E sendNotifyResultToServer - Invalid response format.";

class ServerNotifyTest : public SimulatedInstallTest {
  protected:
    void SetUp() override {
        DeleteFileW(kAnswerFile);
        SimulatedInstallTest::SetUp();
    }
    void TearDown() override {
        SimulatedInstallTest::TearDown();
        DeleteFileW(kAnswerFile);
    }

    static std::wstring InstalledLibrary() {
        return std::wstring(SimulatedInstall::kFolder) + QvsockDouble::kFileName;
    }

    // One notification (1, 0, "cmd") that reached the double; its answer file is gone.
    void ExpectNotified(bool expected, const Lines& log) {
        EXPECT_EQ(sendNotifyResultToServer(1, 0, "cmd"), expected);
        EXPECT_EQ(Logged(), log);
        EXPECT_EQ(QvsockDouble::Journal(),
                  Lines{QvsockDouble::JournalLine(
                      R"({"name":"NotifyResult","notifyType":1,"result":0})", "cmd")});
        EXPECT_FALSE(PathExists(kAnswerFile));
        QvsockDouble::ClearJournal();
    }
};

TEST_F(ServerNotifyTest, ServerAnswers) {
    const std::string unparsed = "E talkToTarnServer - Unable to prase response json, error: ";
    const std::string respond = "E sendNotifyResultToServer - Tarn server respond error:";
    const struct {
        const char* answer; // null: no answer file at all
        bool expected;
        Lines afterSending;
    } cases[] = {
        {R"({"name":"errorCode","value":0})", true, {}},
        {R"({"name":"errorCode","value":5})", false, {respond + "5"}},
        {R"({"value":-1,"name":"errorCode","extra":[]})", false, {respond + "-1"}},
        {"", false, {unparsed + "1", kTalkFailed}},
        {R"({"name":)", false, {unparsed + "3", kTalkFailed}},
        {"[0]", false, {kInvalid}},
        {R"({"value":0})", false, {kInvalid}},
        {R"({"name":"errorcode","value":0})", false, {kInvalid}},
        {R"({"name":"errorCodes","value":0})", false, {kInvalid}},
        {R"({"name":"errorCode"})", false, {kInvalid}},
        {R"({"name":"errorCode","value":"0"})", false, {kInvalid}},
        {R"({"name":"errorCode","value":0.0})", false, {kInvalid}},
        {R"({"name":"errorCode","value":4294967295})", false, {kInvalid}},
        {nullptr,
         false,
         {"E loadFileToString - Unable to open .\\qvsock_response.",
          "E talkToTarnServer - Unable to load qvSock response, file=.\\qvsock_response",
          kTalkFailed}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.answer ? c.answer : "(no file)");
        QvsockDouble::Behaviour behaviour;
        behaviour.answer = c.answer ? c.answer : "";
        behaviour.noAnswerFile = !c.answer;
        ASSERT_TRUE(QvsockDouble::SetBehaviour(behaviour));
        Lines log = {kSent};
        log.insert(log.end(), c.afterSending.begin(), c.afterSending.end());
        ExpectNotified(c.expected, log);
    }
    // A refused send leaves no answer to read.
    QvsockDouble::Behaviour refused;
    refused.sendResult = 0;
    refused.httpCode = 503;
    ASSERT_TRUE(QvsockDouble::SetBehaviour(refused));
    ExpectNotified(
        false,
        {"E talkToTarnServer - Unable to send request to server, responseCode(503)", kTalkFailed});
}

// A failed load is tried again at the next notification; a loaded library is kept.
TEST_F(ServerNotifyTest, LibraryIsLoadedFromTheInstallFolderOnceFound) {
    SimulatedInstall::RemoveApplicationPath();
    EXPECT_FALSE(sendNotifyResultToServer(1, 0, "cmd"));
    Lines log = Logged();
    ASSERT_FALSE(log.empty());
    EXPECT_EQ(Lines(log.end() - 2, log.end()),
              (Lines{"E talkToTarnServer - Unable to get CRVL install path.", kTalkFailed}));

    ASSERT_TRUE(SimulatedInstall::SetApplicationPath(SimulatedInstall::kFolder));
    ASSERT_TRUE(DeleteFileW(InstalledLibrary().c_str()));
    EXPECT_FALSE(sendNotifyResultToServer(1, 0, "cmd"));
    EXPECT_EQ(Logged(),
              (Lines{"E talkToTarnServer - Unable to load Qvsock_64x.dll.", kTalkFailed}));
    EXPECT_EQ(QvsockDouble::Journal(), Lines{});

    ASSERT_TRUE(CopyFileW(QvsockDouble::BuiltPath().c_str(), InstalledLibrary().c_str(), FALSE));
    ExpectNotified(true, {kSent});
    // Loaded for good: the install folder is no longer consulted.
    SimulatedInstall::RemoveApplicationPath();
    ExpectNotified(true, {kSent});
}

TEST_F(ServerNotifyTest, LibraryWithoutTheSendFunctionIsRefused) {
    ASSERT_TRUE(CopyFileW(BinPath(L"qvnotify.dll").c_str(), InstalledLibrary().c_str(), FALSE));
    EXPECT_FALSE(sendNotifyResultToServer(1, 0, "cmd"));
    EXPECT_EQ(Logged(),
              (Lines{"E talkToTarnServer - Unable to load function qvSendHttpToCRVLServer2.",
                     kTalkFailed}));
}

} // namespace
