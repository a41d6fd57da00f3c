#pragma once
// Where an archive entry is extracted to. Pure code so that a native fuzz
// target can drive it too.
#include <string>

// The archive's name with its '/' separators turned into backslashes.
std::string EntryNameWithBackslashes(std::string name);
// True when an entry name stays inside the target: no root, drive or "..".
bool IsSafeEntryName(const std::string& name);
// The file an entry (backslashes only) is written to under `targetFolder`:
// with its folders, or only its last part when paths are not kept.
std::string EntryOutputPath(const std::string& targetFolder, const std::string& entryName,
                            bool keepPaths);
