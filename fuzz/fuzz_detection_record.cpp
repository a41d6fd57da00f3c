// One detection-log line: the record split, verifyLog and every field rule.
#include "eventLogValidation.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string line(reinterpret_cast<const char*>(data), size);
    std::vector<std::string> fields = splitLogRecord(line);

    // The split cuts at every ", " and nowhere else: no field holds one, and
    // joined again the fields are the line. Empty fields stay.
    std::string joined;
    for (size_t i = 0; i < fields.size(); ++i) {
        if (fields[i].find(", ") != std::string::npos)
            std::abort();
        joined += (i ? ", " : "") + fields[i];
    }
    if (joined != line)
        std::abort();

    verifyLog(fields);
    for (unsigned bits : {8u, 16u, 32u, 64u}) {
        isValidNumber(line, bits, false);
        isValidNumber(line, bits, true);
    }
    isValidHexText(line);
    isValidMac(line);
    isValidFrameType(line);
    isValidProtocol(line);
    isValidFlags(line);
    isValidIp(line);
    return 0;
}
