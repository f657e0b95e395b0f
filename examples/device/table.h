// The live table: its rows, the packets in which the server gives them to its clients, and the files in which
// the recorder keeps them.
//
// A packet is the six numbers of a row, each of them 4 bytes with the highest first. A client confirms each
// packet with one byte. A packet of row 0 says that no more will come.
#ifndef EXAMPLES_DEVICE_TABLE_H
#define EXAMPLES_DEVICE_TABLE_H

#include <stdint.h>

#include <string>
#include <vector>

#include "device.h"
#include "qor/FileHelper.h"
#include "qor/MiscHelper/Encoding.h"

namespace device {

constexpr int countColumn = fieldCount + 2;

// The last packet of a connection carries this instead of a row's number.
constexpr int rowEnd = 0;

struct row {
    int m_nNumber = rowEnd;
    int m_anValue[fieldCount] = {};  // -1 where a query brought none
    bool m_bAlarm = false;
};

// A row as people read it, one text for each column.
typedef std::vector<std::string> rowText;

const rowText& columnTitles();
rowText textOf(const row& objRow);
// The columns below each other, as the panel prints them.
std::string lineOf(const rowText& arrText);

// Asks the controller for the values of a row; each may take so many milliseconds.
constexpr int timeoutQuery = 1000;
void askValues(row& objRow);

// The numbers of a packet, in the order of its bytes.
struct packet {
    uint32_t m_auNumber[countColumn];
};
packet packRow(const row& objRow);
// False for what is no packet of a row.
bool unpackRow(const QOR_MiscHelper::binaryArray& arrData, row& objRow);

// The demo's own directory below /tmp; false when it cannot be made, or belongs to somebody else.
std::string tableDirectory();
bool makeTableDirectory();
bool isTableDirectory();
// All files that can be in it.
std::vector<std::string> tableFiles();

// The files of one run: lines of CSV, each of which is handed to the system at once, and an XML document,
// which is replaced as a whole. The document on the disk is always complete, if not up to date.
class tableWriter {
public:
    // Begins both anew; false when one of them cannot be written.
    bool Open();
    bool Append(const row& objRow);
    bool Save() const;
    int Count() const { return m_nRow; }

private:
    bool WriteLine(const rowText& arrText);

    QOR_FileHelper::chFileStdio m_objLines;
    QOR_FileHelper::xmlFile m_objDocument;
    QOR_FileHelper::xmlElement* m_pTable = nullptr;
    int m_nRow = 0;
};

// Finds the files, reads them back and prints a little of them; false unless both hold the same nExpected
// rows.
bool showTable(int nExpected);

}  // namespace device

#endif
