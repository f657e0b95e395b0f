// Tables: one description of the columns gives the text of a terminal and JSON.
#ifndef QORCTL_TABLE_H
#define QORCTL_TABLE_H

#include <nlohmann/json.hpp>

#include <string>
#include <vector>

#include "program.h"

namespace qorctl {

typedef nlohmann::ordered_json json;

// How a value is shown to people; JSON has it as it is.
enum cellFormat { formatPlain, formatHex, formatOctal };

// How a row stands out where there are colours.
enum rowStyle { styleNone, styleWarn, styleBad };

struct column {
    const char* lpszKey;    // in JSON
    const char* lpszTitle;  // in the first line
    bool bRight = false;    // right-aligned
    bool bElastic = false;  // shortened when the line does not fit the terminal
    cellFormat format = formatPlain;
};

class table {
public:
    explicit table(std::vector<column> columns) : m_columns(std::move(columns)) {}

    // A row: values by the columns' keys, and what only JSON shows. Null is what is not known.
    void add(json row, rowStyle style = styleNone);
    bool isEmpty() const { return m_rows.empty(); }

    // The rows as a JSON array.
    json rows() const;
    // The rows, as text or as a JSON array.
    void print(const program& prog) const;
    // The rows as a table of a page.
    std::string html() const;

private:
    std::vector<std::vector<std::string>> cells(const program& prog) const;
    std::vector<size_t> widths(const std::vector<std::vector<std::string>>& cells) const;
    std::string line(const std::vector<std::string>& cells, const std::vector<size_t>& widths) const;

    std::vector<column> m_columns;
    std::vector<std::pair<json, rowStyle>> m_rows;
};

// JSON in its one form: indented, one line when it is a stream's.
void printJson(const json& value);
void printJsonLine(const json& value);

// Text with control characters and bytes that are no UTF-8 shown as \xNN.
std::string printable(const std::string& strText);
// Text of a page: what means something to HTML is escaped.
std::string escapeHtml(const std::string& strText);
// "0x" and lower-case digits.
std::string hexNumber(uint64_t u);
// Two digits for each byte.
std::string hexBytes(const std::vector<uint8_t>& bytes);
// Sixteen bytes a line, in hex and as text.
std::string dumpBytes(const std::vector<uint8_t>& bytes, const std::string& strIndent);
// ASCII characters as they are, dots for the others.
std::string asciiBytes(const std::vector<uint8_t>& bytes);

}  // namespace qorctl

#endif
