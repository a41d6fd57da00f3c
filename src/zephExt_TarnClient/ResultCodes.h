#pragma once
#include <cstdint>

// What the exports hand back to the host.
enum ResultCode : uint32_t {
    RESULT_SUCCESS = 0,
    RESULT_FAILED = 1,          // a command or notification failed while running
    RESULT_INVALID_REQUEST = 2, // parse error or failed validation
    RESULT_NO_HOST = 8,         // host binding unavailable (JSON exports)
    RESULT_GENERIC_FAILURE = 0x1040002,
    RESULT_BACKUP_FAILED = 0x1040003,
    RESULT_UNINSTALL_FAILED = 0x1040004,
    RESULT_REPLACE_FAILED = 0x1040005,
    RESULT_INSTALL_FAILED = 0x1040006,
    RESULT_ROLLBACK_FAILED = 0x1040007,
    RESULT_PARSELOG_FAILED = 0xFFFFFFFF,
    RESULT_PARSELOG_INVALID = 0xFFFFFFFE,
};
