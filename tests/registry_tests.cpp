#include "LogCapture.h"
#include "ScopedHandle.h"
#include "UtilRegistry.h"

namespace {

const wchar_t kTestKey[] = L"SOFTWARE\\ZephTestBed\\RegistryTests";
const std::wstring kFullKey = std::wstring(L"HKEY_LOCAL_MACHINE\\") + kTestKey;
const std::string kShownKey = "HKLM\\SOFTWARE\\ZephTestBed\\RegistryTests";

class RegistryTest : public LogCaptureTest {
  protected:
    void SetUp() override {
        LogCaptureTest::SetUp();
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, kTestKey);
        HKEY key = nullptr;
        ASSERT_EQ(RegCreateKeyExW(HKEY_LOCAL_MACHINE, kTestKey, 0, nullptr, 0, KEY_ALL_ACCESS,
                                  nullptr, &key, nullptr),
                  ERROR_SUCCESS);
        m_key.Reset(key);
    }
    void TearDown() override {
        m_key.Reset();
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, kTestKey);
    }

    void Put(const wchar_t* name, DWORD type, const void* data, DWORD size) {
        ASSERT_EQ(RegSetValueExW(m_key.Get(), name, 0, type, static_cast<const BYTE*>(data), size),
                  ERROR_SUCCESS);
    }
    void PutText(const wchar_t* name, const std::wstring& text, DWORD type = REG_SZ) {
        Put(name, type, text.c_str(), static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)));
    }

    ScopedRegKey m_key;
};

TEST_F(RegistryTest, KeyNamesSplitIntoRootRowAndSubkey) {
    struct Case {
        std::wstring key;
        int row;
        std::wstring subKey;
    } cases[] = {
        {L"hklm\\SOFTWARE\\X", 2, L"SOFTWARE\\X"},
        {L"HKEY_LOCAL_MACHINE\\SOFTWARE\\X", 2, L"SOFTWARE\\X"},
        {L"HKCR\\.txt", 0, L".txt"},
        {L"HKEY_CURRENT_USER\\Software", 1, L"Software"},
        {L"hku\\.DEFAULT", 3, L".DEFAULT"},
        {L"HKPD\\a", 4, L"a"},
        {L"HKEY_CURRENT_CONFIG\\a", 5, L"a"},
        {L"HKDD\\a", 6, L"a"},
        {L"HKLM\\SOFTWARE\\X\\", 2, L"SOFTWARE\\X\\"}, // the trailing backslash stays
        {L"HKLM\\", 2, L""},
    };
    for (const Case& c : cases) {
        std::wstring key = c.key;
        EXPECT_EQ(utilRegKey::ExtractKeyName(key), c.row) << Narrow(c.key);
        EXPECT_EQ(key, c.subKey);
    }
    EXPECT_EQ(Logged(), Lines{});
}

TEST_F(RegistryTest, UnknownPrefixFallsBackToRowZeroWithTheTextUnchanged) {
    for (std::wstring key : {L"HKLMX\\SOFTWARE", L"HKLM", L"\\SOFTWARE"}) {
        std::wstring original = key;
        EXPECT_EQ(utilRegKey::ExtractKeyName(key), 0);
        EXPECT_EQ(key, original);
    }
    EXPECT_EQ(
        Logged(),
        (Lines{"E utilRegKey::ExtractKeyName - Invalid key prefix: root(HKLMX), "
               "key(HKLMX\\SOFTWARE)\n",
               "E utilRegKey::ExtractKeyName - Invalid key prefix: root(), key(HKLM)\n",
               "E utilRegKey::ExtractKeyName - Invalid key prefix: root(), key(\\SOFTWARE)\n"}));
    utilRegKey fallback(L"HKLMX\\SOFTWARE", 0);
    EXPECT_EQ(fallback.Root(), HKEY_CLASSES_ROOT);
    EXPECT_EQ(fallback.GetStdKeyFromHkey(), L"HKCR\\HKLMX\\SOFTWARE");
}

TEST_F(RegistryTest, ViewsSelectTheAccessMask) {
    EXPECT_EQ(utilRegKey::GetMSWViewFlags(false, 0), 0x20019u);
    EXPECT_EQ(utilRegKey::GetMSWViewFlags(true, 1), 0xF003Fu);
    EXPECT_EQ(utilRegKey::GetMSWViewFlags(false, 2), 0x20119u);
    EXPECT_EQ(utilRegKey::GetMSWViewFlags(true, 2), 0xF013Fu);
    EXPECT_EQ(Logged(), Lines{});
    EXPECT_EQ(utilRegKey::GetMSWViewFlags(true, 3), 0xF003Fu);
    EXPECT_EQ(Logged(), Lines{"E utilRegKey::GetMSWViewFlags - Unknown registry view.\n"});
}

TEST_F(RegistryTest, TextValuesRoundTripIncludingTheDefaultValue) {
    utilRegKey key(kFullKey, 0);
    EXPECT_TRUE(key.Exists());
    EXPECT_TRUE(key.SetValue(L"Name", L"C:\\Corvale\\"));
    EXPECT_TRUE(key.SetValue(L"", L"default text"));
    std::wstring text;
    EXPECT_TRUE(key.QueryValue(L"Name", text));
    EXPECT_EQ(text, L"C:\\Corvale\\");
    EXPECT_TRUE(key.QueryValue(L"", text));
    EXPECT_EQ(text, L"default text");
    EXPECT_EQ(key.LastError(), ERROR_SUCCESS);
    EXPECT_EQ(Logged(), Lines{});

    // The terminator was written with the text.
    DWORD size = 0;
    RegQueryValueExW(m_key.Get(), L"Name", nullptr, nullptr, nullptr, &size);
    EXPECT_EQ(size, 24u);
}

TEST_F(RegistryTest, ExpandableTextComesBackExpandedAndEmptyValueReadsEmpty) {
    PutText(L"Expand", L"%SystemRoot%\\x", REG_EXPAND_SZ);
    Put(L"Empty", REG_SZ, nullptr, 0);
    wchar_t expected[MAX_PATH];
    ExpandEnvironmentStringsW(L"%SystemRoot%\\x", expected, MAX_PATH);

    utilRegKey key(kFullKey, 0);
    std::wstring text = L"stale";
    EXPECT_TRUE(key.QueryValue(L"Expand", text));
    EXPECT_EQ(text, expected);
    EXPECT_EQ(text.find(L'%'), std::wstring::npos);
    EXPECT_TRUE(key.QueryValue(L"Empty", text));
    EXPECT_EQ(text, L"");
    EXPECT_EQ(Logged(), Lines{});
}

TEST_F(RegistryTest, TypeMismatchesAreLoggedButTheValueStands) {
    DWORD number = 0x00420041; // reads as the two characters "AB"
    Put(L"Number", REG_DWORD, &number, sizeof(number));
    PutText(L"Short", L"a");     // 4 bytes with its terminator
    PutText(L"Long", L"abcdef"); // too long for a number

    utilRegKey key(kFullKey, 0);
    std::wstring text;
    EXPECT_TRUE(key.QueryValue(L"Number", text));
    EXPECT_EQ(text, L"AB");
    uint32_t value = 7;
    EXPECT_TRUE(key.QueryValue(L"Short", value));
    EXPECT_EQ(value, static_cast<uint32_t>(L'a'));
    EXPECT_TRUE(key.QueryValue(L"Number", value));
    EXPECT_EQ(value, number);
    value = 7;
    EXPECT_FALSE(key.QueryValue(L"Long", value));
    EXPECT_EQ(value, 7u);
    EXPECT_EQ(key.LastError(), ERROR_MORE_DATA);
    EXPECT_EQ(Logged(),
              (Lines{"E utilRegKey::QueryValue - Type mismatch in utilRegKey::QueryValue().\n",
                     "E utilRegKey::QueryValue - Type mismatch in utilRegKey::QueryValue().\n",
                     "E utilRegKey::QueryValue - Can't read value of key '" + kShownKey +
                         "', err=234\n"}));
}

TEST_F(RegistryTest, MissingKeysAndValuesAreReportedWithTheirNames) {
    utilRegKey missing(kFullKey + L"\\Missing", 0);
    EXPECT_FALSE(missing.Exists());
    EXPECT_EQ(Logged(), Lines{});
    std::wstring text;
    EXPECT_FALSE(missing.QueryValue(L"Value", text));
    EXPECT_EQ(Logged(), (Lines{"E utilRegKey::Open - Can't open registry key '" + kShownKey +
                                   "\\Missing', err=2\n",
                               "E utilRegKey::QueryValue - Can't read value of '" + kShownKey +
                                   "\\Missing\\Value', err=2\n"}));

    utilRegKey key(kFullKey, 0);
    EXPECT_FALSE(key.QueryValue(L"Absent", text));
    EXPECT_FALSE(key.GetValueType(L"Absent"));
    uint32_t number = 0;
    EXPECT_FALSE(key.QueryValue(L"Absent", number));
    EXPECT_EQ(
        Logged(),
        (Lines{"E utilRegKey::QueryValue - Can't read value of '" + kShownKey +
                   "\\Absent', err=2\n",
               "E utilRegKey::GetValueType - Can't read value of key '" + kShownKey + "', err=2\n",
               "E utilRegKey::QueryValue - Can't read value of key '" + kShownKey + "', err=2\n"}));
}

TEST_F(RegistryTest, WritesToAMissingKeyFailWithTheValueName) {
    utilRegKey missing(kFullKey + L"\\Missing", 0);
    uint32_t number = 1;
    EXPECT_FALSE(missing.SetValue(L"Text", L"x"));
    EXPECT_FALSE(missing.SetDWordValue(L"", &number));
    std::string shown = kShownKey + "\\Missing";
    EXPECT_EQ(
        Logged(),
        (Lines{"E utilRegKey::Open - Can't open registry key '" + shown + "', err=2\n",
               "E utilRegKey::SetValue - Can't set value of '" + shown + "\\Text', err=2\n\n",
               "E utilRegKey::Open - Can't open registry key '" + shown + "', err=2\n",
               "E utilRegKey::SetDWordValue - Can't set value of '" + shown + "', err=2\n\n"}));
}

TEST_F(RegistryTest, SetValueWithCreateMakesTheKeyUnderLocalMachine) {
    uint32_t number = 5;
    // Whatever root the object names, creation happens under HKEY_LOCAL_MACHINE,
    // while the value itself goes to the object's own root.
    utilRegKey key(std::wstring(L"HKCU\\") + kTestKey + L"\\Created", 0);
    EXPECT_FALSE(key.SetValueWithCreate(L"ServiceStatus", &number));

    ScopedRegKey created;
    HKEY raw = nullptr;
    EXPECT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, (std::wstring(kTestKey) + L"\\Created").c_str(), 0,
                            KEY_READ, &raw),
              ERROR_SUCCESS);
    created.Reset(raw);
    std::string shown = "HKCU\\SOFTWARE\\ZephTestBed\\RegistryTests\\Created";
    Lines logged = Logged();
    ASSERT_EQ(logged.size(), 4u);
    EXPECT_EQ(logged[0], "I utilRegKey::SetValueWithCreate - Cannot find registry " + shown);
    EXPECT_EQ(logged[1], "E utilRegKey::Open - Can't open registry key '" + shown + "', err=2\n");
    EXPECT_EQ(logged[2], "E utilRegKey::SetDWordValue - Can't set value of '" + shown +
                             "\\ServiceStatus', err=2\n\n");
    EXPECT_EQ(logged[3].rfind("E utilRegKey::SetValueWithCreate - SetValue Fail Error(", 0), 0u)
        << logged[3];
}

TEST_F(RegistryTest, SetValueWithCreateCreatesAMissingKeyAndWrites) {
    uint32_t number = 5;
    utilRegKey key(kFullKey + L"\\Created", 0);
    EXPECT_TRUE(key.SetValueWithCreate(L"ServiceStatus", &number));
    DWORD stored = 0;
    DWORD size = sizeof(stored);
    EXPECT_EQ(RegGetValueW(HKEY_LOCAL_MACHINE, (std::wstring(kTestKey) + L"\\Created").c_str(),
                           L"ServiceStatus", RRF_RT_REG_DWORD, nullptr, &stored, &size),
              ERROR_SUCCESS);
    EXPECT_EQ(stored, 5u);
    std::string shown = kShownKey + "\\Created";
    EXPECT_EQ(Logged(), (Lines{"I utilRegKey::SetValueWithCreate - Cannot find registry " + shown,
                               "I utilRegKey::SetValueWithCreate - SetValueWithCreate registry " +
                                   shown + "\\ServiceStatus success."}));
}

TEST_F(RegistryTest, SetValueWithCreateOnAnExistingKeyOnlyWrites) {
    uint32_t number = 0;
    utilRegKey key(kFullKey, 0);
    EXPECT_TRUE(key.SetValueWithCreate(L"ServiceStatus", &number));
    EXPECT_TRUE(key.GetValueType(L"ServiceStatus"));
    EXPECT_EQ(Logged(), Lines{"I utilRegKey::SetValueWithCreate - SetValueWithCreate registry " +
                              kShownKey + "\\ServiceStatus success."});
}

TEST_F(RegistryTest, ReadingAfterAWriteOpenReusesTheWriteHandle) {
    utilRegKey key(kFullKey, 0);
    ASSERT_TRUE(key.Open(utilRegKey::ACCESS_WRITE));
    m_key.Reset();
    ASSERT_EQ(RegDeleteTreeW(HKEY_LOCAL_MACHINE, kTestKey), ERROR_SUCCESS);
    // A fresh open would now fail; the open write handle satisfies the read.
    EXPECT_TRUE(key.Open(utilRegKey::ACCESS_READ));
    EXPECT_TRUE(key.Exists());
    EXPECT_TRUE(key.Close());
    EXPECT_FALSE(key.Exists());
}

TEST_F(RegistryTest, DisplayNameUsesTheShortRootName) {
    EXPECT_EQ(utilRegKey(L"HKEY_USERS\\.DEFAULT\\x", 0).GetStdKeyFromHkey(), L"HKU\\.DEFAULT\\x");
    utilRegKey rootOnly(L"HKEY_LOCAL_MACHINE\\", 0);
    EXPECT_EQ(rootOnly.GetStdKeyFromHkey(), L"HKLM");
    EXPECT_FALSE(rootOnly.Exists()); // an empty subkey never exists
}

} // namespace
