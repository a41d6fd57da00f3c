#pragma once
// Journals of the test doubles: one line per call, on disk when the call returns.
#include <string>

// Appends `line` and a newline to the file, making its folder when missing.
void AppendJournalLine(const std::wstring& path, const std::string& line);
