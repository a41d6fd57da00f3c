#pragma once
// The split of a registry key's text into its root prefix and subkey. Pure
// code so that a native fuzz target can drive it too.
#include <string>

// The roots in the order of their rows: long and short names.
constexpr int kRegistryRootCount = 7;
extern const wchar_t* const kRegistryRootNames[kRegistryRootCount][2];

// When the text before `key`'s first backslash names a root (either form,
// any case), removes it and that backslash from `key` and returns the root's
// row; otherwise returns -1 with `key` unchanged. `prefix` gets the text
// before the backslash in upper case (empty when there is no backslash).
int SplitRegistryKeyText(std::wstring& key, std::wstring& prefix);
