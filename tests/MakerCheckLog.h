#pragma once
// What the signature checks log, and the host binding around them.
#include "LogCapture.h"

#include <algorithm>
#include <string>

// `prefix` is what the plug-in puts before each text ("" in-process).
inline std::string SingleSign(const std::string& prefix) {
    return "D " + prefix + "CCrvDigitalSignatureManagerEx::VerifyEmbeddedSignatureSingleSign - ";
}
inline std::string CheckingIssuer(const std::string& prefix, const std::string& path) {
    return "D " + prefix + "CheckFileIssuer - Checking whether file (" + path +
           ") is signed by issuer (Quorvane, Inc.)";
}

// The signature manager's check of a file the system's trust provider refuses
// with `status`, as it tries the certificate information next.
inline Lines RefusedSingleSign(const std::string& prefix, const std::string& path,
                               const std::string& status) {
    const std::string single = SingleSign(prefix);
    return {single + ">>> try to verify file=" + path,
            single + "failed to call WinVerifyTrust(), StatusVerify=" + status +
                ", GetLastError=" + status,
            single + "try to verify by certificate information",
            single + "failed to verify by certificate information", single + "<<<"};
}

// What the host binding's maker check logs for a host-library candidate: the
// issuer check of the signature manager with the signer "Quorvane, Inc.".
// `platformLine`: the first check in a process also names the platform.
inline Lines MakerCheckPassed(const std::string& prefix, const std::string& path,
                              bool platformLine) {
    const std::string manager = "D " + prefix + "CCrvDigitalSignatureManagerEx::";
    const std::string single = SingleSign(prefix);
    Lines lines = {CheckingIssuer(prefix, path)};
    if (platformLine)
        lines.push_back("D " + prefix + "CSingletonWinTrustHelper - support single sign platform");
    for (const std::string& line :
         {single + ">>> try to verify file=" + path,
          manager + "PrepareSigners - allowed signers=Quorvane, Inc.",
          manager + "VerifySignerForDigitalSignature - signer=[Quorvane, Inc.] is in trusted list",
          single + "find a valid digital signature and signer is correct", single + "<<<",
          "D " + prefix + "CheckFileIssuer - successfully to check digital signature for " + path})
        lines.push_back(line);
    return lines;
}

// What the check logs for a candidate that does not exist.
inline Lines MakerCheckOfMissingFile(const std::string& prefix, const std::string& path) {
    Lines lines = {CheckingIssuer(prefix, path)};
    for (const std::string& line : RefusedSingleSign(prefix, path, "2"))
        lines.push_back(line);
    lines.push_back("E " + prefix + "CheckFileIssuer - failed to check digital signature for " +
                    path + ", err=2");
    return lines;
}

// What the host binding logs while the parent product's install path is
// missing from its key.
inline Lines UnboundLog(const std::string& prefix) {
    const std::string key = Narrow(SimulatedInstall::kProductKey);
    return {"E " + prefix + "utilRegKey::QueryValue - Can't read value of 'HKLM\\" + key +
                "\\Application Path', err=2\n",
            "E " + prefix + "GetCRVLInstallPath - Cannot find value(Application Path) under key(" +
                "HKEY_LOCAL_MACHINE\\" + key + ")",
            "E " + prefix + "init - Unable to get CRVL install path.",
            "E " + prefix + "IsValidLoader - Unable to initialize zephAgent dll."};
}

// `logged` without the one place where `block` occurs; a test failure when
// the block is missing.
inline Lines WithoutBlock(const Lines& logged, const Lines& block) {
    auto at = std::search(logged.begin(), logged.end(), block.begin(), block.end());
    if (at == logged.end()) {
        ADD_FAILURE() << "block starting \"" << (block.empty() ? "" : block.front())
                      << "\" not logged";
        return logged;
    }
    Lines rest(logged.begin(), at);
    rest.insert(rest.end(), at + block.size(), logged.end());
    return rest;
}

// `logged` without the host binding's maker check, which every fresh
// zephhost.exe process logs once, on its first bound export.
inline Lines WithoutBinding(const Lines& logged) {
    const std::wstring library = std::wstring(SimulatedInstall::kFolder) + L"zephAgent_64x.dll";
    return WithoutBlock(logged, MakerCheckPassed(P, Narrow(library), true));
}
