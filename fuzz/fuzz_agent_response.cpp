// The agent's response as it arrives in pieces: the first byte picks where the
// rest is cut, each piece is appended and the whole so far judged, as the
// client does after every read.
#include "TarnAgentProtocol.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

bool Decided(ResponseState state) {
    return state != ResponseState::NeedMore;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0)
        return 0;
    const size_t piece = data[0] % 64 + 1;
    const std::string stream(reinterpret_cast<const char*>(data + 1), size - 1);

    std::string received;
    ResponseState state = ResponseState::NeedMore;
    TnFrameHeader header;
    for (size_t at = 0; at < stream.size() && !Decided(state); at += piece) {
        received += stream.substr(at, piece);
        state = CheckResponse(received, header);
    }
    // However the bytes were cut, the verdict is the one on the first prefix
    // that decides it, and no verdict comes before the header is whole.
    for (size_t length = 0; length <= received.size(); ++length) {
        TnFrameHeader other;
        ResponseState earlier = CheckResponse(received.substr(0, length), other);
        if (length < TN_FRAME_HEADER_SIZE && Decided(earlier))
            std::abort();
        if (Decided(earlier) && earlier != state)
            std::abort();
    }
    if (state == ResponseState::Complete &&
        (memcmp(&header, received.data(), TN_FRAME_HEADER_SIZE) != 0 ||
         header.magic != TN_FRAME_MAGIC || header.dwCmdType != TNIPCOMMAND_RESPONSE ||
         received.size() < uint64_t(header.dwDataLength) + TN_FRAME_HEADER_SIZE))
        std::abort();
    return 0;
}
