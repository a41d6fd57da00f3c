// Records per second through the record split and verifyLog, natively.
#include "eventLogValidation.h"

#include <chrono>
#include <cstdio>
#include <string>

namespace {

const struct {
    const char* name;
    std::string line;
} kRecords[] = {
    {"short form, valid",
     "f, 0, 1, 00:1A:2B:3C:4D:5E, IP, 00-1A-2B-3C-4D-5F, 00 1A 2B 3C 4D 60, TCP, SYN ACK DF=1 "
     "IPTotalLen=60, 192.168.0.1, 49152, fe80::1, 443, 60, -1, 0, 4294967295, 3, 0x4e6f7465, 0, "
     "100, 7, 12, 0, 0x474554, , 1, 1700000000, 1699999999"},
    {"long form, valid",
     "d, 1, 0, 00:1A:2B:3C:4D:5E, 0x86DD, 00-1A-2B-3C-4D-5F, 00-1A-2B-3C-4D-60, UDP, , "
     "2001:db8::7, 53, 2001:db8::1, 5353, 512, 0, 1, 17, 2, , 0, 0, 0, 4, , 0x0102030405, , "
     "a, b, 6e6f74657061642e657865, c, d, e, 3, 1700000000, 1699999999"},
    {"invalid at the field count", "f, 0, 1"},
    {"invalid at the last field",
     "f, 0, 1, , , , , , , , , , , 0, 0, 0, 0, 0, , 0, 0, 0, 0, , , , 0, 0, 00"},
};

} // namespace

int main() {
    std::printf("| record | records per second |\n|---|---|\n");
    for (const auto& record : kRecords) {
        const int count = 200000;
        int valid = 0;
        auto start = std::chrono::steady_clock::now();
        for (int i = 0; i < count; ++i)
            valid += verifyLog(splitLogRecord(record.line)) ? 1 : 0;
        std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
        std::printf("| %s | %.0f |\n", record.name, count / elapsed.count());
        if (valid != 0 && valid != count)
            return 1;
    }
    return 0;
}
