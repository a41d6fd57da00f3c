// Detection records: the field rules, verifyLog's one message per failing
// field, and zephExt_ParseLog on real files of the Wine prefix.
#include "HostScript.h"
#include "LogCapture.h"
#include "MakerCheckLog.h"
#include "ResultCodes.h"
#include "ScopedHandle.h"
#include "ZephIntegration.h"
#include "eventLogValidation.h"
#include "zephExt_TarnClient.h"

#include <functional>

namespace {

using Fields = std::vector<std::string>;

// Every field filled and valid; positions count from 1 in the tables below.
const char* const kShortRecord = kValidDetectionRecord;

Fields ShortRecord() {
    return splitLogRecord(kShortRecord);
}

// The long form: positions 27, 28 and 30 to 32 are never checked.
Fields LongRecord() {
    return splitLogRecord(LongDetectionRecord());
}

std::string Join(const Fields& fields) {
    std::string line;
    for (size_t i = 0; i < fields.size(); ++i)
        line += (i ? ", " : "") + fields[i];
    return line;
}

TEST(EventFieldRuleTest, EachRuleAcceptsItsFormsOnly) {
    auto number = [](unsigned bits, bool isSigned) {
        return [bits, isSigned](const std::string& text) {
            return isValidNumber(text, bits, isSigned);
        };
    };
    const struct {
        std::function<bool(const std::string&)> rule;
        const char* name;
        std::vector<const char*> valid;
        std::vector<const char*> invalid;
    } cases[] = {
        {number(1, false), "u1", {"0", "1"}, {"2"}},
        {number(8, false), "u8", {"0", "255"}, {"256", "00"}},
        {number(16, false), "u16", {"0", "65535"}, {"00", "-0", "+1", "65536"}},
        {number(32, false), "u32", {"4294967295"}, {"007", "", "-1", "1 2", "12a", "4294967296"}},
        {number(64, false), "u64", {"18446744073709551615"}, {"18446744073709551616"}},
        {number(65, false), "u65", {}, {"0", "1"}}, // no such width
        {number(16, true),
         "s16",
         {"0", "32767", "-32767", "-", "-0"},
         {"32768", "-32768", "--1", "-99999999999999999999999"}},
        {number(64, true), "s64", {"9223372036854775807"}, {"-9223372036854775808"}},
        {isValidHexText,
         "hex",
         {"0x", "0X1f", "abcDEF0123", "0"},
         {"", "x1", "0xg", "0x0x1", "1 2"}},
        {isValidMac,
         "MAC",
         {"00:1A:2B:3C:4D:5E", "00-1a-2b-3c-4d-5e", "00 1A 2B 3C 4D 5E", "0x:1A:2B:3C:4D:5E"},
         {"00:1A:2B:3C:4D", "00:1A:2B:3C:4D:5E:6F", "00:1A:2B:3C:4D:5", "00:1A-2B:3C:4D:5E",
          "00 1A:2B 3C 4D 5E", "0g:1A:2B:3C:4D:5E", "001A2B3C4D5E"}},
        {isValidFrameType,
         "frame type",
         {"IP", "ARP", "RevARP", "NetBEUI", "IPv6", "0x0800", "86DD", "0XFFFF", "0x"},
         {"ipv6", "0x10000", "10000", "IPX", ""}},
        {isValidProtocol,
         "protocol",
         {"ICMP", "IGMP", "GGP", "TCP", "PUP", "UDP", "ICMPv6", "IDP", "ND", "17", "0", "255"},
         {"tcp", "256", "017", "-1", ""}},
        {isValidFlags,
         "flags",
         {"SYN ACK DF=1 FragOffs=0 IPTotalLen=60", "CWR ECE URG PSH RST FIN MF=0 DF=0 MF=1",
          "Type:8 Code:0", "IPTotalLen=65535", "Code:255"},
         {"SYN  ACK", "Foo=1", "DF=2", "Type=8", "SYN ", "FragOffs=", "IPTotalLen=65536",
          "Type:256", "Code:", "Type:1:2", "a=b=c", "syn", ""}},
        {isValidIp,
         "IP",
         {"192.168.0.1", "0.0.0.0", "255.255.255.255", "1a.0.0.1", "::1", "fe80::1",
          "fe80::", "fe80:1", "1:2:3:4:5:6:7:8", "abcd:ef01::1"},
         {"192.168.0.01", "1.2.3", "1.2.3.4.5", "1.2.3.4.", "256.0.0.1", "1.2.3.-4", "1..2.3",
          "12345::1", "::", "1::2::3", "fe80::g", "1:2:3:4:5:6:7:8:9",
          "1:2:3:4:5:6:7:8:", "12345:1", "localhost", "fe80:", ""}},
    };
    for (const auto& c : cases) {
        for (const char* text : c.valid)
            EXPECT_TRUE(c.rule(text)) << c.name << ": " << text;
        for (const char* text : c.invalid)
            EXPECT_FALSE(c.rule(text)) << c.name << ": " << text;
    }
}

class VerifyLogTest : public LogCaptureTest {};

TEST_F(VerifyLogTest, TheFirstFailingFieldIsNamed) {
    const struct {
        Fields record;
        std::vector<std::pair<size_t, std::string>> edits; // position, new text
        std::string failing;                               // "" when the record passes
    } cases[] = {
        {ShortRecord(), {}, ""},
        {LongRecord(), {}, ""},
        // Optional fields may be empty, checked fields are trimmed first.
        {ShortRecord(),
         {{4, ""},  {5, " "}, {6, ""},  {7, ""},   {8, ""},   {9, ""},   {10, ""},
          {11, ""}, {12, ""}, {13, ""}, {14, "0"}, {15, "0"}, {17, "0"}, {18, "0"},
          {19, ""}, {24, ""}, {25, ""}, {27, "0"}, {28, "0"}, {29, "0"}},
         ""},
        {ShortRecord(), {{2, " 1\t"}, {11, "\r80 "}, {29, "\n18446744073709551615"}}, ""},
        {LongRecord(), {{29, ""}, {27, "00"}, {32, "Foo=1"}}, ""},
        {ShortRecord(), {{1, "F"}}, "IsPacketEvent"},
        {ShortRecord(), {{2, "2"}}, "Direction"},
        {ShortRecord(), {{3, "00"}}, "Forward"},
        {ShortRecord(), {{4, "00:1A"}}, "Interface"},
        {ShortRecord(), {{5, "0x10000"}}, "Frame Type"},
        {ShortRecord(), {{6, "zz:1A:2B:3C:4D:5E"}}, "Source MAC"},
        {ShortRecord(), {{7, "x"}}, "Destination MAC"},
        {ShortRecord(), {{8, "tcp"}}, "Protocol"},
        {ShortRecord(), {{9, "SYN  ACK"}}, "Flags"},
        {ShortRecord(), {{10, "192.168.0.01"}}, "Source IP"},
        {ShortRecord(), {{11, "65536"}}, "Source Port"},
        {ShortRecord(), {{12, "1.2.3"}}, "Destination IP"},
        {ShortRecord(), {{13, "-1"}}, "Destination Port"},
        {ShortRecord(), {{14, " "}}, "Packet Size"},
        {ShortRecord(), {{15, "-32768"}}, "Action"},
        {ShortRecord(), {{16, "32768"}}, "Status"},
        {ShortRecord(), {{17, "4294967296"}}, "Filter_id"},
        {ShortRecord(), {{18, "007"}}, "Adapter_id"},
        {ShortRecord(), {{19, "0xg"}}, "Note"},
        {ShortRecord(), {{20, "65536"}}, "Data position"},
        {ShortRecord(), {{21, "-0"}}, "Data position in stream"},
        {ShortRecord(), {{22, "1 2"}}, "Varius flags"},
        {ShortRecord(), {{23, "65536"}}, "Loggin Policy ID"},
        {ShortRecord(), {{24, "65536"}}, "Payload data index"},
        {ShortRecord(), {{25, "GET"}}, "Payload"},
        {ShortRecord(), {{26, "0x0x"}}, "Note2"},
        {LongRecord(), {{29, "notepad.exe"}}, "Process Name"},
        {ShortRecord(), {{27, "4294967296"}}, "Repeat Count"},
        {LongRecord(), {{34, "18446744073709551616"}}, "Last Seen Time"},
        {ShortRecord(), {{29, ""}}, "First Seen Time"},
        // Checking stops at the first bad field.
        {ShortRecord(), {{2, "x"}, {9, "x"}, {29, "x"}}, "Direction"},
        {LongRecord(), {{26, "x"}, {29, "x"}}, "Note2"},
    };
    for (const auto& c : cases) {
        Fields fields = c.record;
        for (const auto& edit : c.edits)
            fields[edit.first - 1] = edit.second;
        EXPECT_EQ(verifyLog(fields), c.failing.empty()) << Join(fields);
        Lines expected;
        if (!c.failing.empty())
            expected.push_back("E verifyLog - '" + c.failing + "' invalid format");
        EXPECT_EQ(Logged(), expected) << Join(fields);
    }
    // Only the short and the long form are records.
    for (size_t count : {0, 1, 28, 30, 34, 36}) {
        Fields fields = LongRecord();
        fields.resize(count, "0");
        EXPECT_FALSE(verifyLog(fields)) << count;
        EXPECT_EQ(Logged(), Lines{"E verifyLog - Invalid format"}) << count;
    }
}

class ParseLogTest : public SimulatedInstallTest {
  protected:
    static std::wstring Write(const std::string& content) {
        EXPECT_TRUE(WriteFileBytes(kFile, content));
        return kFile;
    }

    // One call with the host's buffers pre-filled, so untouched ones show.
    struct Call {
        uint32_t result = 0;
        std::wstring type; // the whole buffer, up to its first NUL
        std::string data;  // "(none)" when no pointer came back
        uint32_t dataSize = 0xA5A5A5A5;
    };
    static Call Parse(const std::wstring& path, uint32_t typeSize = 64) {
        std::vector<wchar_t> type(65, L'#');
        type.back() = L'\0';
        char* data = nullptr;
        Call call;
        call.result = zephExt_ParseLog(path.c_str(), typeSize, type.data(), &data, &call.dataSize);
        call.type = type.data();
        call.data = data ? std::string(data, call.dataSize) : "(none)";
        if (data) {
            EXPECT_EQ(zephExt_Free(data), 0u);
        }
        return call;
    }
    static std::wstring Untouched() { return std::wstring(64, L'#'); }

    static inline const std::wstring kFile =
        std::wstring(SimulatedInstall::kFolder) + L"detection.log";
};

TEST_F(ParseLogTest, AValidFirstLineIsReturnedAndTheFileKept) {
    ASSERT_TRUE(IsValidLoader());
    Logged();
    const std::string shortLine = kShortRecord;
    const std::string longLine = LongDetectionRecord();
    const std::pair<std::string, std::string> cases[] = {
        {shortLine + "\r\nnot a record\n", shortLine},
        {longLine, longLine},
        {longLine + "\n\n", longLine},
    };
    for (const auto& [content, line] : cases) {
        Call call = Parse(Write(content));
        EXPECT_EQ(call.result, RESULT_SUCCESS);
        EXPECT_EQ(call.type, L"ZEPH_IPRODUCT_DETECTION_LOG");
        EXPECT_EQ(call.data, line + '\0');
        EXPECT_EQ(call.dataSize, line.size() + 1);
        EXPECT_TRUE(PathExists(kFile));
        EXPECT_EQ(Logged(), Lines{});
    }
    // The type name is cut to the host's buffer and terminated; no buffer, no name.
    const std::pair<uint32_t, std::wstring> sizes[] = {{28, L"ZEPH_IPRODUCT_DETECTION_LOG"},
                                                       {27, L"ZEPH_IPRODUCT_DETECTION_LO"},
                                                       {5, L"ZEPH"},
                                                       {1, L""},
                                                       {0, Untouched()}};
    for (const auto& [size, type] : sizes) {
        Call call = Parse(kFile, size);
        EXPECT_EQ(call.result, RESULT_SUCCESS) << size;
        EXPECT_EQ(call.type, type) << size;
    }
}

// Whatever fails, the host's buffers stay untouched.
TEST_F(ParseLogTest, FailuresAnswerTheirCodeAndDeleteOnlyWhatIsInvalid) {
    Fields badProtocol = ShortRecord();
    badProtocol[7] = "256";
    const std::string invalid = "E zephExt_ParseLog - Invalid detection log.\n";
    const uint32_t kFailed = RESULT_PARSELOG_FAILED, kInvalid = RESULT_PARSELOG_INVALID;
    const struct {
        const char* name;
        std::string content; // "(none)": no such file
        bool unbound;        // the host's install path is gone
        uint32_t result;
        bool kept;
        std::string logged;
    } cases[] = {
        // The binding's refusal, then nothing from the export.
        {"no host", "", true, kFailed, true, Text(UnboundLog(""))},
        {"empty", "", false, kInvalid, false, "E zephExt_ParseLog - Empty file\n"},
        {"empty first line", "\n" + std::string(kShortRecord), false, kInvalid, false,
         "E verifyLog - Invalid format\n" + invalid},
        {"28 fields", Join(Fields(28, "0")) + "\n", false, kInvalid, false,
         "E verifyLog - Invalid format\n" + invalid},
        {"bad protocol", Join(badProtocol), false, kInvalid, false,
         "E verifyLog - 'Protocol' invalid format\n" + invalid},
        {"missing", "(none)", false, kFailed, false,
         "E zephExt_ParseLog - Can't open the file: " + Narrow(kFile) + "\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        if (c.unbound) {
            SimulatedInstall::RemoveApplicationPath();
        } else {
            ASSERT_TRUE(SimulatedInstall::SetApplicationPath(SimulatedInstall::kFolder));
            ASSERT_TRUE(IsValidLoader());
        }
        Logged();
        DeleteFileW(kFile.c_str());
        if (c.content != "(none)")
            Write(c.content);
        Call call = Parse(kFile);
        EXPECT_EQ(call.result, c.result);
        EXPECT_EQ(call.type, Untouched());
        EXPECT_EQ(call.data, "(none)");
        EXPECT_EQ(call.dataSize, 0xA5A5A5A5u);
        EXPECT_EQ(PathExists(kFile), c.kept);
        EXPECT_EQ(Text(Logged()), c.logged);
    }

    // Another reader that does not share deletion: the failure is logged, the result stands.
    ScopedFile reader(CreateFileW(Write("").c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                  OPEN_EXISTING, 0, nullptr));
    ASSERT_TRUE(reader.IsValid());
    EXPECT_EQ(Parse(kFile).result, RESULT_PARSELOG_INVALID);
    EXPECT_TRUE(PathExists(kFile));
    EXPECT_EQ(Logged(), (Lines{"E zephExt_ParseLog - Empty file",
                               "E zephExt_ParseLog - _wremove error: 32"}));
}

// The real DLL in zephhost.exe: the copy goes back through zephExt_Free.
TEST_F(ParseLogTest, TheHostGetsTheRecordThroughTheDll) {
    const std::string line = kShortRecord;
    ProcessResult result = RunHost({L"parselog", Write(line + "\r\n"), L"10"});
    EXPECT_EQ(result.output, "zephExt_ParseLog -> 0\ntype: ZEPH_IPRO\ndata(" +
                                 std::to_string(line.size() + 1) + "): " + line +
                                 "\nzephExt_Free -> 0\n");
    EXPECT_TRUE(PathExists(kFile));
}

} // namespace
