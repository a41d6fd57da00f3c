#include "UtilClientInfo.h"

// The agent's version resource is read by a later change; until then the
// version is reported as unreadable and callers use their fallback.
bool GetAgentVersion(FileVersion& /*version*/) {
    return false;
}
