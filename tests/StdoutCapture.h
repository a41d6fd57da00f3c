#pragma once
// What the code under test prints to the process's standard output (the
// debug-log client's only way of telling about a lost record).
#include "TestBed.h"

#include <io.h>

#include <cstdio>
#include <string>

// Runs `action` with the process's standard output sent to a file; returns what it printed.
template <typename Action> std::string CaptureStdout(Action action) {
    const std::wstring path = TempPath(L"captured_stdout.txt");
    fflush(stdout);
    int saved = _dup(1);
    FILE* file = _wfopen(path.c_str(), L"wb");
    _dup2(_fileno(file), 1);
    action();
    fflush(stdout);
    _dup2(saved, 1);
    _close(saved);
    fclose(file);
    std::string printed;
    ReadFileBytes(path, printed);
    return printed;
}
