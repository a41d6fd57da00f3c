#pragma once
// Where the host library double (zephAgent_64x.dll) takes its behaviour from
// and writes its journal, and the few HKEY_LOCAL_MACHINE helpers that the
// double and SimulatedInstall share.
#include <windows.h>

#include <string>

inline constexpr wchar_t kTestBedKey[] = L"SOFTWARE\\ZephTestBed";
inline constexpr wchar_t kHostBehaviourKey[] = L"SOFTWARE\\ZephTestBed\\HostLibrary";

inline constexpr wchar_t kLoaderVerdictValue[] = L"LoaderVerdict";           // REG_DWORD
inline constexpr wchar_t kSystemCallStatusValue[] = L"SystemCallStatus";     // REG_DWORD
inline constexpr wchar_t kSystemCallResponseValue[] = L"SystemCallResponse"; // REG_SZ
inline constexpr wchar_t kJournalValue[] = L"Journal";                       // REG_SZ path

inline constexpr wchar_t kDefaultJournal[] = L"C:\\ZephTestBed\\zephAgent_journal.txt";
inline constexpr char kDefaultSystemCallResponse[] =
    "{\"system_call_result\":{\"system_call_error\":0}}";

namespace TestBedRegistry {

// Each answers false and leaves `value` untouched when the value is absent.
bool ReadDword(const wchar_t* key, const wchar_t* name, DWORD& value);
bool ReadText(const wchar_t* key, const wchar_t* name, std::wstring& value);

// `view`: KEY_WOW64_32KEY or KEY_WOW64_64KEY for a key of that registry view.
bool WriteDword(const wchar_t* key, const wchar_t* name, DWORD value, REGSAM view = 0);
// `type` is REG_SZ or REG_EXPAND_SZ.
bool WriteText(const wchar_t* key, const wchar_t* name, const std::wstring& value,
               DWORD type = REG_SZ);
void DeleteValue(const wchar_t* key, const wchar_t* name);
void DeleteTree(const wchar_t* key);

} // namespace TestBedRegistry

// Creates every missing folder on the way to `folder` (a drive-letter path).
bool CreateFolderTree(const std::wstring& folder);

// The journal file of the host library double: the Journal value or the default.
std::wstring HostJournalPath();

// UTF-8 <-> UTF-16.
std::wstring Widen(const std::string& text);
std::string Narrow(const std::wstring& text);
