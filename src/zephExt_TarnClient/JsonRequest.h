#pragma once
// Parsing of the host's JSON requests, and member lookups that never trip
// RapidJSON's assertions on a missing member or a wrong type.
#include "Json.h"

#include <cstdint>
#include <string>

class JsonRequest {
  public:
    JsonRequest();
    JsonRequest(const JsonRequest&) = delete;
    JsonRequest& operator=(const JsonRequest&) = delete;

    // Parses `length` bytes of `text`, which need not be terminated.
    bool Parse(int32_t length, const char* text);
    int ParseErrorCode() const { return static_cast<int>(m_result.Code()); }
    size_t ParseErrorOffset() const { return m_result.Offset(); }
    const JsonDocument& Document() const { return m_document; }

  private:
    JsonPool m_pool;
    JsonDocument m_document;
    rapidjson::ParseResult m_result;
};

// The request as a text for the log: exactly `length` bytes; empty for a
// negative length or a null text.
std::string RequestText(int32_t length, const char* text);

// Null when `object` is not an object or has no member `name`.
const JsonValue* FindMember(const JsonValue& object, const char* name);
// True when `value` is a string equal to `expected` (embedded NULs count).
bool IsStringEqual(const JsonValue* value, const char* expected);
// The text of a string member; empty when it is missing or not a string.
std::string StringMember(const JsonValue& object, const char* name);
