#include "EntryPath.h"

namespace {

std::string JoinPath(const std::string& folder, const std::string& name) {
    if (folder.empty() || folder.back() == '\\')
        return folder + name;
    return folder + "\\" + name;
}

} // namespace

std::string EntryNameWithBackslashes(std::string name) {
    for (char& c : name)
        if (c == '/')
            c = '\\';
    return name;
}

bool IsSafeEntryName(const std::string& name) {
    if (name.empty() || name[0] == '\\' || name.find(':') != std::string::npos)
        return false;
    size_t start = 0;
    while (start <= name.size()) {
        size_t end = name.find('\\', start);
        if (name.compare(start, end == std::string::npos ? std::string::npos : end - start, "..") ==
            0)
            return false;
        if (end == std::string::npos)
            break;
        start = end + 1;
    }
    return true;
}

std::string EntryOutputPath(const std::string& targetFolder, const std::string& entryName,
                            bool keepPaths) {
    std::string relative = entryName;
    if (!keepPaths)
        relative = entryName.substr(entryName.rfind('\\') + 1);
    return JoinPath(targetFolder, relative);
}
