// Issuer-checked loading, the signature manager and the event-log reporter,
// against the system trust provider and the probes signed with the test PKI.
#include "CrvDigitalSignatureManagerEx.h"
#include "HostDouble.h"
#include "IssuerCheck.h"
#include "LogCapture.h"
#include "MakerCheckLog.h"
#include "QvNotifyDLL.h"
#include "QvNotifyDouble.h"
#include "ScopedHandle.h"

#include <string>

namespace {

const std::string kSingleSign = SingleSign("");
const std::string kMultipleSign =
    "D CCrvDigitalSignatureManagerEx::VerifyEmbeddedSignatureMultipleSign - ";
const std::string kPrepare = "D CCrvDigitalSignatureManagerEx::PrepareSigners - allowed signers=";
const std::string kSignerCheck =
    "D CCrvDigitalSignatureManagerEx::VerifySignerForDigitalSignature - ";
const std::string kWriter = "D WriteWindowsEventLogForNotLoadingLibDueToIssuerCheckFailed - ";
const std::string kQvInit = "E CQvNotifyDLL::Init - ";
const std::string kForward = "\x05 CQvNotifyDLL::";
const std::string kRefusal = ") is not issued by (Quorvane, Inc.). Issuer check failed. Write to "
                             "Windows Event Log, SetLastError() to customized error code "
                             "ERROR_FAILED_ISSUER_CHECK (0x20001447) and return NULL.";
const DWORD kSentinel = 0xdeadbeef;

std::vector<std::string> QvNotifyJournal() {
    return JournalLines(kQvNotifyJournal);
}

// The journal of one complete event-log entry about `path`, and its message.
std::string EventMessage(const std::string& path) {
    return "Corvale agent attempted to load a library not signed by the expected issuer "
           "\"Quorvane, Inc.\". The process was stopped. Verify the integrity of the library and "
           "try again (" +
           path + ").";
}
std::vector<std::string> OneEntryAbout(const std::string& path) {
    return {"InitDefaultEventSource|Quorvane Corvale|0", "OpenEventSource|NULL|Quorvane Corvale",
            "ReportEventLogEx|0x51|2|5|0x80050258|" + EventMessage(path) + "|0",
            "CloseEventSource|0x51"};
}

// A pointer as the reporter logs it: the low 32 bits in upper-case hex.
std::string Shown(const void* pointer) {
    char text[16];
    snprintf(text, sizeof(text), "%X", static_cast<unsigned>(reinterpret_cast<uintptr_t>(pointer)));
    return text;
}

class SignatureTest : public LogCaptureTest {
  protected:
    void SetUp() override {
        LogCaptureTest::SetUp();
        CSingletonWinTrustHelper::GetInstance(); // its one line comes before every case
        DeleteFileW(kQvNotifyJournal);
        TestBedRegistry::DeleteTree(kQvNotifyBehaviourKey);
        Logged();
    }
    void TearDown() override {
        TestBedRegistry::DeleteTree(kQvNotifyBehaviourKey);
        RemoveFolderTree(kScratch);
    }

    // `name` in a folder that goes after the case; with `binFile`, a copy of it.
    static std::wstring Scratch(const std::wstring& name, const wchar_t* binFile = nullptr) {
        const std::wstring path = kScratch + L"\\" + name;
        EXPECT_TRUE(CreateFolderTree(binFile ? kScratch : path));
        EXPECT_TRUE(!binFile || CopyFileW(BinPath(binFile).c_str(), path.c_str(), FALSE));
        return path;
    }
    static inline const std::wstring kScratch = L"C:\\ZephTestBed\\signature";

    CCrvDigitalSignatureManagerEx m_manager;
};

// ---- Issuer-checked loading ------------------------------------------------

using IssuerCheckedLoading = SignatureTest;

TEST_F(IssuerCheckedLoading, LibrarySignedByTheIssuerLoadsThatVeryFile) {
    std::wstring probe = BinPath(L"sigprobe_quorvane.dll");
    ScopedModule module(LoadLibraryWithIssuerCheckW(L"Quorvane, Inc.", probe.c_str()));
    ASSERT_TRUE(module);
    EXPECT_NE(GetProcAddress(module.Get(), "SigProbeSum"), nullptr);
    std::string path = Narrow(probe);
    Lines expected = {"D LoadLibraryWithIssuerCheckW - File for issuer check is (" + path + ")"};
    for (const std::string& line : MakerCheckPassed("", path, false))
        expected.push_back(line);
    expected.push_back("D LoadLibraryWithIssuerCheckW - Calling LoadLibraryW()...");
    EXPECT_EQ(Logged(), expected);

    // Without the trailing "." the loader would look for "sigprobe_noext.dll".
    std::wstring copy = Scratch(L"sigprobe_noext", L"sigprobe_quorvane.dll");
    ScopedModule wide(LoadLibraryWithIssuerCheckW(L"Quorvane, Inc.", copy.c_str()));
    EXPECT_TRUE(wide);
    ScopedModule narrow(LoadLibraryWithIssuerCheckA("Quorvane, Inc.", Narrow(copy).c_str()));
    EXPECT_TRUE(narrow);
    EXPECT_EQ(QvNotifyJournal(), std::vector<std::string>{});
}

TEST_F(IssuerCheckedLoading, AnotherSignerIsRefusedReportedOnceAndRecorded) {
    std::wstring probe = BinPath(L"sigprobe_other.dll");
    std::string path = Narrow(probe);
    DeleteFileW(InvalidSignatureLastInfoPath().c_str());
    SetLastError(kSentinel);
    EXPECT_EQ(LoadLibraryWithIssuerCheckW(L"Quorvane, Inc.", probe.c_str()), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_FAILED_ISSUER_CHECK);
    EXPECT_EQ(GetModuleHandleW(probe.c_str()), nullptr);

    Lines logged = Logged();
    Lines head(logged.begin(), logged.begin() + std::min<size_t>(logged.size(), 10));
    EXPECT_EQ(head,
              (Lines{"D LoadLibraryWithIssuerCheckW - File for issuer check is (" + path + ")",
                     CheckingIssuer("", path), kSingleSign + ">>> try to verify file=" + path,
                     kPrepare + "Quorvane, Inc.",
                     kSignerCheck + "signer=[Otherco Test Signer] is not in trusted list",
                     kSingleSign + "find a valid digital signature but signer is incorrect",
                     kSingleSign + "<<<",
                     "E CheckFileIssuer - failed to check digital signature for " + path +
                         ", err=536876103",
                     "D LoadLibraryWithIssuerCheckW - File (" + path + kRefusal,
                     // the reporter checks qvnotify.dll before loading it
                     kSingleSign + ">>> try to verify file=" + Narrow(BinPath(L"qvnotify.dll"))}));
    EXPECT_EQ(Starting(logged, kWriter),
              (Lines{kWriter + "InitDefaultEventSource return 0",
                     kWriter + "ReportEventLogEx Msg = " + EventMessage(path)}));
    EXPECT_EQ(QvNotifyJournal(), OneEntryAbout(path));

    // The last invalid signature, in the registry and in its file.
    const std::wstring record = probe + L"|0.0.0.0|0x20001447|1";
    std::wstring text;
    EXPECT_TRUE(TestBedRegistry::ReadText(L"SOFTWARE\\Quorvane\\TarnAgent",
                                          L"TelemetryACSLocalVerifyFail", text));
    EXPECT_EQ(text, record);
    std::string lastInfo;
    ASSERT_TRUE(ReadFileBytes(InvalidSignatureLastInfoPath(), lastInfo));
    EXPECT_EQ(lastInfo, Narrow(record));

    // The narrow loader refuses with the same code and names the path.
    DeleteFileW(kQvNotifyJournal);
    SetLastError(kSentinel);
    EXPECT_EQ(LoadLibraryWithIssuerCheckA("Quorvane, Inc.", path.c_str()), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_FAILED_ISSUER_CHECK);
    EXPECT_EQ(Starting(Logged(), "D LoadLibraryWithIssuerCheckA"),
              (Lines{"D LoadLibraryWithIssuerCheckA - File for issuer check is (" + path + ")",
                     "D LoadLibraryWithIssuerCheckA - File (" + path + kRefusal}));
    EXPECT_EQ(QvNotifyJournal(), OneEntryAbout(path));
}

TEST_F(IssuerCheckedLoading, DirectoryOrMissingFileGivesFileNotFound) {
    std::wstring folder = Scratch(L"sigprobe_folder.dll");
    std::wstring missing = TempPath(L"sigprobe_missing.dll");
    for (const std::wstring& file : {folder, missing}) {
        std::string path = Narrow(file);
        SetLastError(kSentinel);
        EXPECT_EQ(LoadLibraryWithIssuerCheckW(L"Quorvane, Inc.", file.c_str()), nullptr);
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
        SetLastError(kSentinel);
        EXPECT_EQ(LoadLibraryWithIssuerCheckA("Quorvane, Inc.", path.c_str()), nullptr);
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
        Lines expected;
        for (const std::string loader :
             {"D LoadLibraryWithIssuerCheckW", "D LoadLibraryWithIssuerCheckA"})
            expected.insert(expected.end(),
                            {loader + " - File for issuer check is (" + path + ")",
                             loader + " - File (" + path +
                                 ") does not exist. SetLastError() to ERROR_FILE_NOT_FOUND and "
                                 "return NULL.",
                             loader + " - <<<"});
        EXPECT_EQ(Logged(), expected);
    }
    EXPECT_EQ(QvNotifyJournal(), std::vector<std::string>{});
}

TEST_F(IssuerCheckedLoading, NullArguments) {
    std::wstring probe = BinPath(L"sigprobe_quorvane.dll");
    SetLastError(kSentinel);
    EXPECT_EQ(LoadLibraryWithIssuerCheckW(nullptr, probe.c_str()), nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    SetLastError(kSentinel);
    EXPECT_EQ(LoadLibraryWithIssuerCheckA(nullptr, Narrow(probe).c_str()), nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    // The wide check lets null arguments pass, the narrow one does not.
    EXPECT_EQ(CheckFileIssuer(static_cast<const wchar_t*>(nullptr), L"Quorvane, Inc."), 1);
    EXPECT_EQ(CheckFileIssuer(L"C:\\any.dll", static_cast<const wchar_t*>(nullptr)), 1);
    EXPECT_EQ(CheckFileIssuer(static_cast<const char*>(nullptr), "Quorvane, Inc."), 0);
    EXPECT_EQ(CheckFileIssuer("C:\\any.dll", static_cast<const char*>(nullptr)), 0);
    const std::string tail = " - lpIssuerName is NULL. SetLastError() to ERROR_INVALID_PARAMETER "
                             "and return NULL.";
    EXPECT_EQ(Logged(),
              (Lines{"D LoadLibraryWithIssuerCheckW" + tail, "D LoadLibraryWithIssuerCheckA" + tail,
                     "E CheckFileIssuer - pwszFile or pwszIssuerName is NULL",
                     "E CheckFileIssuer - pwszFile or pwszIssuerName is NULL",
                     "E CheckFileIssuer - pszFile or pszIssuerName is NULL",
                     "E CheckFileIssuer - pszFile or pszIssuerName is NULL"}));
}

// ---- Signature manager -----------------------------------------------------

using SignatureManager = SignatureTest;

// The multiple-signature path judges the primary signer alike.
TEST_F(SignatureManager, FlagsChooseTheTrustedSignersOnEitherPath) {
    const std::wstring maker = BinPath(L"sigprobe_quorvane.dll");
    const std::wstring other = BinPath(L"sigprobe_other.dll");
    const struct {
        const std::wstring& file;
        DWORD flags;
        bool multiple;
        bool verified;
    } cases[] = {{maker, 0x2, false, false},
                 {maker, 0x3, false, true},
                 {other, 0x3, false, false},
                 {maker, 0x1, true, true},
                 {other, 0x1, true, false}};
    for (const auto& c : cases) {
        SignatureVerifyResult result =
            c.multiple
                ? m_manager.VerifyEmbeddedSignatureMultipleSign(c.file.c_str(), c.flags, false)
                : m_manager.VerifyDigitalSignature(c.file.c_str(), c.flags, false);
        EXPECT_EQ(result.verified, c.verified) << c.flags;
        EXPECT_EQ(result.error, c.verified ? 0u : ERROR_FAILED_ISSUER_CHECK) << c.flags;
    }
    Lines logged = Logged();
    const std::string platform =
        kPrepare + "Microsoft Corporation; Microsoft Windows; Microsoft Windows Component "
                   "Publisher; Microsoft Windows Early Launch Anti-malware Publisher; Microsoft "
                   "Windows Hardware Compatibility Publisher; Microsoft Windows Publisher";
    EXPECT_EQ(Starting(logged, kPrepare),
              (Lines{platform, platform + "; Quorvane, Inc.", platform + "; Quorvane, Inc.",
                     kPrepare + "Quorvane, Inc.", kPrepare + "Quorvane, Inc."}));
    EXPECT_EQ(Starting(logged, kMultipleSign + "find"),
              (Lines{kMultipleSign + "find a valid digital signature and signer is correct",
                     kMultipleSign + "find a valid digital signature but signer is incorrect"}));
}

TEST_F(SignatureManager, WithoutSignerBitsAnyValidSignatureIsAccepted) {
    std::wstring other = BinPath(L"sigprobe_other.dll");
    std::string path = Narrow(other);
    EXPECT_TRUE(m_manager.VerifyDigitalSignature(other.c_str(), 0, false).verified);
    EXPECT_EQ(Logged(),
              (Lines{kSingleSign + ">>> try to verify file=" + path,
                     kSingleSign + "find a valid digital signature and no need to check signer",
                     kSingleSign + "<<<"}));
    // Only the catalog bit: the set is empty and accepts every signer.
    EXPECT_TRUE(m_manager.VerifyDigitalSignature(other.c_str(), 0x10000, false).verified);
    EXPECT_EQ(Logged(), (Lines{kSingleSign + ">>> try to verify file=" + path, kPrepare + "ALL",
                               kSignerCheck + "no need to check signers, bypass",
                               kSingleSign + "find a valid digital signature and signer is correct",
                               kSingleSign + "<<<"}));

    // Whatever is wrong with the signature, only the system's status tells.
    std::wstring tampered = Scratch(L"sigprobe_tampered.dll", L"sigprobe_quorvane.dll");
    std::string image;
    ASSERT_TRUE(ReadFileBytes(tampered, image));
    image[image.size() / 4] ^= 0x01; // inside the code, well before the signature
    ASSERT_TRUE(WriteFileBytes(tampered, image));
    const std::pair<std::wstring, std::string> cases[] = {
        {BinPath(L"sigprobe_unsigned.dll"), "800b0100"}, {tampered, "80096010"}};
    for (const auto& [file, status] : cases) {
        EXPECT_FALSE(m_manager.VerifyDigitalSignature(file.c_str(), 0, false).verified);
        EXPECT_EQ(Logged(), RefusedSingleSign("", Narrow(file), status));
    }
}

TEST_F(SignatureManager, CatalogIsConsultedOnlyWhenTheFlagAllowsIt) {
    std::wstring unsignedProbe = BinPath(L"sigprobe_unsigned.dll");
    SignatureVerifyResult result =
        m_manager.VerifyDigitalSignature(unsignedProbe.c_str(), 0x10001, false);
    EXPECT_FALSE(result.verified);
    EXPECT_EQ(result.error, 0x800B0100u); // the embedded check's answer stands
    Lines catalog =
        Starting(Logged(), "D CCrvDigitalSignatureManagerEx::VerifyByMSCatalogSingleSign");
    ASSERT_FALSE(catalog.empty());
    EXPECT_EQ(catalog.front(), "D CCrvDigitalSignatureManagerEx::VerifyByMSCatalogSingleSign - "
                               "create context with algorithm=SHA1");
    EXPECT_NE(m_manager.VerifyByMSCatalogSingleSign(unsignedProbe.c_str()), 0u)
        << "no catalog of this machine holds the probe";
}

// ---- Event-log reporter ----------------------------------------------------

using EventLogReporter = SignatureTest;

TEST_F(EventLogReporter, ForwardsEachCallAndLogsAroundIt) {
    CQvNotifyDLL notify;
    ASSERT_EQ(notify.Init(nullptr), 1); // beside this executable
    Logged();
    HANDLE source = nullptr;
    EXPECT_EQ(notify.InitDefaultEventSource("Src", 7), 0);
    EXPECT_EQ(notify.OpenEventSource("host", "Src", &source), 0);
    ASSERT_EQ(source, reinterpret_cast<HANDLE>(kQvNotifySourceHandle));
    EXPECT_EQ(notify.ReportEventLogEx(source, 2, 5, 0x80050258, "text"), 0);
    EXPECT_EQ(notify.CloseEventSource(source), 0);
    EXPECT_EQ(QvNotifyJournal(),
              (std::vector<std::string>{"InitDefaultEventSource|Src|7", "OpenEventSource|host|Src",
                                        "ReportEventLogEx|0x51|2|5|0x80050258|text|0",
                                        "CloseEventSource|0x51"}));
    const std::string open = kForward + "OpenEventSource(host, Src, " + Shown(&source) + ")";
    EXPECT_EQ(
        Logged(),
        (Lines{kForward + "InitDefaultEventSource(Src)",
               kForward + "InitDefaultEventSource(Src) return 0", open, open + " return 0",
               kForward + "ReportEventLogEx(81, 2, 5, -2147155368, text)",
               kForward + "ReportEventLogEx(81, 2, 5, -2147155368, text) return 0",
               kForward + "CloseEventSource(81)", kForward + "OpenEventSource(81) return 0"}));
}

// A library that is missing, of another signer or without the exports is
// never kept; every later call answers -2.
TEST_F(EventLogReporter, LibrariesThatCannotServeAreNotKept) {
    const std::string verifyFailed =
        "CQvNotifyDLL:CQvNotifyDLL() Verify DigitalSignature Failed(qvnotify.dll) error = ";
    const std::string loadFailed =
        "CQvNotifyDLL::CQvNotifyDLL() LoadLibrary(qvnotify.dll) error = ";
    const struct {
        const wchar_t* folder;
        const wchar_t* library; // copied in as qvnotify.dll
        const char* suffix;     // after the folder's name, as Init is given it
        std::string complaints;
    } cases[] = {
        {L"qvnotify_absent", nullptr, "",
         kQvInit + verifyFailed + "0x2\n" + kQvInit + loadFailed + "2\n"},
        {L"qvnotify_other", L"sigprobe_other.dll", "",
         kQvInit + verifyFailed + "0x20001447\n" + kQvInit + loadFailed + "536876103\n"},
        {L"qvnotify_bare", L"sigprobe_quorvane.dll", "\\",
         kQvInit + ("CQvNotifyDLL::CQvNotifyDLL() GetProcAddress error = 127\n")},
    };
    for (const auto& c : cases) {
        std::wstring folder = Scratch(c.folder);
        std::wstring library = folder + L"\\qvnotify.dll";
        if (c.library)
            Scratch(std::wstring(c.folder) + L"\\qvnotify.dll", c.library);
        CQvNotifyDLL notify;
        EXPECT_EQ(notify.Init((Narrow(folder) + c.suffix).c_str()), 0);
        EXPECT_EQ(Text(Starting(Logged(), kQvInit)), c.complaints);
        EXPECT_EQ(GetModuleHandleW(library.c_str()), nullptr);
        EXPECT_EQ(notify.InitDefaultEventSource("Src", 0), CQvNotifyDLL::kExportMissing);
    }

    // Tried once: later calls of Init answer 1 and the operations -2.
    CQvNotifyDLL notify;
    const std::string absent = Narrow(kScratch + L"\\qvnotify_absent");
    EXPECT_EQ(notify.Init(absent.c_str()), 0);
    EXPECT_EQ(notify.Init(absent.c_str()), 1);
    EXPECT_EQ(notify.Init(nullptr), 1);
    HANDLE source = nullptr;
    EXPECT_EQ(notify.OpenEventSource(nullptr, "Src", &source), CQvNotifyDLL::kExportMissing);
    EXPECT_EQ(notify.ReportEventLogEx(source, 2, 5, 1, "m"), CQvNotifyDLL::kExportMissing);
    EXPECT_EQ(notify.CloseEventSource(source), CQvNotifyDLL::kExportMissing);
    const std::string open = kForward + "OpenEventSource(NULL, Src, " + Shown(&source) + ")";
    EXPECT_EQ(Starting(Logged(), kForward + "OpenEventSource(NULL"),
              (Lines{open, open + " return -2"}));
    EXPECT_EQ(QvNotifyJournal(), std::vector<std::string>{});
}

TEST_F(EventLogReporter, RefusedOpenOfTheSourceEndsTheEntry) {
    ASSERT_TRUE(TestBedRegistry::WriteDword(kQvNotifyBehaviourKey, kQvNotifyFailOpenValue, 1));
    WriteWindowsEventLogForNotLoadingLibDueToIssuerCheckFailed(L"C:\\x.dll", L"Quorvane, Inc.");
    EXPECT_EQ(Starting(Logged(), kWriter), (Lines{kWriter + "InitDefaultEventSource return 0",
                                                  kWriter + "OpenEventSource failed (5)"}));
    EXPECT_EQ(QvNotifyJournal(),
              (std::vector<std::string>{"InitDefaultEventSource|Quorvane Corvale|0",
                                        "OpenEventSource|NULL|Quorvane Corvale"}));
}

} // namespace
