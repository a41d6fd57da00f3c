#pragma once
// Schema checks of the three kinds of host request. Each answers true or
// false and, on false, logs one error naming itself.
#include <rapidjson/document.h>

bool IsValidOnCommandRequest(const rapidjson::Value& request);
bool isValidServiceRequest(const rapidjson::Value& commandData);
bool isValidInstallRequest(const rapidjson::Value& commandData);
bool isValidIssuePolicyRequest(const rapidjson::Value& commandData);

bool IsValidOnNotifyRequest(const rapidjson::Value& request);
bool isValidAdminConfigChangeNotifyData(const rapidjson::Value& notifyData);
bool isValidSelfProtectionNotifyContent(const rapidjson::Value& notifyContent);

bool IsValidOnQueryRequest(const rapidjson::Value& request);
