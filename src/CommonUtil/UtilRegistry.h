#pragma once
// utilRegKey: the plug-in's one way into the registry. A key is named by one
// text with a long or short root prefix ("HKEY_LOCAL_MACHINE\..." or
// "HKLM\..."); the key is opened lazily with the least access an operation
// needs, and every Win32 failure is logged with the key's display name.
#include <windows.h>

#include <cstdint>
#include <string>

class utilRegKey {
  public:
    enum Access : int { ACCESS_READ = 0, ACCESS_WRITE = 1 };
    // 0 and 1 are the default view, 2 the 64-bit view.
    enum View : uint32_t { VIEW_DEFAULT = 0, VIEW_DEFAULT_ALT = 1, VIEW_64 = 2 };

    utilRegKey(const std::wstring& fullKeyName, uint32_t view);
    ~utilRegKey();
    utilRegKey(const utilRegKey&) = delete;
    utilRegKey& operator=(const utilRegKey&) = delete;

    // Splits the root prefix off `key` (leaving the subkey in it) and returns
    // the root's row 0..6; an unknown prefix returns 0 with `key` unchanged.
    static int ExtractKeyName(std::wstring& key);
    static REGSAM GetMSWViewFlags(bool write, uint32_t view);

    bool Exists();
    bool Open(int access);
    bool Close();
    std::wstring GetStdKeyFromHkey() const;
    bool GetValueType(const std::wstring& valueName);
    bool QueryValue(const std::wstring& valueName, std::wstring& value);
    bool QueryValue(const std::wstring& valueName, uint32_t& value);
    bool SetValue(const std::wstring& valueName, const std::wstring& value);
    bool SetDWordValue(const std::wstring& valueName, const uint32_t* value);
    bool SetValueWithCreate(const std::wstring& valueName, const uint32_t* value);

    LONG LastError() const { return m_lastError; }
    const std::wstring& SubKey() const { return m_subKey; }

  private:
    bool WriteValue(const wchar_t* method, const std::wstring& valueName, DWORD type,
                    const BYTE* data, DWORD size);
    // The key's display name, then "\" and the value's name when it has one.
    std::wstring ValueDisplayName(const std::wstring& valueName) const;

    HKEY m_openKey = nullptr;
    HKEY m_root = HKEY_CLASSES_ROOT;
    std::wstring m_subKey;
    uint32_t m_view = 0;
    int m_openAccess = ACCESS_READ;
    LONG m_lastError = ERROR_SUCCESS;
};
