#include "UtilRegistry.h"

#include "DebugLog.h"
#include "RegistryKeyText.h"

namespace {

// In the rows of kRegistryRootNames.
const HKEY kRoots[kRegistryRootCount] = {
    HKEY_CLASSES_ROOT,     HKEY_CURRENT_USER,   HKEY_LOCAL_MACHINE, HKEY_USERS,
    HKEY_PERFORMANCE_DATA, HKEY_CURRENT_CONFIG, HKEY_DYN_DATA,
};

// The registry takes an empty value name as the key's default value only as null.
const wchar_t* RegistryName(const std::wstring& valueName) {
    return valueName.empty() ? nullptr : valueName.c_str();
}

} // namespace

utilRegKey::utilRegKey(const std::wstring& fullKeyName, uint32_t view)
    : m_subKey(fullKeyName), m_view(view) {
    m_root = kRoots[ExtractKeyName(m_subKey)];
}

utilRegKey::~utilRegKey() {
    Close();
}

int utilRegKey::ExtractKeyName(std::wstring& key) {
    std::wstring prefix;
    int row = SplitRegistryKeyText(key, prefix);
    if (row >= 0)
        return row;
    LOGW(LOG_ERROR, L"%s - Invalid key prefix: root(%s), key(%s)\n", L"utilRegKey::ExtractKeyName",
         prefix.c_str(), key.c_str());
    return 0;
}

REGSAM utilRegKey::GetMSWViewFlags(bool write, uint32_t view) {
    REGSAM access = write ? KEY_ALL_ACCESS : KEY_READ;
    switch (view) {
    case VIEW_DEFAULT:
    case VIEW_DEFAULT_ALT:
        return access;
    case VIEW_64:
        return access | KEY_WOW64_64KEY;
    default:
        LOGW(LOG_ERROR, L"%s - Unknown registry view.\n", L"utilRegKey::GetMSWViewFlags");
        return access;
    }
}

bool utilRegKey::Exists() {
    if (m_openKey)
        return true;
    if (m_subKey.empty())
        return false;
    HKEY probe = nullptr;
    m_lastError =
        RegOpenKeyExW(m_root, m_subKey.c_str(), 0, GetMSWViewFlags(false, m_view), &probe);
    if (m_lastError != ERROR_SUCCESS)
        return false;
    RegCloseKey(probe);
    return true;
}

bool utilRegKey::Open(int access) {
    if (m_openKey && access <= m_openAccess)
        return true;
    if (m_openKey)
        Close();
    HKEY key = nullptr;
    m_lastError = RegOpenKeyExW(m_root, m_subKey.c_str(), 0,
                                GetMSWViewFlags(access == ACCESS_WRITE, m_view), &key);
    if (m_lastError != ERROR_SUCCESS) {
        LOGW(LOG_ERROR, L"%s - Can't open registry key '%s', err=%d\n", L"utilRegKey::Open",
             GetStdKeyFromHkey().c_str(), static_cast<int>(m_lastError));
        return false;
    }
    m_openKey = key;
    m_openAccess = access;
    return true;
}

bool utilRegKey::Close() {
    if (!m_openKey)
        return true;
    m_lastError = RegCloseKey(m_openKey);
    m_openKey = nullptr;
    if (m_lastError != ERROR_SUCCESS) {
        LOGW(LOG_ERROR, L"%s - Can't close registry key '%s', err=%d\n", L"utilRegKey::Close",
             GetStdKeyFromHkey().c_str(), static_cast<int>(m_lastError));
        return false;
    }
    return true;
}

std::wstring utilRegKey::GetStdKeyFromHkey() const {
    int row = 0;
    while (row < kRegistryRootCount && kRoots[row] != m_root)
        ++row;
    if (row == kRegistryRootCount) {
        LOGW(LOG_ERROR, L"%s - non root hkey passed to utilRegKey::GetStdKeyFromHkey.\n",
             L"utilRegKey::GetStdKeyFromHkey");
        row = 0;
    }
    std::wstring name = kRegistryRootNames[row][1];
    if (!m_subKey.empty())
        name += L"\\" + m_subKey;
    return name;
}

bool utilRegKey::GetValueType(const std::wstring& valueName) {
    if (!Open(ACCESS_READ))
        return false;
    DWORD type = REG_NONE;
    m_lastError =
        RegQueryValueExW(m_openKey, RegistryName(valueName), nullptr, &type, nullptr, nullptr);
    if (m_lastError != ERROR_SUCCESS) {
        LOGW(LOG_ERROR, L"%s - Can't read value of key '%s', err=%d\n", L"utilRegKey::GetValueType",
             GetStdKeyFromHkey().c_str(), static_cast<int>(m_lastError));
        return false;
    }
    return type == REG_DWORD || type == REG_DWORD_BIG_ENDIAN;
}

bool utilRegKey::QueryValue(const std::wstring& valueName, std::wstring& value) {
    DWORD type = REG_NONE;
    DWORD size = 0;
    bool read = Open(ACCESS_READ);
    if (read) {
        m_lastError =
            RegQueryValueExW(m_openKey, RegistryName(valueName), nullptr, &type, nullptr, &size);
        read = m_lastError == ERROR_SUCCESS;
    }
    if (read && size == 0) {
        value.clear();
    } else if (read) {
        value.assign(size / sizeof(wchar_t), L'\0');
        size = static_cast<DWORD>(value.size() * sizeof(wchar_t));
        m_lastError = RegQueryValueExW(m_openKey, RegistryName(valueName), nullptr, &type,
                                       reinterpret_cast<BYTE*>(&value[0]), &size);
        read = m_lastError == ERROR_SUCCESS;
    }
    if (!read) {
        LOGW(LOG_ERROR, L"%s - Can't read value of '%s', err=%d\n", L"utilRegKey::QueryValue",
             ValueDisplayName(valueName).c_str(), static_cast<int>(m_lastError));
        return false;
    }

    if (type == REG_EXPAND_SZ) {
        DWORD needed = ExpandEnvironmentStringsW(value.c_str(), nullptr, 0);
        if (needed == 0) {
            LOGW(LOG_ERROR, L"%s -  ExpandEnvironmentStrings failed\n", L"utilRegKey::QueryValue");
        } else {
            std::wstring expanded(needed, L'\0');
            ExpandEnvironmentStringsW(value.c_str(), &expanded[0], needed);
            value = expanded;
        }
    }
    // Registry strings arrive with their terminator.
    if (!value.empty() && value.back() == L'\0')
        value.pop_back();
    // The text stands, but a number read as text is worth a complaint.
    if (GetValueType(valueName))
        LOGW(LOG_ERROR, L"%s - Type mismatch in utilRegKey::QueryValue().\n",
             L"utilRegKey::QueryValue");
    return true;
}

bool utilRegKey::QueryValue(const std::wstring& valueName, uint32_t& value) {
    DWORD number = 0;
    DWORD size = sizeof(number);
    if (Open(ACCESS_READ))
        m_lastError = RegQueryValueExW(m_openKey, RegistryName(valueName), nullptr, nullptr,
                                       reinterpret_cast<BYTE*>(&number), &size);
    if (!m_openKey || m_lastError != ERROR_SUCCESS) {
        LOGW(LOG_ERROR, L"%s - Can't read value of key '%s', err=%d\n", L"utilRegKey::QueryValue",
             GetStdKeyFromHkey().c_str(), static_cast<int>(m_lastError));
        return false;
    }
    value = number;
    // The number stands, but anything that is not a number is worth a complaint.
    if (!GetValueType(valueName))
        LOGW(LOG_ERROR, L"%s - Type mismatch in utilRegKey::QueryValue().\n",
             L"utilRegKey::QueryValue");
    return true;
}

bool utilRegKey::SetValue(const std::wstring& valueName, const std::wstring& value) {
    // The terminator is written with the text.
    return WriteValue(L"utilRegKey::SetValue", valueName, REG_SZ,
                      reinterpret_cast<const BYTE*>(value.c_str()),
                      static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)));
}

bool utilRegKey::SetDWordValue(const std::wstring& valueName, const uint32_t* value) {
    return WriteValue(L"utilRegKey::SetDWordValue", valueName, REG_DWORD,
                      reinterpret_cast<const BYTE*>(value), sizeof(uint32_t));
}

bool utilRegKey::WriteValue(const wchar_t* method, const std::wstring& valueName, DWORD type,
                            const BYTE* data, DWORD size) {
    if (Open(ACCESS_WRITE))
        m_lastError = RegSetValueExW(m_openKey, RegistryName(valueName), 0, type, data, size);
    if (m_openKey && m_lastError == ERROR_SUCCESS)
        return true;
    LOGW(LOG_ERROR, L"%s - Can't set value of '%s', err=%d\n\n", method,
         ValueDisplayName(valueName).c_str(), static_cast<int>(m_lastError));
    return false;
}

std::wstring utilRegKey::ValueDisplayName(const std::wstring& valueName) const {
    std::wstring name = GetStdKeyFromHkey();
    if (!valueName.empty())
        name += L"\\" + valueName;
    return name;
}

bool utilRegKey::SetValueWithCreate(const std::wstring& valueName, const uint32_t* value) {
    const wchar_t* self = L"utilRegKey::SetValueWithCreate";
    HKEY created = nullptr;
    if (!Exists()) {
        LOGW(LOG_INFO, L"%s - Cannot find registry %s", self, GetStdKeyFromHkey().c_str());
        // Every caller works under HKEY_LOCAL_MACHINE, whatever root the key names.
        DWORD disposition = 0;
        if (RegCreateKeyExW(HKEY_LOCAL_MACHINE, m_subKey.c_str(), 0, nullptr,
                            REG_OPTION_NON_VOLATILE, KEY_ALL_ACCESS, nullptr, &created,
                            &disposition) != ERROR_SUCCESS) {
            LOGW(LOG_ERROR, L"%s - CreateKey Fail Error(%d)", self,
                 static_cast<int>(GetLastError()));
            return false;
        }
    }
    if (!SetDWordValue(valueName, value)) {
        // The creation handle is left open on this path, as the key's
        // creator has always done; it is reclaimed when the process ends.
        LOGW(LOG_ERROR, L"%s - SetValue Fail Error(%d)", self, static_cast<int>(GetLastError()));
        return false;
    }
    LOGW(LOG_INFO, L"%s - SetValueWithCreate registry %s\\%s success.", self,
         GetStdKeyFromHkey().c_str(), valueName.c_str());
    if (created)
        RegCloseKey(created);
    return true;
}
