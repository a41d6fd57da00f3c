#pragma once
// Conversions between wide text and the system code page, for the places
// where a narrow path or message meets a wide API. A null text converts to
// an empty one.
#include <windows.h>

#include <string>

inline std::wstring AnsiToWide(const char* text) {
    int length = text ? MultiByteToWideChar(CP_ACP, 0, text, -1, nullptr, 0) : 0;
    if (length <= 0)
        return std::wstring();
    std::wstring wide(static_cast<size_t>(length), L'\0');
    MultiByteToWideChar(CP_ACP, 0, text, -1, &wide[0], length);
    wide.pop_back(); // the terminator
    return wide;
}

inline std::string WideToAnsi(const wchar_t* text) {
    int length = text ? WideCharToMultiByte(CP_ACP, 0, text, -1, nullptr, 0, nullptr, nullptr) : 0;
    if (length <= 0)
        return std::string();
    std::string narrow(static_cast<size_t>(length), '\0');
    WideCharToMultiByte(CP_ACP, 0, text, -1, &narrow[0], length, nullptr, nullptr);
    narrow.pop_back();
    return narrow;
}
