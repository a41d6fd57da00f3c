// The response check on its own: the frames themselves are compared where
// they cross the real pipe (agent_control_tests, command_tests).
#include "TarnAgentProtocol.h"

#include <gtest/gtest.h>

namespace {

std::string Response(uint32_t identifier, const std::string& payload, uint32_t type = 0,
                     uint32_t magic = TN_FRAME_MAGIC) {
    std::string frame = BuildCommandFrame(type, identifier, payload);
    memcpy(&frame[0], &magic, sizeof(magic));
    return frame;
}

TEST(ProtocolTest, ResponsesAreJudgedAsTheyArrive) {
    TnFrameHeader header;
    const std::string whole = Response(9, std::string(5000, 'p'));
    // A header split over two messages (20 + 16 bytes), then a long payload.
    EXPECT_EQ(CheckResponse(whole.substr(0, 20), header), ResponseState::NeedMore);
    EXPECT_EQ(CheckResponse(whole.substr(0, 36), header), ResponseState::NeedMore);
    EXPECT_EQ(header.dwIdentifier, 9u);
    EXPECT_EQ(CheckResponse(whole.substr(0, 5035), header), ResponseState::NeedMore);
    EXPECT_EQ(CheckResponse(whole + "extra", header), ResponseState::Complete);
    EXPECT_EQ(CheckResponse(Response(1, "", 0, 0x4E545651), header), ResponseState::BadMagic);
    EXPECT_EQ(CheckResponse(Response(1, "", TNIPCOMMAND_STOP_SERVICE), header),
              ResponseState::NotResponse);
    // A length near the 32-bit limit must not wrap into "complete".
    std::string huge = Response(1, "");
    uint32_t length = 0xFFFFFFF0;
    memcpy(&huge[16], &length, sizeof(length));
    EXPECT_EQ(CheckResponse(huge + std::string(64, 'x'), header), ResponseState::NeedMore);
}

} // namespace
