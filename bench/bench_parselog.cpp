// Cost of zephExt_ParseLog per valid detection file, as a ratio to the floor
// of any implementation: open the file, read its first line, close it. Both
// run over the same files in the same process, interleaved round by round;
// the table shows the median of the rounds. Prints, never asserts.
#include "BenchTiming.h"
#include "TestBed.h"
#include "zephExt_TarnClient.h"

#include <windows.h>

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
    bench::Measure floorTimes{"ifstream open + getline + close", {}};
    bench::Measure parseTimes{"zephExt_ParseLog + zephExt_Free", {}};
    for (int round = 0; round < kRounds; ++round) {
        bench::Time(floorTimes.times, kFiles, floor);
        bench::Time(parseTimes.times, kFiles, parse);
    }

    std::printf("%d valid files (short and long records), %d rounds, median per file\n", kFiles,
                kRounds);
    bench::Table table("file", bench::kMicroseconds);
    table.Row(parseTimes, floorTimes);
    table.Print();
    if (failures)
        std::printf("%d calls did not succeed\n", failures);
    FreeLibrary(plugin);
    SimulatedInstall::Remove();
    return failures || sink == 0 ? 1 : 0;
}
