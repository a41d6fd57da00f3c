#pragma once
#include <windows.h>

// GetProcAddress answers a generic pointer; each entry has its own type.
template <typename Function> Function ResolveProc(HMODULE module, const char* name) {
    return reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(module, name)));
}
