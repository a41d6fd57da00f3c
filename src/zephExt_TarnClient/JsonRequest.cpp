#include "JsonRequest.h"

#include "JsonText.h"

#include <cstring>

namespace {
constexpr size_t kPoolChunkSize = 0x10000;
constexpr size_t kParseStackSize = 1024;
} // namespace

JsonRequest::JsonRequest() : m_pool(kPoolChunkSize), m_document(&m_pool, kParseStackSize) {}

bool JsonRequest::Parse(int32_t length, const char* text) {
    m_result = ParseJson(m_document, text, length > 0 ? static_cast<size_t>(length) : 0);
    return !m_result.IsError();
}

std::string RequestText(int32_t length, const char* text) {
    if (!text || length <= 0)
        return std::string();
    return std::string(text, static_cast<size_t>(length));
}

const JsonValue* FindMember(const JsonValue& object, const char* name) {
    if (!object.IsObject())
        return nullptr;
    auto member = object.FindMember(name);
    return member == object.MemberEnd() ? nullptr : &member->value;
}

bool IsStringEqual(const JsonValue* value, const char* expected) {
    if (!value || !value->IsString())
        return false;
    size_t length = strlen(expected);
    return value->GetStringLength() == length && memcmp(value->GetString(), expected, length) == 0;
}

std::string StringMember(const JsonValue& object, const char* name) {
    const JsonValue* member = FindMember(object, name);
    if (!member || !member->IsString())
        return std::string();
    return std::string(member->GetString(), member->GetStringLength());
}
