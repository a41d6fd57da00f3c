// Cost of zephExt_ParseLog per valid detection file, as a ratio to the floor
// of any implementation: open the file, read its first line, close it. Both
// run over the same files in the same process, interleaved round by round;
// the table shows the median of the rounds. Prints, never asserts.
#include "TestBed.h"
#include "zephExt_TarnClient.h"

#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

namespace {

constexpr int kFiles = 200;
constexpr int kRounds = 15;

const char kShortRecord[] =
    "f, 0, 1, 00:1A:2B:3C:4D:5E, IP, 00-1A-2B-3C-4D-5F, 00 1A 2B 3C 4D 60, TCP, SYN ACK DF=1 "
    "IPTotalLen=60, 192.168.0.1, 49152, fe80::1, 443, 60, -1, 0, 4294967295, 3, 0x4e6f7465, 0, "
    "100, 7, 12, 0, 0x474554, , 1, 1700000000, 1699999999";
const char kLongRecord[] =
    "d, 1, 0, 00:1A:2B:3C:4D:5E, 0x86DD, 00-1A-2B-3C-4D-5F, 00-1A-2B-3C-4D-60, UDP, , "
    "2001:db8::7, 53, 2001:db8::1, 5353, 512, 0, 1, 17, 2, , 0, 0, 0, 4, , 0x0102030405, , "
    "a, b, 6e6f74657061642e657865, c, d, e, 3, 1700000000, 1699999999";

double Now() {
    static LARGE_INTEGER frequency = [] {
        LARGE_INTEGER f;
        QueryPerformanceFrequency(&f);
        return f;
    }();
    LARGE_INTEGER counter;
    QueryPerformanceCounter(&counter);
    return static_cast<double>(counter.QuadPart) / static_cast<double>(frequency.QuadPart);
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

} // namespace

int main() {
    SimulatedInstall::Remove();
    if (!SimulatedInstall::Create()) {
        std::printf("cannot set up the simulated installation\n");
        return 1;
    }
    std::wstring folder = std::wstring(SimulatedInstall::kFolder) + L"bench\\";
    CreateDirectoryW(folder.c_str(), nullptr);
    std::vector<std::wstring> files;
    for (int i = 0; i < kFiles; ++i) {
        files.push_back(folder + L"detection_" + std::to_wstring(i) + L".log");
        std::ofstream(files.back().c_str(), std::ios::binary)
            << (i % 2 ? kLongRecord : kShortRecord) << "\r\nsecond line\r\n";
    }

    HMODULE plugin = LoadLibraryW(BinPath(L"zephExt_TarnClient.dll").c_str());
    auto parseLog = reinterpret_cast<decltype(&zephExt_ParseLog)>(
        reinterpret_cast<void*>(GetProcAddress(plugin, "zephExt_ParseLog")));
    auto release = reinterpret_cast<decltype(&zephExt_Free)>(
        reinterpret_cast<void*>(GetProcAddress(plugin, "zephExt_Free")));
    if (!parseLog || !release) {
        std::printf("cannot load the plug-in\n");
        return 1;
    }

    size_t sink = 0;
    auto floor = [&] {
        for (const std::wstring& file : files) {
            std::ifstream stream(file.c_str());
            std::string line;
            std::getline(stream, line);
            stream.close();
            sink += line.size();
        }
    };
    int failures = 0;
    auto parse = [&] {
        for (const std::wstring& file : files) {
            wchar_t type[64];
            char* data = nullptr;
            uint32_t size = 0;
            failures += parseLog(file.c_str(), 64, type, &data, &size) != 0;
            sink += size;
            release(data);
        }
    };

    floor();
    parse(); // binds to the host once, warms the file cache
    std::vector<double> floorTimes, parseTimes;
    for (int round = 0; round < kRounds; ++round) {
        double start = Now();
        floor();
        double middle = Now();
        parse();
        double end = Now();
        floorTimes.push_back((middle - start) / kFiles);
        parseTimes.push_back((end - middle) / kFiles);
    }
    double floorMedian = Median(floorTimes);
    double parseMedian = Median(parseTimes);

    std::printf("%d valid files (short and long records), %d rounds, median per file\n", kFiles,
                kRounds);
    std::printf("| measure | per file (us) | ratio to floor |\n|---|---|---|\n");
    std::printf("| open + read first line + close (floor) | %.1f | 1.00 |\n", floorMedian * 1e6);
    std::printf("| zephExt_ParseLog + zephExt_Free | %.1f | %.2f |\n", parseMedian * 1e6,
                parseMedian / floorMedian);
    if (failures)
        std::printf("%d calls did not succeed\n", failures);
    FreeLibrary(plugin);
    SimulatedInstall::Remove();
    return failures || sink == 0 ? 1 : 0;
}
