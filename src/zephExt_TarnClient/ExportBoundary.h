#pragma once
// The entry and exit lines of an export, its host binding check, and the
// shield that keeps every exception inside the plug-in.
#include <cstdint>
#include <exception>
#include <utility>

// Logs "<export> - >>> <export>" and binds to the host; false when the export
// must refuse.
bool EnterBoundExport(const char* exportName);
// Logs "<export> - <<< <export>".
void LogExit(const char* exportName);
// Logs "<export> - Unexpected exception: <what>" if it can.
void LogEscaped(const char* exportName, const char* what) noexcept;

// Runs an export's body. Whatever escapes it (running out of memory, mostly)
// is logged and answered with `failure`: an exception never reaches the host.
template <typename Body>
uint32_t Shielded(const char* exportName, uint32_t failure, Body&& body) noexcept {
    try {
        return std::forward<Body>(body)();
    } catch (const std::exception& error) {
        LogEscaped(exportName, error.what());
    } catch (...) {
        LogEscaped(exportName, "Unknown exception");
    }
    return failure;
}
