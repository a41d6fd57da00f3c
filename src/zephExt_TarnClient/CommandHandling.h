#pragma once
// What the command handling shares with the policy flag handling.
#include <cstdint>

// The outcome of the last install or policy change the server should hear
// about; 0 when nothing is pending. Process-wide, unguarded.
extern int32_t g_InstallStatusCode;

// Applies a policy command's cfg_flag: 1 enable, 2 disable, 4 ignore.
// False for an unknown flag or when the outcome could not be reported.
bool handleNotifyFlag(int flag);

// ServiceStatus under the agent's key: 1 after a start, 0 after a stop.
bool WriteServiceStatus(uint32_t status);
