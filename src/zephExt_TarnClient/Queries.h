#pragma once
// The four status queries. Each fills `result` with {"type":..,"content":{..}}
// (built with `allocator`) and returns the query's result code.
#include "Json.h"

#include <cstdint>

using JsonAllocator = JsonDocument::AllocatorType;

uint32_t getClientStatusData(JsonValue& result, JsonAllocator& allocator);
uint32_t getCommonSettings(JsonValue& result, JsonAllocator& allocator);
uint32_t getServiceStatus(JsonValue& result, JsonAllocator& allocator);
uint32_t getSelfProtectionData(JsonValue& result, JsonAllocator& allocator);
