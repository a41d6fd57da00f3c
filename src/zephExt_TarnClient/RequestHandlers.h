#pragma once
// What runs once a request has passed validation. Each handler returns the
// result code the host receives.
#include <rapidjson/document.h>

#include <cstdint>

uint32_t HandleCommand(const rapidjson::Value& request);
uint32_t HandleNotify(const rapidjson::Value& request);
// Fills `result` (an object built with `allocator`) and returns the result code.
uint32_t HandleQuery(const rapidjson::Value& request, rapidjson::Value& result,
                     rapidjson::Document::AllocatorType& allocator);
