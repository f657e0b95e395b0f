// Rows of the live table, as text and as packets.
#include "table.h"

#include <stdio.h>
#include <string.h>

namespace device {

namespace {

// A fixed-point value as text.
std::string valueText(int nValue, int nUnit, int nDigit) {
    if (nValue < 0)
        return "?";
    char szText[32];
    snprintf(szText, sizeof(szText), "%.*f", nDigit, nValue / static_cast<double>(nUnit));
    return szText;
}

}  // namespace

const rowText& columnTitles() {
    static const rowText arrTitle = {"row", "reading", "cpu %", "memory %", "load", "alarm"};
    return arrTitle;
}

rowText textOf(const row& objRow) {
    return {std::to_string(objRow.m_nNumber),
            valueText(objRow.m_anValue[fieldNumber], 1, 0),
            valueText(objRow.m_anValue[fieldCpu], 10, 1),
            valueText(objRow.m_anValue[fieldMemory], 10, 1),
            valueText(objRow.m_anValue[fieldLoad], 100, 2),
            objRow.m_bAlarm ? "ALARM" : "-"};
}

std::string lineOf(const rowText& arrText) {
    char szLine[200];
    snprintf(szLine, sizeof(szLine), "%5s %9s %8s %9s %7s  %s", arrText[0].c_str(), arrText[1].c_str(),
             arrText[2].c_str(), arrText[3].c_str(), arrText[4].c_str(), arrText[5].c_str());
    return szLine;
}

void askValues(row& objRow) {
    reading objReading = {};
    const bool bAnswered = askRecord(nameController, MSG_QUERY, timeoutQuery, objReading);
    const uint32_t auValue[fieldCount] = {objReading.m_uNumber, objReading.m_uCpu, objReading.m_uMemory,
                                          objReading.m_uLoad};
    for (unsigned int uField = 0; uField < fieldCount; ++uField)
        objRow.m_anValue[uField] = bAnswered ? static_cast<int>(auValue[uField]) : -1;
}

packet packRow(const row& objRow) {
    using QOR_MiscHelper::chHost2BE;
    packet objPacket;
    objPacket.m_auNumber[0] = chHost2BE(static_cast<unsigned int>(objRow.m_nNumber));
    for (unsigned int uField = 0; uField < fieldCount; ++uField)
        objPacket.m_auNumber[uField + 1] = chHost2BE(static_cast<unsigned int>(objRow.m_anValue[uField]));
    objPacket.m_auNumber[countColumn - 1] = chHost2BE(objRow.m_bAlarm ? 1u : 0u);
    return objPacket;
}

bool unpackRow(const QOR_MiscHelper::binaryArray& arrData, row& objRow) {
    using QOR_MiscHelper::chHost2BE;  // its own inverse
    packet objPacket;
    if (arrData.GetSize() != static_cast<int>(sizeof(objPacket)))
        return false;
    memcpy(&objPacket, arrData.GetBuffer(), sizeof(objPacket));
    objRow.m_nNumber = static_cast<int>(chHost2BE(objPacket.m_auNumber[0]));
    for (unsigned int uField = 0; uField < fieldCount; ++uField)
        objRow.m_anValue[uField] = static_cast<int>(chHost2BE(objPacket.m_auNumber[uField + 1]));
    objRow.m_bAlarm = objPacket.m_auNumber[countColumn - 1] != 0;
    return true;
}

}  // namespace device
