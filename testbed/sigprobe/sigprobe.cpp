// A DLL with one export and some code, so tests have a code section to alter.
#include <windows.h>

extern "C" __declspec(dllexport) int SigProbeSum(int count) {
    int sum = 0;
    for (int i = 1; i <= count; ++i)
        sum += i * i;
    return sum;
}
