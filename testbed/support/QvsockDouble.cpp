#include "QvsockDouble.h"

#include "TestBed.h"

namespace {

const std::wstring kAnswerSource = L"C:\\ZephTestBed\\qvsock_answer.bin";

} // namespace

namespace QvsockDouble {

std::wstring BuiltPath() {
    return BinDir() + L"parent\\" + kFileName;
}

bool SetBehaviour(const Behaviour& behaviour) {
    if (behaviour.answerFrom.empty())
        TestBedRegistry::DeleteValue(kQvsockBehaviourKey, kQvsockAnswerFromValue);
    else if (!TestBedRegistry::WriteText(kQvsockBehaviourKey, kQvsockAnswerFromValue,
                                         behaviour.answerFrom))
        return false;
    return TestBedRegistry::WriteDword(kQvsockBehaviourKey, kQvsockSendResultValue,
                                       behaviour.sendResult) &&
           TestBedRegistry::WriteDword(kQvsockBehaviourKey, kQvsockHttpCodeValue,
                                       behaviour.httpCode) &&
           TestBedRegistry::WriteText(kQvsockBehaviourKey, kQvsockAnswerValue,
                                      Widen(behaviour.answer)) &&
           TestBedRegistry::WriteDword(kQvsockBehaviourKey, kQvsockNoAnswerFileValue,
                                       behaviour.noAnswerFile ? 1 : 0);
}

bool AnswerWith(const std::string& bytes) {
    Behaviour behaviour;
    behaviour.answerFrom = kAnswerSource;
    return CreateFolderTree(kAnswerSource.substr(0, kAnswerSource.rfind(L'\\'))) &&
           WriteFileBytes(kAnswerSource, bytes) && SetBehaviour(behaviour);
}

std::vector<std::string> Journal() {
    return JournalLines(kQvsockJournal);
}

void ClearJournal() {
    DeleteFileW(kQvsockJournal);
}

void Remove() {
    TestBedRegistry::DeleteTree(kQvsockBehaviourKey);
    ClearJournal();
    DeleteFileW(kAnswerSource.c_str());
}

} // namespace QvsockDouble
