#pragma once
// Loading helper libraries only when their signer is the expected issuer.
#include <windows.h>

// The last error the loaders leave when they refuse a file (customer bit set).
constexpr DWORD ERROR_FAILED_ISSUER_CHECK = 0x20001447;

// The issuer every caller in the plug-in expects.
#define ZEPH_EXPECTED_ISSUER "Quorvane, Inc."

// The module, or null with the last error: 87 null issuer, 2 missing file or
// a directory, 0x20001447 refused signature, else the system loader's own.
HMODULE LoadLibraryWithIssuerCheckA(const char* issuerName, const char* fileName);
HMODULE LoadLibraryWithIssuerCheckW(const wchar_t* issuerName, const wchar_t* fileName);

// Nonzero when the file's signature is accepted. The wide overload lets null
// arguments pass (returns 1); the narrow one refuses them (returns 0).
int CheckFileIssuer(const wchar_t* file, const wchar_t* issuerName);
int CheckFileIssuer(const char* file, const char* issuerName);

// Best effort: a warning in the Windows event log through qvnotify.dll.
void WriteWindowsEventLogForNotLoadingLibDueToIssuerCheckFailed(const char* file,
                                                                const char* issuerName);
void WriteWindowsEventLogForNotLoadingLibDueToIssuerCheckFailed(const wchar_t* file,
                                                                const wchar_t* issuerName);
