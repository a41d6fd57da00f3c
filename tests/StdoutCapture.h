#pragma once
// What the code under test prints to the process's standard output (the
// debug-log client's only way of telling about a lost record).
#include <windows.h>

#include <io.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

// Runs `action` with the process's standard output sent to a file; returns what it printed.
template <typename Action> std::string CaptureStdout(Action action) {
    char path[MAX_PATH];
    GetTempPathA(MAX_PATH, path);
    strcat(path, "captured_stdout.txt");
    fflush(stdout);
    int saved = _dup(1);
    FILE* file = fopen(path, "w");
    _dup2(_fileno(file), 1);
    action();
    fflush(stdout);
    _dup2(saved, 1);
    _close(saved);
    fclose(file);
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}
