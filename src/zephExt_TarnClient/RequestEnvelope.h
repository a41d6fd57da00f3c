#pragma once
// The way zephExt_OnCommand and zephExt_OnNotify take a request: log it,
// bind to the host, parse, validate, handle.
#include "Json.h"

#include <cstdint>

struct RequestKind {
    const char* exportName;
    const char* invalidFormat; // "%s" the export's name, then the request text if wanted
    bool (*isValid)(const JsonValue& request);
    uint32_t (*handle)(const JsonValue& request);
};

uint32_t RunRequest(const RequestKind& kind, int32_t length, const char* request);
