#include "eventLogValidation.h"

#include "DebugLog.h"

#include <cctype>
#include <cstdint>
#include <initializer_list>

namespace {

// Every part between the separators, empty ones included.
std::vector<std::string> Split(const std::string& text, const std::string& separator) {
    std::vector<std::string> parts;
    size_t start = 0;
    for (size_t at = text.find(separator); at != std::string::npos;
         at = text.find(separator, start)) {
        parts.push_back(text.substr(start, at - start));
        start = at + separator.size();
    }
    parts.push_back(text.substr(start));
    return parts;
}

bool IsSpace(char c) {
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}
bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}
bool IsHexDigit(char c) {
    return std::isxdigit(static_cast<unsigned char>(c)) != 0;
}
bool IsAlnum(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0;
}

std::string Trim(const std::string& text) {
    size_t begin = 0;
    size_t end = text.size();
    while (begin < end && IsSpace(text[begin]))
        ++begin;
    while (end > begin && IsSpace(text[end - 1]))
        --end;
    return text.substr(begin, end - begin);
}

bool IsOneOf(const std::string& text, std::initializer_list<const char*> names) {
    for (const char* name : names) {
        if (text == name)
            return true;
    }
    return false;
}

// Decimal digits from `begin` as an unsigned 64-bit value; false on overflow.
bool ToUint64(const std::string& text, size_t begin, uint64_t& value) {
    value = 0;
    for (size_t i = begin; i < text.size(); ++i) {
        uint64_t digit = static_cast<uint64_t>(text[i] - '0');
        if (value > (UINT64_MAX - digit) / 10)
            return false;
        value = value * 10 + digit;
    }
    return true;
}

bool HasHexPrefix(const std::string& text) {
    return text.size() >= 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
}

// Dotted quad: four parts of 1 to 3 alphanumerics, no leading zero, at most
// 255 where a character counts as its code minus the code of '0' (so a letter
// inside an octet passes: 1a counts as 59).
bool IsValidIpv4(const std::string& text) {
    std::vector<std::string> parts = Split(text, ".");
    if (parts.size() != 4)
        return false;
    for (const std::string& part : parts) {
        if (part.empty() || part.size() > 3 || (part.size() > 1 && part[0] == '0'))
            return false;
        int value = 0;
        for (char c : part) {
            if (!IsAlnum(c))
                return false;
            value = value * 10 + (c - '0');
        }
        if (value > 255)
            return false;
    }
    return true;
}

// The first "::" becomes one zero group; then up to eight groups of 1 to 4
// hex digits. Fewer than eight groups pass once the text ends after a group.
bool IsValidIpv6(std::string text) {
    size_t gap = text.find("::");
    if (gap == 0)
        text.replace(0, 2, "0:");
    else if (gap != std::string::npos && gap + 2 == text.size())
        text.replace(gap, 2, ":0");
    else if (gap != std::string::npos)
        text.replace(gap, 2, ":0:");

    size_t position = 0;
    bool atEnd = false; // the previous group ended at the end of the text
    for (int group = 0; group < 8; ++group) {
        if (atEnd)
            return true;
        size_t end = text.find(':', position);
        if (end == std::string::npos)
            end = text.size();
        if (end - position < 1 || end - position > 4)
            return false;
        for (size_t i = position; i < end; ++i) {
            if (!IsHexDigit(text[i]))
                return false;
        }
        atEnd = end == text.size();
        position = end + 1;
    }
    return atEnd;
}

bool IsFlagToken(const std::string& token) {
    if (IsOneOf(token, {"CWR", "ECE", "URG", "ACK", "PSH", "RST", "SYN", "FIN", "DF=1", "DF=0",
                        "MF=1", "MF=0"}))
        return true;
    std::vector<std::string> assignment = Split(token, "=");
    if (assignment.size() == 2)
        return IsOneOf(assignment[0], {"FragOffs", "IPTotalLen"}) &&
               isValidNumber(assignment[1], 16, false);
    std::vector<std::string> pair = Split(token, ":");
    return pair.size() == 2 && IsOneOf(pair[0], {"Type", "Code"}) &&
           isValidNumber(pair[1], 8, false);
}

bool IsPacketEvent(const std::string& text) {
    return text == "f" || text == "d";
}
bool IsZeroOrOne(const std::string& text) {
    return text == "0" || text == "1";
}
bool Unsigned16(const std::string& text) {
    return isValidNumber(text, 16, false);
}
bool Unsigned32(const std::string& text) {
    return isValidNumber(text, 32, false);
}
bool Unsigned64(const std::string& text) {
    return isValidNumber(text, 64, false);
}
bool Signed16(const std::string& text) {
    return isValidNumber(text, 16, true);
}

struct FieldRule {
    const char* name;
    bool optional;
    bool (*rule)(const std::string&);
};

// Positions 1 to 26, in order.
const FieldRule kLeadingFields[] = {
    {"IsPacketEvent", false, IsPacketEvent},
    {"Direction", false, IsZeroOrOne},
    {"Forward", false, IsZeroOrOne},
    {"Interface", true, isValidMac},
    {"Frame Type", true, isValidFrameType},
    {"Source MAC", true, isValidMac},
    {"Destination MAC", true, isValidMac},
    {"Protocol", true, isValidProtocol},
    {"Flags", true, isValidFlags},
    {"Source IP", true, isValidIp},
    {"Source Port", true, Unsigned16},
    {"Destination IP", true, isValidIp},
    {"Destination Port", true, Unsigned16},
    {"Packet Size", false, Unsigned32},
    {"Action", false, Signed16},
    {"Status", false, Signed16},
    {"Filter_id", false, Unsigned32},
    {"Adapter_id", false, Unsigned32},
    {"Note", true, isValidHexText},
    {"Data position", false, Unsigned16},
    {"Data position in stream", false, Unsigned32},
    {"Varius flags", false, Unsigned32},
    {"Loggin Policy ID", false, Unsigned16},
    {"Payload data index", true, Unsigned16},
    {"Payload", true, isValidHexText},
    {"Note2", true, isValidHexText},
};
const FieldRule kProcessName = {"Process Name", true, isValidHexText};
constexpr size_t kProcessNameIndex = 28; // position 29 of the long form
// Always the last three fields.
const FieldRule kTrailingFields[] = {
    {"Repeat Count", false, Unsigned32},
    {"Last Seen Time", false, Unsigned64},
    {"First Seen Time", false, Unsigned64},
};

constexpr size_t kShortForm = 29;
constexpr size_t kLongForm = 35;

bool Check(const FieldRule& field, const std::string& value) {
    std::string text = Trim(value);
    if ((field.optional && text.empty()) || field.rule(text))
        return true;
    LOGA(LOG_ERROR, "%s - '%s' invalid format", "verifyLog", field.name);
    return false;
}

} // namespace

std::vector<std::string> splitLogRecord(const std::string& line) {
    return Split(line, ", ");
}

bool isValidNumber(const std::string& text, unsigned bits, bool isSigned) {
    if (text.empty() || bits < 1 || bits > 64)
        return false;
    if (text[0] == '0' && text != "0")
        return false;
    size_t digits = text[0] == '-' ? 1 : 0;
    for (size_t i = digits; i < text.size(); ++i) {
        if (!IsDigit(text[i]))
            return false;
    }
    uint64_t value = 0;
    if (!isSigned) {
        if (digits == 1 || !ToUint64(text, 0, value))
            return false;
        return bits == 64 || value <= (uint64_t(1) << bits) - 1;
    }
    // Symmetric on purpose: for 16 bits -32767 passes and -32768 fails. A
    // lone "-" reads as 0.
    if (!ToUint64(text, digits, value))
        return false;
    return value <= (uint64_t(1) << (bits - 1)) - 1;
}

bool isValidHexText(const std::string& text) {
    if (text.empty())
        return false;
    for (size_t i = HasHexPrefix(text) ? 2 : 0; i < text.size(); ++i) {
        if (!IsHexDigit(text[i]))
            return false;
    }
    return true;
}

bool isValidMac(const std::string& text) {
    std::vector<std::string> parts = Split(text, " ");
    if (parts.size() == 1)
        parts = Split(text, ":");
    if (parts.size() == 1)
        parts = Split(text, "-");
    if (parts.size() != 6)
        return false;
    for (const std::string& part : parts) {
        if (part.size() != 2 || !isValidHexText(part))
            return false;
    }
    return true;
}

bool isValidFrameType(const std::string& text) {
    if (IsOneOf(text, {"IP", "ARP", "RevARP", "NetBEUI", "IPv6"}))
        return true;
    return isValidHexText(text) && text.size() <= (HasHexPrefix(text) ? 6u : 4u);
}

bool isValidProtocol(const std::string& text) {
    return IsOneOf(text, {"ICMP", "IGMP", "GGP", "TCP", "PUP", "UDP", "ICMPv6", "IDP", "ND"}) ||
           isValidNumber(text, 8, false);
}

bool isValidFlags(const std::string& text) {
    for (const std::string& token : Split(text, " ")) {
        if (!IsFlagToken(token))
            return false;
    }
    return true;
}

bool isValidIp(const std::string& text) {
    size_t dot = text.find('.');
    if (dot != std::string::npos && dot < 4)
        return IsValidIpv4(text);
    size_t colon = text.find(':');
    if (colon != std::string::npos && colon < 5)
        return IsValidIpv6(text);
    return false;
}

bool verifyLog(std::vector<std::string> fields) {
    if (fields.size() != kShortForm && fields.size() != kLongForm) {
        LOGA(LOG_ERROR, "%s - Invalid format", "verifyLog");
        return false;
    }
    size_t index = 0;
    for (const FieldRule& field : kLeadingFields) {
        if (!Check(field, fields[index++]))
            return false;
    }
    if (fields.size() > 32 && !Check(kProcessName, fields[kProcessNameIndex]))
        return false;
    index = fields.size() - 3;
    for (const FieldRule& field : kTrailingFields) {
        if (!Check(field, fields[index++]))
            return false;
    }
    return true;
}
