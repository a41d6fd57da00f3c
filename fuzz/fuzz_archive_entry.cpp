// An archive entry's name and the file it would be extracted to. Property:
// an accepted name, with paths kept or not, never leads outside the target
// folder once the path is resolved as Windows resolves "." and "..".
#include "EntryPath.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

const std::string kTarget = "C:\\Target\\Folder";

// The components left after "." and ".." are resolved and empty ones dropped;
// a ".." above the root leaves `escaped` set.
std::vector<std::string> Resolve(const std::string& path, bool& escaped) {
    std::vector<std::string> parts;
    escaped = false;
    size_t start = 0;
    for (;;) {
        size_t end = path.find('\\', start);
        std::string part = path.substr(start, end == std::string::npos ? end : end - start);
        if (part == "..") {
            if (parts.empty())
                escaped = true;
            else
                parts.pop_back();
        } else if (!part.empty() && part != ".") {
            parts.push_back(part);
        }
        if (end == std::string::npos)
            return parts;
        start = end + 1;
    }
}

bool Inside(const std::string& path) {
    bool escaped = false;
    std::vector<std::string> target = Resolve(kTarget, escaped);
    std::vector<std::string> resolved = Resolve(path, escaped);
    if (escaped || resolved.size() < target.size())
        return false;
    for (size_t i = 0; i < target.size(); ++i)
        if (resolved[i] != target[i])
            return false;
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // The archive library hands over at most 260 characters, NUL-terminated.
    std::string raw(reinterpret_cast<const char*>(data), size < 260 ? size : 260);
    raw = raw.substr(0, raw.find('\0'));
    const std::string name = EntryNameWithBackslashes(raw);
    if (name.find('/') != std::string::npos)
        std::abort();
    if (!IsSafeEntryName(name))
        return 0;
    for (bool keepPaths : {true, false}) {
        std::string output = EntryOutputPath(kTarget, name, keepPaths);
        if (output.compare(0, kTarget.size() + 1, kTarget + "\\") != 0 || !Inside(output))
            std::abort();
    }
    return 0;
}
