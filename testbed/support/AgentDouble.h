#pragma once
// Drives the agent double (TarnAgent.exe) for tests and scripts: places it in
// the client folder, sets what it does, runs its installer and moves its
// service through every state, and removes every trace of it again.
#include <windows.h>

#include <string>
#include <vector>

namespace AgentDouble {

// The parent of SimulatedInstall::kFolder + "iService\\Tarn", without a
// trailing backslash: where the plug-in looks for the agent.
extern const wchar_t kClientFolder[]; // L"C:\\ZephTestBed\\iService\\Tarn"
extern const wchar_t kUpdateSource[]; // L"C:\\ZephTestBed\\update", where updates come from

// TarnAgent.exe has product version 3.2.1045.7, TarnAgent_3.3.exe 3.3.1100.9;
// the file versions of both differ from their product versions.
enum class Version { V3_2, V3_3 };

// How the service answers each frame on the agent pipe.
enum class PipeAnswer : DWORD {
    Normal = 0,          // a response frame with the command's identifier
    WrongMagic = 1,      // a response whose magic is not the agent's
    StopType = 2,        // a frame of type 3 instead of a response
    WrongIdentifier = 3, // a response to the identifier after the command's
    SplitHeader = 4,     // the response in two messages: 20 header bytes, then the rest
    NoAnswer = 5,        // reads the command, journals it and closes the pipe instance
    // 12 bytes of noise, fewer than a header, then the instance is closed (a
    // client waiting for the rest of a header would otherwise wait for ever).
    Garbage = 6,
    // A response whose header announces 64 payload bytes more than follow,
    // then the instance is closed: the agent going away mid-message.
    CutOff = 7,
};

// Read by the double when it starts: the installer and uninstaller at their
// run, the service when the Service Control Manager starts it.
struct Behaviour {
    DWORD installExitCode = 0; // "-install" exits with it (signed: -110 is 0xFFFFFF92)
    DWORD deleteExitCode = 0;  // "-delete" exits with it
    DWORD startDelayMs = 0;    // START_PENDING for this long, the check point advancing
    DWORD stopDelayMs = 0;     // STOP_PENDING for this long, the check point advancing
    DWORD startExitCode = 0;   // not 0: after START_PENDING it stops with this dwWin32ExitCode
    // Stays in STOP_PENDING with a frozen check point until its process is
    // killed; the wait hint it reports is stopDelayMs.
    bool stuckStopPending = false;
    PipeAnswer pipeAnswer = PipeAnswer::Normal;
    DWORD answerRetCode = 0;      // dwTxRetCode of every response
    DWORD answerPayloadBytes = 0; // payload bytes of every response (4964 makes a 5000-byte reply)
    // A byte-mode pipe: a client that asks for message read mode is refused.
    bool bytePipe = false;
    DWORD answerDelayMs = 0; // each answer (or close) comes this much later
};
bool SetBehaviour(const Behaviour& behaviour);

// Copies the chosen TarnAgent build (as "TarnAgent.exe") and hdc.exe into kClientFolder.
bool Place(Version version = Version::V3_2);
// The 3.3 build (as "TarnAgent.exe") with its own default configuration in kUpdateSource.
bool PlaceUpdateSource();
// Runs "<client folder>\TarnAgent.exe -install" and answers its exit code.
DWORD RunInstall();
// Starts the service and waits until it reports `until` (default SERVICE_RUNNING) or the timeout
// passes.
bool Start(DWORD until = SERVICE_RUNNING, DWORD timeoutMs = 15000);
// Sends a control (SERVICE_CONTROL_STOP, _PAUSE, _CONTINUE) and waits for the state `until` or the
// timeout.
bool Control(DWORD control, DWORD until, DWORD timeoutMs = 15000);
// Placed (3.2) and installed as a service with `behaviour`, not started;
// false unless its installer exits with the behaviour's code.
bool Install(const Behaviour& behaviour = {});
// The service (re)started with `behaviour`, which it reads as it starts;
// placed and installed first when it is not there.
bool Run(const Behaviour& behaviour = {}, DWORD until = SERVICE_RUNNING);
// The service's current state, 0 when the service does not exist.
DWORD State();
// Whether the service reports `state` before the timeout passes.
bool WaitForState(DWORD state, DWORD timeoutMs = 15000);
// Whatever state it is in: stops the service (killing its process if it is stuck), deletes it,
// deletes kClientFolder, the behaviour key and the journal. Safe to call when nothing exists.
void Remove();
// Every frame the service read from the agent pipe, whole and in order (one
// pipe message each), from the journal.
std::vector<std::string> ReceivedFrames();
// The same, each without its 16-byte time stamp, so frames of two runs compare.
std::vector<std::string> ReceivedFramesUnstamped();

// Lines of the double's journal in the order written ("install", "delete",
// "service start", "service stop", "control <n>", and once a client has
// written to the agent pipe "frame <hex>" and "control pipe-stop"; "pipe error
// <n>" when the pipe cannot be served); empty when there is none.
std::vector<std::string> Journal();

} // namespace AgentDouble
