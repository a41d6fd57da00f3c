#pragma once
// One parse for every JSON text that comes from outside the process, and the
// compact form of a value.
#include "Json.h"

#include <cstddef>
#include <string>

// Parses `length` bytes of `text` (not necessarily terminated) into `document`
// and reports what RapidJSON's default parser reports for the same text: its
// error code and offset, or success with the same document. The parse itself
// is iterative, so nesting as deep as the text is long cannot overflow the
// stack of the host.
inline rapidjson::ParseResult ParseJson(JsonDocument& document, const char* text, size_t length) {
    static const char kEmpty[] = "";
    if (!text)
        length = 0;
    rapidjson::ParseResult result =
        document.Parse<rapidjson::kParseIterativeFlag>(length ? text : kEmpty, length);
    // The two parsers differ in one place only: a token that cannot start a
    // value ('}', ']', ',' or ':') is an empty document to the iterative one
    // and an invalid value to the default one, at the same offset.
    size_t offset = result.Offset();
    if (result.Code() == rapidjson::kParseErrorDocumentEmpty && offset < length &&
        text[offset] != '\0')
        result.Set(rapidjson::kParseErrorValueInvalid, offset);
    return result;
}

// `value` written out without spaces, members in their order.
inline std::string CompactJson(const JsonValue& value) {
    JsonBuffer buffer;
    JsonWriter writer(buffer);
    value.Accept(writer);
    return std::string(buffer.GetString(), buffer.GetSize());
}
