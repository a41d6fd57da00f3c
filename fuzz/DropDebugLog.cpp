// The native build's log transport: the portable code logs, nobody listens.
#include "DebugLog.h"

void DebugLogA(int, const char*, int, const char*, ...) {}
void DebugLogW(int, const wchar_t*, int, const wchar_t*, ...) {}
