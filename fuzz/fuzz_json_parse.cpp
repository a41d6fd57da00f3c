// Differential: the plug-in's parse of an outside JSON text must give what
// RapidJSON's default (recursive) parser gives for it: success with an equal
// document, or the same error code at the same offset.
#include "JsonRequest.h"
#include "JsonText.h"

#include "Json.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {
// The default parser recurses once per level; beyond this the comparison
// would measure the fuzzer's stack, not the parse.
constexpr ptrdiff_t kMaxOpenings = 400;

[[noreturn]] void Disagree(const char* what, long ours, long theirs) {
    std::fprintf(stderr, "parsers disagree on %s: ours %ld, default %ld\n", what, ours, theirs);
    std::abort();
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const char* text = reinterpret_cast<const char*>(data);
    if (size > 0x7FFFFFFF ||
        std::count(text, text + size, '[') + std::count(text, text + size, '{') > kMaxOpenings)
        return 0;
    JsonRequest ours;
    bool parsed = ours.Parse(static_cast<int32_t>(size), text);
    JsonDocument theirs;
    theirs.Parse(size ? text : "", size);
    if (parsed == theirs.HasParseError())
        Disagree("success", parsed, !theirs.HasParseError());
    if (ours.ParseErrorCode() != theirs.GetParseError())
        Disagree("error code", ours.ParseErrorCode(), theirs.GetParseError());
    if (ours.ParseErrorOffset() != theirs.GetErrorOffset())
        Disagree("error offset", static_cast<long>(ours.ParseErrorOffset()),
                 static_cast<long>(theirs.GetErrorOffset()));
    // Compared as written out: operator== finds duplicate member names by their first.
    if (parsed && CompactJson(ours.Document()) != CompactJson(theirs))
        Disagree("document", 1, 0);
    return 0;
}
