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

    ScopedRegKey m_key;
};

TEST_F(RegistryTest, KeyNamesSplitIntoRootRowAndSubkey) {
    const std::pair<std::wstring, std::wstring> cases[] = {
        {L"hklm\\SOFTWARE\\X", L"2 SOFTWARE\\X"},
        {L"HKEY_LOCAL_MACHINE\\SOFTWARE\\X", L"2 SOFTWARE\\X"},
        {L"HKCR\\.txt", L"0 .txt"},
        {L"HKEY_CURRENT_USER\\Software", L"1 Software"},
        {L"hku\\.DEFAULT", L"3 .DEFAULT"},
        {L"HKPD\\a", L"4 a"},
        {L"HKEY_CURRENT_CONFIG\\a", L"5 a"},
        {L"HKDD\\a", L"6 a"},
        {L"HKLM\\SOFTWARE\\X\\", L"2 SOFTWARE\\X\\"}, // the trailing backslash stays
        {L"HKLM\\", L"2 "},
        // An unknown prefix falls back to row 0 with the text unchanged.
        {L"HKLMX\\SOFTWARE", L"0 HKLMX\\SOFTWARE"},
        {L"HKLM", L"0 HKLM"},
        {L"\\SOFTWARE", L"0 \\SOFTWARE"},
    };
    for (const auto& [given, split] : cases) {
        std::wstring key = given;
        int row = utilRegKey::ExtractKeyName(key);
        EXPECT_EQ(std::to_wstring(row) + L" " + key, split);
    }
    EXPECT_EQ(
        Logged(),
        (Lines{"E utilRegKey::ExtractKeyName - Invalid key prefix: root(HKLMX), "
               "key(HKLMX\\SOFTWARE)\n",
               "E utilRegKey::ExtractKeyName - Invalid key prefix: root(), key(HKLM)\n",
               "E utilRegKey::ExtractKeyName - Invalid key prefix: root(), key(\\SOFTWARE)\n"}));
    // The display name uses the short root name; an empty subkey never exists.
    EXPECT_EQ(utilRegKey(L"HKLMX\\SOFTWARE", 0).GetStdKeyFromHkey(), L"HKCR\\HKLMX\\SOFTWARE");
    EXPECT_EQ(utilRegKey(L"HKEY_USERS\\.DEFAULT\\x", 0).GetStdKeyFromHkey(), L"HKU\\.DEFAULT\\x");
    utilRegKey rootOnly(L"HKEY_LOCAL_MACHINE\\", 0);
    EXPECT_EQ(rootOnly.GetStdKeyFromHkey(), L"HKLM");
    EXPECT_FALSE(rootOnly.Exists());
    Logged();

    // An unknown view reads the process's own.
    EXPECT_EQ(utilRegKey::GetMSWViewFlags(true, 3), 0xF003Fu);
    EXPECT_EQ(Logged(), Lines{"E utilRegKey::GetMSWViewFlags - Unknown registry view.\n"});
}

TEST_F(RegistryTest, ValuesComeBackAsStoredOrExpandedWhateverTheirType) {
    utilRegKey key(kFullKey, 0);
    EXPECT_TRUE(key.Exists());
    EXPECT_TRUE(key.SetValue(L"Name", L"C:\\Corvale\\"));
    EXPECT_TRUE(key.SetValue(L"", L"default text"));
    const std::wstring unexpanded = L"%SystemRoot%\\x";
    Put(L"Expand", REG_EXPAND_SZ, unexpanded.c_str(),
        static_cast<DWORD>((unexpanded.size() + 1) * sizeof(wchar_t)));
    Put(L"Empty", REG_SZ, nullptr, 0);
    wchar_t expanded[MAX_PATH];
    ExpandEnvironmentStringsW(unexpanded.c_str(), expanded, MAX_PATH);

    const std::pair<const wchar_t*, std::wstring> cases[] = {{L"Name", L"C:\\Corvale\\"},
                                                             {L"", L"default text"},
                                                             {L"Expand", expanded},
                                                             {L"Empty", L""}};
    for (const auto& [name, expected] : cases) {
        std::wstring text = L"stale";
        EXPECT_TRUE(key.QueryValue(name, text));
        EXPECT_EQ(text, expected);
    }
    EXPECT_EQ(key.LastError(), ERROR_SUCCESS);
    EXPECT_EQ(Logged(), Lines{});
    DWORD size = 0; // the terminator was written with the text
    RegQueryValueExW(m_key.Get(), L"Name", nullptr, nullptr, nullptr, &size);
    EXPECT_EQ(size, 24u);

    // A type mismatch is logged, but the value stands.
    DWORD number = 0x00420041; // reads as the two characters "AB"
    Put(L"Number", REG_DWORD, &number, sizeof(number));
    Put(L"Short", REG_SZ, L"a", 4);      // 4 bytes with its terminator
    Put(L"Long", REG_SZ, L"abcdef", 14); // too long for a number
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

    // After a write open, a read reuses the write handle, even for a key now gone.
    utilRegKey writer(kFullKey, 0);
    ASSERT_TRUE(writer.Open(utilRegKey::ACCESS_WRITE));
    m_key.Reset();
    ASSERT_EQ(RegDeleteTreeW(HKEY_LOCAL_MACHINE, kTestKey), ERROR_SUCCESS);
    EXPECT_TRUE(writer.Open(utilRegKey::ACCESS_READ));
    EXPECT_TRUE(writer.Exists());
    EXPECT_TRUE(writer.Close());
    EXPECT_FALSE(writer.Exists());
}

TEST_F(RegistryTest, MissingKeysAndValuesAreReportedWithTheirNames) {
    utilRegKey missing(kFullKey + L"\\Missing", 0);
    EXPECT_FALSE(missing.Exists());
    EXPECT_EQ(Logged(), Lines{});
    std::wstring text;
    uint32_t number = 1;
    EXPECT_FALSE(missing.QueryValue(L"Value", text));
    EXPECT_FALSE(missing.SetValue(L"Text", L"x"));
    EXPECT_FALSE(missing.SetDWordValue(L"", &number));
    const std::string shown = kShownKey + "\\Missing";
    const std::string openFailed =
        "E utilRegKey::Open - Can't open registry key '" + shown + "', err=2\n";
    EXPECT_EQ(
        Logged(),
        (Lines{openFailed,
               "E utilRegKey::QueryValue - Can't read value of '" + shown + "\\Value', err=2\n",
               openFailed,
               "E utilRegKey::SetValue - Can't set value of '" + shown + "\\Text', err=2\n\n",
               openFailed,
               "E utilRegKey::SetDWordValue - Can't set value of '" + shown + "', err=2\n\n"}));

    utilRegKey key(kFullKey, 0);
    EXPECT_FALSE(key.QueryValue(L"Absent", text));
    EXPECT_FALSE(key.GetValueType(L"Absent"));
    EXPECT_FALSE(key.QueryValue(L"Absent", number));
    EXPECT_EQ(
        Logged(),
        (Lines{"E utilRegKey::QueryValue - Can't read value of '" + kShownKey +
                   "\\Absent', err=2\n",
               "E utilRegKey::GetValueType - Can't read value of key '" + kShownKey + "', err=2\n",
               "E utilRegKey::QueryValue - Can't read value of key '" + kShownKey + "', err=2\n"}));
}

TEST_F(RegistryTest, SetValueWithCreateMakesAMissingKeyUnderLocalMachine) {
    uint32_t number = 5;
    utilRegKey existing(kFullKey, 0);
    EXPECT_TRUE(existing.SetValueWithCreate(L"ServiceStatus", &number));
    const std::string written = "I utilRegKey::SetValueWithCreate - SetValueWithCreate registry ";
    EXPECT_EQ(Logged(), Lines{written + kShownKey + "\\ServiceStatus success."});

    utilRegKey created(kFullKey + L"\\Created", 0);
    EXPECT_TRUE(created.SetValueWithCreate(L"ServiceStatus", &number));
    DWORD stored = 0;
    DWORD size = sizeof(stored);
    EXPECT_EQ(RegGetValueW(m_key.Get(), L"Created", L"ServiceStatus", RRF_RT_REG_DWORD, nullptr,
                           &stored, &size),
              ERROR_SUCCESS);
    EXPECT_EQ(stored, 5u);
    const std::string notFound = "I utilRegKey::SetValueWithCreate - Cannot find registry ";
    EXPECT_EQ(Logged(), (Lines{notFound + kShownKey + "\\Created",
                               written + kShownKey + "\\Created\\ServiceStatus success."}));

    // Whatever root the object names, creation happens under HKEY_LOCAL_MACHINE,
    // while the value itself goes to the object's own root.
    RegDeleteTreeW(m_key.Get(), L"Created");
    utilRegKey elsewhere(std::wstring(L"HKCU\\") + kTestKey + L"\\Created", 0);
    EXPECT_FALSE(elsewhere.SetValueWithCreate(L"ServiceStatus", &number));
    EXPECT_TRUE(utilRegKey(kFullKey + L"\\Created", 0).Exists());
    const std::string shown = "HKCU\\SOFTWARE\\ZephTestBed\\RegistryTests\\Created";
    Lines logged = Logged();
    ASSERT_EQ(logged.size(), 4u);
    EXPECT_EQ(logged[0], notFound + shown);
    EXPECT_EQ(logged[1], "E utilRegKey::Open - Can't open registry key '" + shown + "', err=2\n");
    EXPECT_EQ(logged[2], "E utilRegKey::SetDWordValue - Can't set value of '" + shown +
                             "\\ServiceStatus', err=2\n\n");
    EXPECT_EQ(logged[3].rfind("E utilRegKey::SetValueWithCreate - SetValue Fail Error(", 0), 0u)
        << logged[3];

    // A key the registry cannot make (a name longer than 255 characters) answers false.
    const std::wstring tooLong = kFullKey + L"\\" + std::wstring(300, L'k');
    EXPECT_FALSE(utilRegKey(tooLong, 0).SetValueWithCreate(L"ServiceStatus", &number));
    logged = Logged();
    ASSERT_EQ(logged.size(), 2u);
    EXPECT_EQ(logged[1].rfind("E utilRegKey::SetValueWithCreate - CreateKey Fail Error(", 0), 0u)
        << logged[1];
}

} // namespace
