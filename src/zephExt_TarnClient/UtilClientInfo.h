#pragma once
#include <cstdint>

struct FileVersion {
    uint32_t major = 0;
    uint32_t minor = 0;
    uint32_t third = 0;
    uint32_t build = 0;
};

// The installed agent's version; false when it can't be read.
bool GetAgentVersion(FileVersion& version);
