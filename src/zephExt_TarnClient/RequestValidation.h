#pragma once
// Schema checks of the three kinds of host request. Each answers true or
// false and, on false, logs one error naming itself.
#include "Json.h"

bool IsValidOnCommandRequest(const JsonValue& request);
bool isValidServiceRequest(const JsonValue& commandData);
bool isValidInstallRequest(const JsonValue& commandData);
bool isValidIssuePolicyRequest(const JsonValue& commandData);

bool IsValidOnNotifyRequest(const JsonValue& request);
bool isValidAdminConfigChangeNotifyData(const JsonValue& notifyData);
bool isValidSelfProtectionNotifyContent(const JsonValue& notifyContent);

bool IsValidOnQueryRequest(const JsonValue& request);
