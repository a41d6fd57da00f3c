#pragma once
// Where the event-notification library double (qvnotify.dll) writes its
// journal and takes its behaviour from.
#include <windows.h>

inline constexpr wchar_t kQvNotifyJournal[] = L"C:\\ZephTestBed\\qvnotify_journal.txt";
inline constexpr wchar_t kQvNotifyBehaviourKey[] = L"SOFTWARE\\ZephTestBed\\QvNotify";
// REG_DWORD, nonzero: OpenEventSource answers kQvNotifyOpenFailure and no handle.
inline constexpr wchar_t kQvNotifyFailOpenValue[] = L"FailOpenEventSource";

// Every export answers 0 for success.
inline constexpr int kQvNotifyOpenFailure = ERROR_ACCESS_DENIED;
// The one event source the double hands out.
inline constexpr ULONG_PTR kQvNotifySourceHandle = 0x51;
