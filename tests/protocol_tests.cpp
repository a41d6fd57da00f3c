#include "TarnAgentProtocol.h"

#include <gtest/gtest.h>

namespace {

std::string Hex(const std::string& bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (unsigned char byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

std::string Response(uint32_t identifier, const std::string& payload, uint32_t type = 0,
                     uint32_t magic = TN_FRAME_MAGIC) {
    std::string frame = BuildCommandFrame(type, identifier, payload);
    memcpy(&frame[0], &magic, sizeof(magic));
    return frame;
}

TEST(ProtocolTest, CommandFramesCarryMagicTypeIdentifierAndPayload) {
    EXPECT_EQ(Hex(BuildCommandFrame(TNIPCOMMAND_STOP_SERVICE, 1)), "4e545651"
                                                                   "03000000"
                                                                   "01000000"
                                                                   "00000000"
                                                                   "00000000" +
                                                                       std::string(32, '0'));
    std::string status =
        BuildCommandFrame(TNIPCOMMAND_SELF_PROTECTION_STATUS, 0x01020304, R"({"service":1})");
    EXPECT_EQ(status.size(), 36u + 13u);
    EXPECT_EQ(Hex(status.substr(0, 20)), "4e545651"
                                         "02000000"
                                         "04030201"
                                         "00000000"
                                         "0d000000");
    EXPECT_EQ(status.substr(36), R"({"service":1})"); // no terminator
    EXPECT_EQ(Hex(BuildCommandFrame(TNIPCOMMAND_CLEAR_DRIVER_CONFIG, 7).substr(4, 4)), "69000000");
}

TEST(ProtocolTest, ResponsesAreJudgedAsTheyArrive) {
    TnFrameHeader header;
    const std::string whole = Response(9, std::string(5000, 'p'));
    // A header split over two messages (20 + 16 bytes), then a long payload.
    EXPECT_EQ(CheckResponse(whole.substr(0, 20), header), ResponseState::NeedMore);
    EXPECT_EQ(CheckResponse(whole.substr(0, 36), header), ResponseState::NeedMore);
    EXPECT_EQ(header.dwIdentifier, 9u);
    EXPECT_EQ(header.dwDataLength, 5000u);
    EXPECT_EQ(CheckResponse(whole.substr(0, 5035), header), ResponseState::NeedMore);
    EXPECT_EQ(CheckResponse(whole, header), ResponseState::Complete);
    EXPECT_EQ(CheckResponse(whole + "extra", header), ResponseState::Complete);
    EXPECT_EQ(CheckResponse(Response(1, ""), header), ResponseState::Complete);
}

TEST(ProtocolTest, ForeignFramesAreRefusedOnTheirHeader) {
    TnFrameHeader header;
    EXPECT_EQ(CheckResponse(Response(1, "", 0, 0x4E545651), header), ResponseState::BadMagic);
    EXPECT_EQ(CheckResponse(Response(1, "", TNIPCOMMAND_STOP_SERVICE), header),
              ResponseState::NotResponse);
    EXPECT_EQ(header.dwCmdType, 3u);
    // A length near the 32-bit limit must not wrap into "complete".
    std::string huge = Response(1, "");
    uint32_t length = 0xFFFFFFF0;
    memcpy(&huge[16], &length, sizeof(length));
    EXPECT_EQ(CheckResponse(huge + std::string(64, 'x'), header), ResponseState::NeedMore);
}

} // namespace
