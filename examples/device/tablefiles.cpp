// The files in which the live table is kept, and how they are found and read again.
//
// Everything is in a directory whose name is easy to guess, so nothing is written to it unless it belongs to this user
// alone.
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "qor/MiscHelper/Path.h"
#include "qor/SubClass/FileSearch.h"
#include "table.h"

namespace device {

namespace {

using namespace QOR_FileHelper;
using QOR_StringHelper::chReferenceStringT;

constexpr char szLines[] = "table.csv";
constexpr char szDocument[] = "table.xml";

constexpr char szTable[] = "table";
constexpr char szRow[] = "row";
// The names of a row's attributes; the titles may contain blanks.
const char* const aszAttribute[countColumn] = {"number", "reading", "cpu", "memory", "load", "alarm"};

std::string fileOf(const char* lpszName) { return tableDirectory() + "/" + lpszName; }

// ---- reading

bool readDocument(const char* lpszFile, std::vector<rowText>& arrRow) {
    xmlFile objDocument;
    if (!objDocument.LoadFromFile(lpszFile))
        return false;
    const xmlElement* pTable = xmlFindElementFromRoot(&objDocument, szTable, nullptr);
    if (pTable == nullptr)
        return false;
    xmlElement* pRow = xmlFindElementByName(pTable->get_pFirstChild(), szRow);
    for (; pRow != nullptr; pRow = xmlFindElementByName(pRow->get_pNext(), szRow)) {
        rowText arrText;
        for (const char* lpszAttribute : aszAttribute)
            arrText.push_back(static_cast<const char*>(pRow->GetAttributeValue(lpszAttribute)));
        arrRow.push_back(arrText);
    }
    return true;
}

rowText readFields(const char* lpszLine) {
    csvFields lstField;
    qorPeekCSVRecord(lpszLine, lstField);
    rowText arrText;
    for (auto it = lstField.begin(); it != lstField.end(); ++it)
        arrText.push_back(static_cast<const char*>(*it));
    return arrText;
}

// The first line holds the titles.
bool readLines(const char* lpszFile, std::vector<rowText>& arrRow) {
    chFileStdio objFile;
    chReferenceStringT<char> strLine;
    if (!objFile.Open(lpszFile, openRead) || !objFile.ReadString(strLine) || readFields(strLine) != columnTitles())
        return false;
    while (objFile.ReadString(strLine)) {
        arrRow.push_back(readFields(strLine));
        if (arrRow.back().size() != columnTitles().size())
            return false;
    }
    return true;
}

bool readFile(const char* lpszFile, std::vector<rowText>& arrRow) {
    const bool bDocument = strcmp(QOR_MiscHelper::pathGetFileExtensionPos(lpszFile), ".xml") == 0;
    if (bDocument ? readDocument(lpszFile, arrRow) : readLines(lpszFile, arrRow))
        return true;
    say("launcher", "cannot use %s", lpszFile);
    return false;
}

// ---- showing

void showRows(const std::vector<rowText>& arrRow) {
    constexpr size_t countShown = 3;  // at the start, and the last one
    say("launcher", "%s", lineOf(columnTitles()).c_str());
    for (size_t i = 0; i < arrRow.size() && i < countShown; ++i)
        say("launcher", "%s", lineOf(arrRow[i]).c_str());
    if (arrRow.size() > countShown + 1)
        say("launcher", "  ...");
    if (arrRow.size() > countShown)
        say("launcher", "%s", lineOf(arrRow.back()).c_str());
}

}  // namespace

// ---- the directory

std::string tableDirectory() { return "/tmp/qor-device." + std::to_string(geteuid()); }

bool isTableDirectory() {
    struct stat state;
    return lstat(tableDirectory().c_str(), &state) == 0 && S_ISDIR(state.st_mode) && state.st_uid == geteuid() &&
           (state.st_mode & 022) == 0;
}

bool makeTableDirectory() {
    return (mkdir(tableDirectory().c_str(), 0700) == 0 || errno == EEXIST) && isTableDirectory();
}

std::vector<std::string> tableFiles() {
    const std::string strDocument = fileOf(szDocument);
    return {fileOf(szLines), strDocument, strDocument + ".new", strDocument + ".old"};
}

// ---- writing

bool tableWriter::Open() {
    xmlAttributeNode* pDeclaration =
        static_cast<xmlAttributeNode*>(m_objDocument.AddChildXMLNode(xmlTypeDeclaration, "xml"));
    pDeclaration->SetAttribute("version", "1.0");
    m_pTable = m_objDocument.AddChildElement(szTable);
    char szName[64];
    registryGetStringN(openSettings("Device"), "name", szName, sizeof(szName), "nameless");
    m_pTable->SetAttribute("device", szName);
    return m_objLines.Open(fileOf(szLines).c_str(), openWrite | openCreate) && WriteLine(columnTitles()) && Save();
}

bool tableWriter::Append(const row& objRow) {
    const rowText arrText = textOf(objRow);
    xmlElement* pRow = m_pTable->AddChildElement(szRow);
    for (int i = 0; i < countColumn; ++i)
        pRow->SetAttribute(aszAttribute[i], arrText[i].c_str());
    ++m_nRow;
    return WriteLine(arrText);
}

bool tableWriter::WriteLine(const rowText& arrText) {
    chReferenceStringT<char> strLine;
    qorBuildCSVLine(strLine, countColumn, arrText[0].c_str(), arrText[1].c_str(), arrText[2].c_str(),
                    arrText[3].c_str(), arrText[4].c_str(), arrText[5].c_str());
    return m_objLines.WriteString(strLine) && !m_objLines.Flush();
}

bool tableWriter::Save() const { return m_objDocument.SaveToFile(fileOf(szDocument).c_str()); }

bool showTable(int nExpected) {
    QOR_ListHelper::chObjList_dynamic<chReferenceStringT<char>, 16> lstFile;
    QOR_SubClass::qorFindFile(tableDirectory().c_str(), "table.*;-*.new;-*.old", lstFile, FALSE);
    std::vector<std::vector<rowText>> arrFound;
    for (auto it = lstFile.begin(); it != lstFile.end(); ++it) {
        arrFound.emplace_back();
        if (!readFile(*it, arrFound.back()))
            return false;
        say("launcher", "%s holds %zu rows%s", static_cast<const char*>(*it), arrFound.back().size(),
            arrFound.size() > 1 && arrFound.back() == arrFound.front() ? ", the same" : "");
    }
    if (arrFound.size() != 2 || arrFound[0] != arrFound[1] || static_cast<int>(arrFound[0].size()) != nExpected) {
        say("launcher", "the files of the table do not hold the same %d rows", nExpected);
        return false;
    }
    showRows(arrFound[0]);
    return true;
}

}  // namespace device
