#pragma once
// The management server's answer to a result notice, once parsed. Pure code
// (RapidJSON and the log call only) so that a native fuzz target can drive it.
#include "Json.h"

enum class ServerAnswer {
    Success,     // {"name":"errorCode","value":0}
    BadFormat,   // no "name" of "errorCode" or no integer "value"
    ServerError, // an integer "value" other than 0
};

// Judges the parsed answer and logs the verdict as the result notice does.
ServerAnswer CheckServerAnswer(const JsonValue& document);
