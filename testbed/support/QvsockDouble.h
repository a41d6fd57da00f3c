#pragma once
// The parent product's HTTP client library double (Qvsock_64x.dll): where it
// writes its journal and takes its behaviour from, and how tests and scripts
// set it up.
#include <windows.h>

#include <string>
#include <vector>

inline constexpr wchar_t kQvsockJournal[] = L"C:\\ZephTestBed\\qvsock_journal.txt";
inline constexpr wchar_t kQvsockBehaviourKey[] = L"SOFTWARE\\ZephTestBed\\Qvsock";
// REG_DWORD, absent = 1: what qvSendHttpToCRVLServer2 returns; 0 writes no answer file.
inline constexpr wchar_t kQvsockSendResultValue[] = L"SendResult";
// REG_DWORD, absent = 200: what it writes to *httpResponseCode.
inline constexpr wchar_t kQvsockHttpCodeValue[] = L"HttpCode";
// REG_SZ: the answer file's text (UTF-8), absent = kQvsockDefaultAnswer.
inline constexpr wchar_t kQvsockAnswerValue[] = L"Answer";
// REG_SZ, a file path: the answer file is a copy of that file's bytes, in
// place of Answer (huge or binary answers do not fit a registry text).
inline constexpr wchar_t kQvsockAnswerFromValue[] = L"AnswerFrom";
// REG_DWORD, nonzero: no answer file is written at all.
inline constexpr wchar_t kQvsockNoAnswerFileValue[] = L"NoAnswerFile";

inline constexpr char kQvsockDefaultAnswer[] = "{\"name\":\"errorCode\",\"value\":0}";
inline constexpr DWORD kQvsockDefaultHttpCode = 200;

namespace QvsockDouble {

// The double's file name; the build puts it in bin\parent, not beside the
// suites, so that only the parent product's install folder holds it.
inline constexpr wchar_t kFileName[] = L"Qvsock_64x.dll";
std::wstring BuiltPath(); // BinDir() + "parent\\Qvsock_64x.dll"

struct Behaviour {
    DWORD sendResult = 1;
    DWORD httpCode = kQvsockDefaultHttpCode;
    std::string answer = kQvsockDefaultAnswer;
    std::wstring answerFrom; // empty: the answer is `answer`
    bool noAnswerFile = false;
};
bool SetBehaviour(const Behaviour& behaviour);
// Answers with `bytes`, whatever their size, through a file of the test bed.
bool AnswerWith(const std::string& bytes);

// Lines of the journal in call order, empty when there is none:
// "qvSendHttpToCRVLServer2|path|flag|body|length|file|out|out|reserved|command".
std::vector<std::string> Journal();
void ClearJournal();
// The journal line of the plug-in's call that sends `body` with `command`.
inline std::string JournalLine(const std::string& body, const std::string& command) {
    return "qvSendHttpToCRVLServer2|corvale_tarn/command|0|" + body + "|" +
           std::to_string(body.size()) + "|.\\qvsock_response|out|out|0|Tarn+" + command;
}
// Deletes the behaviour key, the journal and the file of AnswerWith.
void Remove();

} // namespace QvsockDouble
