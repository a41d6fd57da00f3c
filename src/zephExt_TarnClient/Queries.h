#pragma once
// The four status queries. Each fills `result` with {"type":..,"content":{..}}
// (built with `allocator`) and returns the query's result code.
#include <rapidjson/document.h>

#include <cstdint>

using JsonAllocator = rapidjson::Document::AllocatorType;

uint32_t getClientStatusData(rapidjson::Value& result, JsonAllocator& allocator);
uint32_t getCommonSettings(rapidjson::Value& result, JsonAllocator& allocator);
uint32_t getServiceStatus(rapidjson::Value& result, JsonAllocator& allocator);
uint32_t getSelfProtectionData(rapidjson::Value& result, JsonAllocator& allocator);
