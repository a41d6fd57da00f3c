#include "CrvDigitalSignatureManagerEx.h"
#include "LogCapture.h"
#include "MakerCheckLog.h"
#include "ScopedHandle.h"
#include "ZephIntegration.h"

#include <cstring>

namespace {

using SimulatedInstall::kProductKey;
const std::string kShownProductKey = "HKEY_LOCAL_MACHINE\\" + Narrow(kProductKey);
const wchar_t kMiscKey[] = L"SOFTWARE\\Quorvane\\HalvaneNTCorp\\CurrentVersion\\Misc.";
const std::string kPrimaryLibrary =
    Narrow(std::wstring(SimulatedInstall::kFolder) + L"zephAgent_64x.dll");
const std::string kAlternateLibrary =
    Narrow(std::wstring(SimulatedInstall::kFolder) + L"zephAgent_NA_64x.dll");
const char kRebootRequest[] =
    R"({"system_call_id":"ZEPH_SYSCALL_SET_SYS_RESTART","product_id":"ZEPH_IPRODUCT_TARN"})";

class HostBindingTest : public LogCaptureTest {
  protected:
    void SetUp() override {
        LogCaptureTest::SetUp();
        CSingletonWinTrustHelper::GetInstance(); // its one line comes before every case
        Logged();
        SimulatedInstall::Remove();
        RegDeleteKeyExW(HKEY_LOCAL_MACHINE, kMiscKey, KEY_WOW64_32KEY, 0);
    }
    void TearDown() override {
        SimulatedInstall::Remove();
        RegDeleteKeyExW(HKEY_LOCAL_MACHINE, kMiscKey, KEY_WOW64_32KEY, 0);
    }

    static size_t JournalCount(const std::string& prefix) {
        return Starting(SimulatedInstall::HostJournal(), prefix).size();
    }
};

TEST_F(HostBindingTest, WithoutTheInstallPathEveryCallRefusesUntilTheValueAppears) {
    TestBedRegistry::DeleteTree(kProductKey);
    std::wstring path = L"unchanged";
    EXPECT_EQ(GetCRVLInstallPath(path), 0);
    EXPECT_EQ(Logged(), Lines{"E GetCRVLInstallPath - Cannot find registry " + kShownProductKey});

    // The key exists, the value does not.
    ASSERT_TRUE(TestBedRegistry::WriteDword(kProductKey, L"Other", 1));
    for (int call = 0; call < 2; ++call) {
        EXPECT_FALSE(IsValidLoader());
        EXPECT_EQ(Logged(), UnboundLog(""));
    }
    // Stored to be expanded, it is read expanded.
    ASSERT_TRUE(SimulatedInstall::Create());
    ASSERT_TRUE(
        SimulatedInstall::SetApplicationPathExpandable(L"%SystemDrive%\\ZephTestBed\\Corvale\\"));
    EXPECT_EQ(GetCRVLInstallPath(path), 1);
    EXPECT_EQ(path, SimulatedInstall::kFolder);
    EXPECT_TRUE(IsValidLoader());
    EXPECT_TRUE(IsValidLoader());
    EXPECT_EQ(Logged(), MakerCheckPassed("", kPrimaryLibrary, false));
    // The loader is checked once, with this process's own executable.
    wchar_t exe[MAX_PATH];
    GetModuleFileNameW(nullptr, exe, MAX_PATH);
    EXPECT_EQ(SimulatedInstall::HostJournal(),
              std::vector<std::string>{"VerifyLoaderProcessSign " + Narrow(exe)});
}

// Without the host library, its alternate serves only when shim validation is 1.
TEST_F(HostBindingTest, TheAlternateLibraryServesOnlyWhenShimValidationIsOne) {
    ASSERT_TRUE(SimulatedInstall::Create());
    std::wstring folder = SimulatedInstall::kFolder;
    ASSERT_TRUE(MoveFileW((folder + L"zephAgent_64x.dll").c_str(),
                          (folder + L"zephAgent_NA_64x.dll").c_str()));
    ASSERT_TRUE(TestBedRegistry::WriteDword(kMiscKey, L"EnableShimValidation", 2, KEY_WOW64_32KEY));
    EXPECT_FALSE(IsValidLoader());
    Lines expected = MakerCheckOfMissingFile("", kPrimaryLibrary);
    expected.push_back("E init - Unable to load zephAgent_64x. Error:8");
    expected.push_back("E IsValidLoader - Unable to initialize zephAgent dll.");
    EXPECT_EQ(Logged(), expected);
    EXPECT_EQ(SimulatedInstall::HostJournal(), std::vector<std::string>{});

    ASSERT_TRUE(TestBedRegistry::WriteDword(kMiscKey, L"EnableShimValidation", 1, KEY_WOW64_32KEY));
    EXPECT_TRUE(IsValidLoader());
    expected = MakerCheckOfMissingFile("", kPrimaryLibrary);
    for (const std::string& line : MakerCheckPassed("", kAlternateLibrary, false))
        expected.push_back(line);
    EXPECT_EQ(Logged(), expected);
    EXPECT_EQ(JournalCount("VerifyLoaderProcessSign "), 1u);
}

TEST_F(HostBindingTest, RefusedLoaderIsReportedAtEveryCallButCheckedOnce) {
    ASSERT_TRUE(SimulatedInstall::Create());
    HostBehaviour behaviour;
    behaviour.loaderVerdict = 0;
    ASSERT_TRUE(SimulatedInstall::SetHostBehaviour(behaviour));
    EXPECT_FALSE(IsValidLoader());
    EXPECT_FALSE(IsValidLoader());
    Lines expected = MakerCheckPassed("", kPrimaryLibrary, false);
    expected.push_back("E IsValidLoader - Invalid loader.");
    expected.push_back("E IsValidLoader - Invalid loader.");
    EXPECT_EQ(Logged(), expected);
    EXPECT_EQ(JournalCount("VerifyLoaderProcessSign "), 1u);
}

TEST_F(HostBindingTest, AdapterLoadAnswersItsCodes) {
    Corvale_Service_Framework::ZephAgentAdapter adapter;
    EXPECT_EQ(adapter.Load(nullptr), 2u);
    EXPECT_EQ(adapter.Load(L"C:\\ZephTestBed\\Nowhere\\"), 8u);
    EXPECT_FALSE(adapter.IsLoaded());
    // Missing entries answer their defaults.
    EXPECT_EQ(adapter.SystemCall(nullptr, 0, nullptr, nullptr, nullptr), 1u);
    EXPECT_EQ(adapter.Free(nullptr), 1u);
    EXPECT_EQ(adapter.VerifyLoaderProcessSign(L"x"), 0u);
    ASSERT_TRUE(SimulatedInstall::Create());
    EXPECT_EQ(adapter.Load(SimulatedInstall::kFolder), 0u);
    EXPECT_TRUE(adapter.IsLoaded());
    EXPECT_TRUE(adapter.HasCreateProcessWithSignCheck());
    EXPECT_TRUE(adapter.HasIsLightWeightModeEnabled());
    EXPECT_EQ(adapter.Load(L"C:\\ZephTestBed\\Nowhere\\"), 0u); // already loaded
    adapter.Unload();
    EXPECT_FALSE(adapter.IsLoaded());
    EXPECT_FALSE(adapter.HasCreateProcessWithSignCheck());
}

TEST_F(HostBindingTest, RebootRequestAnswers) {
    ASSERT_TRUE(SimulatedInstall::Create());
    ASSERT_TRUE(IsValidLoader());
    Logged();
    const std::string request = kRebootRequest;
    const std::string missing = "E RequestReboot - Missing error code in ZEPH response.";
    const struct {
        DWORD status;
        std::string response;
        int expected;
        std::string logged; // after the request and response lines
    } cases[] = {
        {0, R"({"system_call_result":{"system_call_error":0},"more":1})", 1,
         "E RequestReboot - Successfully requested a reboot."},
        {0, R"({"system_call_result":{"system_call_error":3}})", 0,
         "E RequestReboot - ZEPH response with error code: 3"},
        {0, R"({"system_call_result":{"system_call_error":"0"}})", 0, missing},
        {0, R"({"system_call_result":{"system_call_error":null}})", 0, missing},
        {0, R"({"system_call_error":0})", 0, missing},
        {0, R"({"system_call_result":)", 0,
         "E RequestReboot - Unable to parse response, rapidjosn parsing error: 3\n"},
        // A refused call has no response to log.
        {5, "", 0, "E RequestReboot - ZEPH System call retruned error: 5"},
    };
    for (const auto& c : cases) {
        HostBehaviour behaviour;
        behaviour.systemCallStatus = c.status;
        behaviour.systemCallResponse = c.response;
        ASSERT_TRUE(SimulatedInstall::SetHostBehaviour(behaviour));
        SimulatedInstall::ClearHostJournal();
        EXPECT_EQ(RequestReboot(), c.expected) << c.response;
        Lines expected = {"E RequestReboot - Requesting a reboot...",
                          "D RequestReboot - Request: " + request};
        if (c.status == 0)
            expected.push_back("D RequestReboot - Response: " + c.response);
        expected.push_back(c.logged);
        EXPECT_EQ(Logged(), expected);
        if (c.status != 0)
            continue;
        // The size counts the terminator; the host's buffer always goes back.
        EXPECT_EQ(SimulatedInstall::HostJournal(),
                  (std::vector<std::string>{"SystemCall " + std::to_string(request.size() + 1) +
                                                " " + request,
                                            "Free buffer"}));
    }
}

// The cloud policy's opt-in flag and the location of its copy, which is cleared
// to an empty text.
TEST_F(HostBindingTest, PolicyOptInAndLocation) {
    const std::wstring optIn = std::wstring(kProductKey) + L"\\LumenfieldPolicy";
    EXPECT_EQ(IsOptInLumenfieldPolicy(), 0); // no key: no message of its own
    EXPECT_EQ(Logged(), Lines{});
    ASSERT_TRUE(TestBedRegistry::WriteDword(optIn.c_str(), L"LFPolicyOptIn", 2));
    EXPECT_EQ(IsOptInLumenfieldPolicy(), 1);
    EXPECT_EQ(Logged(), Lines{"D IsOptInLumenfieldPolicy - LFPolicyOptIn: 2"});
    ASSERT_TRUE(TestBedRegistry::WriteDword(optIn.c_str(), L"LFPolicyOptIn", 0));
    EXPECT_EQ(IsOptInLumenfieldPolicy(), 0);
    TestBedRegistry::DeleteTree(optIn.c_str());

    const std::wstring key = std::wstring(kProductKey) + L"\\ZEPH\\ZEPH_IPRODUCT_TARN";
    const std::string shownKey = kShownProductKey + "\\ZEPH\\ZEPH_IPRODUCT_TARN";
    TestBedRegistry::DeleteTree(key.c_str());
    std::wstring path;
    EXPECT_EQ(GetLFIPSPolicyPath(path), 0);
    EXPECT_EQ(ClearLFIPSPolicyPath(), 0);
    EXPECT_EQ(Logged(), (Lines{"D GetLFIPSPolicyPath - Cannot find registry " + shownKey,
                               "E ClearLFIPSPolicyPath - Cannot find registry " + shownKey}));
    std::wstring policy = L"C:\\policy\\ips.dat";
    ASSERT_TRUE(TestBedRegistry::WriteText(key.c_str(), L"PolicyData", policy));
    EXPECT_EQ(GetLFIPSPolicyPath(path), 1);
    EXPECT_EQ(path, policy);
    EXPECT_EQ(ClearLFIPSPolicyPath(), 1);
    EXPECT_EQ(GetLFIPSPolicyPath(path), 1);
    EXPECT_EQ(path, L"");
    EXPECT_EQ(Logged(), Lines{});
    TestBedRegistry::DeleteTree(key.c_str());
}

} // namespace
