// A registry key's text: the split into root and subkey.
#include "RegistryKeyText.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cwctype>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // Two bytes a character, as the plug-in's wide texts on Windows.
    std::wstring text;
    for (size_t i = 0; i + 1 < size; i += 2)
        text += static_cast<wchar_t>(data[i] | (data[i + 1] << 8));
    std::wstring key = text;
    std::wstring prefix;
    int row = SplitRegistryKeyText(key, prefix);
    if (row < 0) {
        if (key != text) // an unknown root leaves the text as it was
            std::abort();
        return 0;
    }
    if (row >= kRegistryRootCount)
        std::abort();
    // Root text, one backslash and the subkey give the text back; the root
    // text is one of the row's names in some case.
    const size_t rootLength = text.size() - key.size() - 1;
    if (key.size() >= text.size() || text[rootLength] != L'\\' ||
        text.compare(rootLength + 1, std::wstring::npos, key) != 0)
        std::abort();
    std::wstring root = text.substr(0, rootLength);
    for (wchar_t& c : root)
        c = static_cast<wchar_t>(towupper(c));
    if (root != prefix ||
        (root != kRegistryRootNames[row][0] && root != kRegistryRootNames[row][1]))
        std::abort();
    return 0;
}
