#pragma once
// The entry and exit lines of an export, and its host binding check.

// Logs "<export> - >>> <export>" and binds to the host; false when the export
// must refuse.
bool EnterBoundExport(const char* exportName);
// Logs "<export> - <<< <export>".
void LogExit(const char* exportName);
