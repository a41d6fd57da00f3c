#include "TarnAgentProtocol.h"

#include <cstring>

std::string BuildCommandFrame(uint32_t commandType, uint32_t identifier,
                              const std::string& payload) {
    TnFrameHeader header;
    header.dwCmdType = commandType;
    header.dwIdentifier = identifier;
    header.dwDataLength = static_cast<uint32_t>(payload.size());
    std::string frame(reinterpret_cast<const char*>(&header), sizeof(header));
    return frame + payload;
}

ResponseState CheckResponse(const std::string& received, TnFrameHeader& header) {
    if (received.size() < TN_FRAME_HEADER_SIZE)
        return ResponseState::NeedMore;
    memcpy(&header, received.data(), TN_FRAME_HEADER_SIZE);
    if (header.magic != TN_FRAME_MAGIC)
        return ResponseState::BadMagic;
    if (header.dwCmdType != TNIPCOMMAND_RESPONSE)
        return ResponseState::NotResponse;
    uint64_t announced = uint64_t(header.dwDataLength) + TN_FRAME_HEADER_SIZE;
    return received.size() >= announced ? ResponseState::Complete : ResponseState::NeedMore;
}
