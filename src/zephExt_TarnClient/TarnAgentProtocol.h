#pragma once
// The agent's command frames: a 36-byte header, then the payload. Pure code
// (no system calls) so that a native fuzz target can drive it too.
#include <cstdint>
#include <string>

constexpr uint32_t TN_FRAME_MAGIC = 0x5156544E; // "NTVQ" on the wire
constexpr size_t TN_FRAME_HEADER_SIZE = 36;

enum TnCommandType : uint32_t {
    TNIPCOMMAND_RESPONSE = 0,
    TNIPCOMMAND_NOTIFY = 1,
    TNIPCOMMAND_SELF_PROTECTION_STATUS = 2,
    TNIPCOMMAND_STOP_SERVICE = 3,
    TNIPCOMMAND_CLEAR_DRIVER_CONFIG = 105,
};

// Little-endian on the wire, as on the machines that run the agent.
struct TnFrameHeader {
    uint32_t magic = TN_FRAME_MAGIC;
    uint32_t dwCmdType = 0;
    uint32_t dwIdentifier = 0;
    uint32_t dwTxRetCode = 0;
    uint32_t dwDataLength = 0;
    uint16_t timestamp[8] = {}; // the sender's UTC SYSTEMTIME, set just before sending
};
static_assert(sizeof(TnFrameHeader) == TN_FRAME_HEADER_SIZE, "the agent reads 36 bytes");

// A command frame: header (timestamp still zero) and payload.
std::string BuildCommandFrame(uint32_t commandType, uint32_t identifier,
                              const std::string& payload = std::string());

enum class ResponseState {
    NeedMore,    // fewer bytes than the header, or than the header announces
    Complete,    // header and the whole announced payload are there
    BadMagic,    // not a frame of the agent
    NotResponse, // a frame, but not of type TNIPCOMMAND_RESPONSE
};

// Judges what has arrived of a response so far; fills `header` once the
// first 36 bytes are there. Bytes beyond the announced length are ignored.
ResponseState CheckResponse(const std::string& received, TnFrameHeader& header);
