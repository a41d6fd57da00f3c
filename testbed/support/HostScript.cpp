#include "HostScript.h"

ProcessResult RunHost(const std::vector<std::wstring>& arguments, DWORD timeoutMs) {
    std::vector<std::wstring> command = {BinPath(L"zephhost.exe"),
                                         BinPath(L"zephExt_TarnClient.dll")};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return RunProcess(command, timeoutMs);
}

std::wstring WriteHostScript(const std::vector<std::string>& calls, const wchar_t* name) {
    std::string script;
    for (const std::string& call : calls)
        script += call + "\n";
    std::wstring path = TempPath(name);
    WriteFileBytes(path, script);
    return path;
}

ProcessResult RunHostScript(const std::vector<std::string>& calls, DWORD timeoutMs) {
    return RunHost({L"--script", WriteHostScript(calls)}, timeoutMs);
}

std::string Command(const std::string& id, const std::string& data) {
    return "command {\"command_id\":\"" + id +
           "\",\"product_id\":\"ZEPH_IPRODUCT_TARN\",\"command_data\":" + data + "}";
}

std::string Service(const std::string& type) {
    return Command("ZEPH_ONCOMMAND_IAGT_SERVICE", "{\"command_type\":\"" + type + "\"}");
}

std::string Install() {
    std::string folder = Narrow(BinDir()); // ends in a backslash, as the host gives it
    std::string escaped;
    for (char c : folder)
        escaped += c == '\\' ? std::string("\\\\") : std::string(1, c);
    return Command("ZEPH_ONCOMMAND_INSTALLATION",
                   "{\"command_type\":\"ZEPH_IAGENT_INSTALL\",\"PkgPath\":\"" + escaped + "\"}");
}

std::string Uninstall() {
    return Command("ZEPH_ONCOMMAND_INSTALLATION", "{\"command_type\":\"ZEPH_IAGENT_UNINSTALL\"}");
}

std::string Policy(int flag) {
    return Command("ZEPH_ONCOMMAND_IAGENT_POLICY",
                   "{\"command_type\":\"ZEPH_IAGENT_ISSUE_POLICY\",\"cfg_flag\":" +
                       std::to_string(flag) + "}");
}

std::string SelfProtection(int service) {
    return "notify {\"notify_id\":\"ZEPH_ONNOTIFY_ADMIN_CFG_CHANGE\",\"product_id\":"
           "\"ZEPH_IPRODUCT_TARN\",\"notify_data\":{\"notify_type\":\"ZEPH_TYPE_SELF_PROTECTION\","
           "\"notify_content\":{\"enable\":{\"service\":" +
           std::to_string(service) + "}}}}";
}

std::string MoveClient() {
    return "notify {\"notify_id\":\"ZEPH_ONNOTIFY_CONTEXT_CHANGE\",\"product_id\":"
           "\"ZEPH_IPRODUCT_TARN\",\"notify_data\":{\"notify_type\":\"ZEPH_TYPE_SERVER_INFO\"}}";
}

std::string Query(const std::string& id, const std::string& data) {
    return "query {\"query_id\":\"" + id +
           "\",\"product_id\":\"ZEPH_IPRODUCT_TARN\",\"query_data\":" + data + "}";
}
