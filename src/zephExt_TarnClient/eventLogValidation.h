#pragma once
// The detection record: one line of fields separated by ", ", 29 fields (the
// short form) or 35 (the long form). Pure code: the standard library and the
// log call only, so it also builds natively for fuzzing.
#include <string>
#include <vector>

// The line split at every ", "; empty fields are kept, a line without a
// separator is one field.
std::vector<std::string> splitLogRecord(const std::string& line);

// True when every checked field passes its rule; logs one error naming the
// first failing field (or the field count) and answers false otherwise.
bool verifyLog(std::vector<std::string> fields);

// The field rules, each on one trimmed text; they log nothing.
bool isValidNumber(const std::string& text, unsigned bits, bool isSigned);
bool isValidHexText(const std::string& text);
bool isValidMac(const std::string& text);
bool isValidFrameType(const std::string& text);
bool isValidProtocol(const std::string& text);
bool isValidFlags(const std::string& text);
bool isValidIp(const std::string& text);
