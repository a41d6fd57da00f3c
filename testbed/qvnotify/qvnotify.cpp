// The event-notification library double: one journal line per call with its
// arguments ("Name|arg|arg..."), so tests see exactly what reached the event log.
#include "QvNotifyDouble.h"

#include "HostDouble.h"
#include "Journal.h"

#include <cstdint>
#include <cstdio>
#include <string>

namespace {

std::string Text(const char* text) {
    return text ? text : "NULL";
}

std::string Hex(uint64_t value) {
    char text[24];
    snprintf(text, sizeof(text), "0x%llX", static_cast<unsigned long long>(value));
    return text;
}

std::string HandleText(HANDLE handle) {
    return Hex(reinterpret_cast<uintptr_t>(handle));
}

std::string EventText(HANDLE source, int type, int category, uint32_t eventId,
                      const char* message) {
    return HandleText(source) + "|" + std::to_string(type) + "|" + std::to_string(category) + "|" +
           Hex(eventId) + "|" + Text(message);
}

void Journal(const std::string& line) {
    AppendJournalLine(kQvNotifyJournal, line);
}

} // namespace

extern "C" {

int InitDefaultEventSource(const char* sourceName, int flag) {
    Journal("InitDefaultEventSource|" + Text(sourceName) + "|" + std::to_string(flag));
    return 0;
}

int ReportEventLog(HANDLE source, int type, int category, uint32_t eventId, const char* message) {
    Journal("ReportEventLog|" + EventText(source, type, category, eventId, message));
    return 0;
}

int OpenEventSource(const char* server, const char* sourceName, HANDLE* source) {
    Journal("OpenEventSource|" + Text(server) + "|" + Text(sourceName));
    DWORD fail = 0;
    TestBedRegistry::ReadDword(kQvNotifyBehaviourKey, kQvNotifyFailOpenValue, fail);
    if (fail)
        return kQvNotifyOpenFailure;
    if (source)
        *source = reinterpret_cast<HANDLE>(kQvNotifySourceHandle);
    return 0;
}

int CloseEventSource(HANDLE source) {
    Journal("CloseEventSource|" + HandleText(source));
    return 0;
}

int ReportEventLogEx(HANDLE source, int type, int category, uint32_t eventId, const char* message,
                     int reserved) {
    Journal("ReportEventLogEx|" + EventText(source, type, category, eventId, message) + "|" +
            std::to_string(reserved));
    return 0;
}

} // extern "C"
