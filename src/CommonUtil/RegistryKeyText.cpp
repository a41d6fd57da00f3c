#include "RegistryKeyText.h"

#include <cwctype>

const wchar_t* const kRegistryRootNames[kRegistryRootCount][2] = {
    {L"HKEY_CLASSES_ROOT", L"HKCR"},     {L"HKEY_CURRENT_USER", L"HKCU"},
    {L"HKEY_LOCAL_MACHINE", L"HKLM"},    {L"HKEY_USERS", L"HKU"},
    {L"HKEY_PERFORMANCE_DATA", L"HKPD"}, {L"HKEY_CURRENT_CONFIG", L"HKCC"},
    {L"HKEY_DYN_DATA", L"HKDD"},
};

int SplitRegistryKeyText(std::wstring& key, std::wstring& prefix) {
    size_t backslash = key.find(L'\\');
    prefix.clear();
    if (backslash == std::wstring::npos)
        return -1;
    prefix = key.substr(0, backslash);
    for (wchar_t& c : prefix)
        c = static_cast<wchar_t>(towupper(c));
    for (int row = 0; row < kRegistryRootCount; ++row) {
        if (!prefix.empty() &&
            (prefix == kRegistryRootNames[row][0] || prefix == kRegistryRootNames[row][1])) {
            // A trailing backslash stays in the subkey: the key is used as written.
            key.erase(0, backslash + 1);
            return row;
        }
    }
    return -1;
}
