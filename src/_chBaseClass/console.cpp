// Keys and lines made of the bytes that a terminal sends.
#include <string.h>

#include "qor/BaseHelper/Console.h"

namespace QOR_BaseHelper {

namespace {

struct keySequence {
    const char* lpszSequence;
    int nKey;
};

// In the order in which they are tried.
constexpr keySequence s_arrKey[] = {
    {"\x1b[[A", keyF1},     {"\x1b[[B", keyF2},       {"\x1b[[C", keyF3},   {"\x1b[[D", keyF4},
    {"\x1b[[E", keyF5},     {"\x1b[17~", keyF6},      {"\x1b[18~", keyF7},  {"\x1b[19~", keyF8},
    {"\x1b[20~", keyF9},    {"\x1b[21~", keyF10},     {"\x1b[23~", keyF11}, {"\x1b[24~", keyF12},
    {"\x1b[5~", keyPageUp}, {"\x1b[6~", keyPageDown}, {"\x1b[4~", keyEnd},  {"\x1b[1~", keyHome},
    {"\x1b[D", keyLeft},    {"\x1b[A", keyUp},        {"\x1b[C", keyRight}, {"\x1b[B", keyDown},
    {"\x1b[2~", keyInsert}, {"\x1b[3~", keyDelete},
};

}  // namespace

int chStdInput::getch() {
    PeekKeyToBuffer();
    return TransBufferToKey();
}

// The buffer ends with a NUL, so a sequence that has not arrived completely fits no row.
int chStdInput::TransBufferToKey() {
    if (m_nKeyCount == 0)
        return -1;
    for (const keySequence& row : s_arrKey) {
        const size_t nLength = strlen(row.lpszSequence);
        if (strncmp(m_arrKey, row.lpszSequence, nLength) != 0)
            continue;
        RemoveKeys(static_cast<int>(nLength));
        return row.nKey;
    }
    const int nKey = static_cast<unsigned char>(m_arrKey[0]);
    RemoveKeys(1);
    return nKey;
}

void chStdInput::RemoveKeys(int n) {
    if (n < 1 || n > m_nKeyCount)
        return;
    m_nKeyCount -= n;
    memmove(m_arrKey, m_arrKey + n, static_cast<size_t>(m_nKeyCount));
    m_arrKey[m_nKeyCount] = 0;
}

QOR_StringHelper::chReferenceStringT<char> chConsoleLineInput::getInput() {
    QOR_StringHelper::chReferenceStringT<char> strLine;
    for (;;) {
        const int nKey = getch();
        if (nKey == -1 || nKey > 127)
            return strLine;
        if (nKey == '\n') {
            strLine.CutFromObject(m_strLine);
            return strLine;
        }
        if (nKey == '\b')
            m_strLine.ReverseDeleteLetters(1);
        else
            m_strLine += static_cast<char>(nKey);
    }
}

}  // namespace QOR_BaseHelper
