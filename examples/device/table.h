// The live table: its rows, the packets in which the server sends them, and the files in which the recorder keeps them.
//
// A packet has the six numbers of a row, each as 4 bytes in big-endian order. A client confirms each packet with
// a packet of one byte. A packet of row 0 is the last one.
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
    int m_anValue[fieldCount] = {};  // -1 where a query was not answered
    bool m_bAlarm = false;
};

// A row as text, one for each column.
typedef std::vector<std::string> rowText;

const rowText& columnTitles();
rowText textOf(const row& objRow);
// A line in which the columns are aligned, as the panel prints it.
std::string lineOf(const rowText& arrText);

// Asks the controller for the values of a row, for timeoutQuery milliseconds at most.
constexpr int timeoutQuery = 1000;
void askValues(row& objRow);

// The numbers of a packet, in the order of its bytes.
struct packet {
    uint32_t m_auNumber[countColumn];
};
packet packRow(const row& objRow);
// False for anything else.
bool unpackRow(const QOR_MiscHelper::binaryArray& arrData, row& objRow);

// The demo's own directory below /tmp; false when it cannot be made, or belongs to another user.
std::string tableDirectory();
bool makeTableDirectory();
bool isTableDirectory();
// All files that can be in it.
std::vector<std::string> tableFiles();

// The files of one run: CSV lines, each of which is passed to the system at once, and an XML document, which is
// replaced as a whole. The document on the disk is always complete, if not up to date.
class tableWriter {
public:
    // Starts both anew; false when one of them cannot be written.
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

// Finds the files, reads them back and prints some rows; false unless both hold the same nExpected rows.
bool showTable(int nExpected);

}  // namespace device

#endif
