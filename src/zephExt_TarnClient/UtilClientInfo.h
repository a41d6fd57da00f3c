#pragma once
// Where the agent is installed, which version it has and what state its
// service is in.
#include <cstdint>
#include <string>

// The four 16-bit parts of a version, most significant first.
struct FileVersion {
    uint32_t major = 0;
    uint32_t minor = 0;
    uint32_t third = 0;
    uint32_t build = 0;
};

// "%d.%d.%d.%d" of all four parts, or "%d.%d.%d" of the first, second and
// fourth (the agent's own version text leaves the third out).
std::string VersionText(const FileVersion& version, bool withThird = true);

// The product version of a file's version resource; false (silently) when the
// file has none.
bool GetFileVersion(const std::wstring& filePath, FileVersion& version);
// The agent service's dwCurrentState.
bool GetClientServiceStatus(uint32_t& state);
// The agent's folder: the parent of the parent product's folder + "iService\Tarn".
bool GetClientPath(std::wstring& clientPath);
// The installed agent executable's version.
bool GetAgentVersion(FileVersion& version);

// `folder` + "\" + `fileName`, adding the backslash only where it lacks one.
std::wstring ClientFile(const std::wstring& folder, const wchar_t* fileName);
