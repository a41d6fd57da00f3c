#pragma once
// What runs once a request has passed validation. Each handler returns the
// result code the host receives.
#include "Json.h"

#include <cstdint>

uint32_t HandleCommand(const JsonValue& request);
uint32_t HandleNotify(const JsonValue& request);
// Fills `result` (an object built with `allocator`) and returns the result code.
uint32_t HandleQuery(const JsonValue& request, JsonValue& result,
                     JsonDocument::AllocatorType& allocator);
