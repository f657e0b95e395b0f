#include "table.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <numeric>

namespace qorctl {

namespace {

constexpr size_t leastElastic = 6;

// Columns of the terminal; 0 for a pipe, which gets all.
size_t terminalWidth() {
    if (const char* lpszColumns = getenv("COLUMNS"))
        if (const int nColumns = atoi(lpszColumns))
            return nColumns > 0 ? static_cast<size_t>(nColumns) : 0;
    winsize size = {};
    return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

std::string format(const json& value, cellFormat form) {
    if (value.is_null())
        return "-";
    if (value.is_boolean())
        return value.get<bool>() ? "yes" : "no";
    if (value.is_string())
        return printable(value.get<std::string>());
    if (value.is_number() && form == formatHex)
        return hexNumber(value.get<uint64_t>());
    if (value.is_number() && form == formatOctal) {
        char sz[16];
        snprintf(sz, sizeof(sz), "%04o", value.get<unsigned>());
        return sz;
    }
    return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

// The bytes of a character of UTF-8 text at a place; 0 when there is none that is complete.
size_t characterAt(const std::string& str, size_t i) {
    const unsigned char ch = static_cast<unsigned char>(str[i]);
    const size_t nSize = ch < 0x80                 ? 1
                         : ch >= 0xC2 && ch < 0xE0 ? 2
                         : ch >= 0xE0 && ch < 0xF0 ? 3
                         : ch >= 0xF0 && ch < 0xF5 ? 4
                                                   : 0;
    if (nSize == 0 || i + nSize > str.size())
        return 0;
    for (size_t k = 1; k < nSize; ++k)
        if ((static_cast<unsigned char>(str[i + k]) & 0xC0) != 0x80)
            return 0;
    // What the first byte leaves open: longer forms than needed, surrogates, and numbers above those of characters.
    const unsigned char chNext = static_cast<unsigned char>(nSize > 1 ? str[i + 1] : 0);
    const bool bWrong = (ch == 0xE0 && chNext < 0xA0) || (ch == 0xED && chNext >= 0xA0) ||
                        (ch == 0xF0 && chNext < 0x90) || (ch == 0xF4 && chNext >= 0x90);
    return bWrong ? 0 : nSize;
}

// The control characters of ASCII, and those above it (U+0080 to U+009F), which terminals obey as well.
bool isControl(const std::string& str, size_t i) {
    const unsigned char ch = static_cast<unsigned char>(str[i]);
    return ch < 0x20 || ch == 0x7F || (ch == 0xC2 && static_cast<unsigned char>(str[i + 1]) < 0xA0);
}

// How many characters a terminal shows.
size_t shownWidth(const std::string& str) {
    return static_cast<size_t>(
        std::count_if(str.begin(), str.end(), [](char ch) { return (static_cast<unsigned char>(ch) & 0xC0) != 0x80; }));
}

// Cut to a number of characters, the last of which then is "~".
std::string cut(const std::string& str, size_t nWidth) {
    if (shownWidth(str) <= nWidth || nWidth == 0)
        return str;
    size_t i = 0;
    for (size_t n = 0; n + 1 < nWidth; ++n)
        i += std::max<size_t>(1, characterAt(str, i));
    return str.substr(0, i) + "~";
}

const char* colorOf(rowStyle style) { return style == styleBad ? "\033[31m" : style == styleWarn ? "\033[33m" : ""; }

}  // namespace

std::string printable(const std::string& strText) {
    std::string str;
    for (size_t i = 0; i < strText.size();) {
        const size_t nSize = characterAt(strText, i);
        if (nSize == 0 || isControl(strText, i)) {
            for (const size_t nEnd = i + std::max<size_t>(1, nSize); i < nEnd; ++i)
                str += "\\x" + hexBytes({static_cast<uint8_t>(strText[i])});
            continue;
        }
        str.append(strText, i, nSize);
        i += nSize;
    }
    return str;
}

std::string hexNumber(uint64_t u) {
    char sz[24];
    snprintf(sz, sizeof(sz), "0x%llx", static_cast<unsigned long long>(u));
    return sz;
}

std::string hexBytes(const std::vector<uint8_t>& bytes) {
    std::string str;
    for (const uint8_t u : bytes) {
        char sz[4];
        snprintf(sz, sizeof(sz), "%02x", u);
        str += sz;
    }
    return str;
}

std::string asciiBytes(const std::vector<uint8_t>& bytes) {
    std::string str;
    for (const uint8_t u : bytes)
        str += u >= 0x20 && u < 0x7F ? static_cast<char>(u) : '.';
    return str;
}

std::string dumpBytes(const std::vector<uint8_t>& bytes, const std::string& strIndent) {
    std::string str;
    for (size_t i = 0; i < bytes.size(); i += 16) {
        const auto it = bytes.begin() + static_cast<ptrdiff_t>(i);
        const std::vector<uint8_t> row(it, it + static_cast<ptrdiff_t>(std::min<size_t>(16, bytes.size() - i)));
        const uint8_t uHigh = static_cast<uint8_t>(i >> 8), uLow = static_cast<uint8_t>(i);
        str += strIndent + hexBytes({uHigh, uLow}) + " ";
        for (size_t k = 0; k < 16; ++k)
            str += k < row.size() ? " " + hexBytes({row[k]}) : "   ";
        str += "  " + asciiBytes(row) + "\n";
    }
    return str;
}

void table::add(json row, rowStyle style) { m_rows.emplace_back(std::move(row), style); }

json table::rows() const {
    json all = json::array();
    for (const auto& row : m_rows)
        all.push_back(row.first);
    return all;
}

std::vector<std::vector<std::string>> table::cells(const program& prog) const {
    std::vector<std::vector<std::string>> all;
    std::vector<std::string> titles;
    for (const column& col : m_columns)
        titles.push_back(prog.bNoHeader ? "" : col.lpszTitle);
    all.push_back(titles);
    for (const auto& row : m_rows) {
        std::vector<std::string> texts;
        for (const column& col : m_columns)
            texts.push_back(row.first.contains(col.lpszKey) ? format(row.first[col.lpszKey], col.format) : "-");
        all.push_back(texts);
    }
    return all;
}

std::vector<size_t> table::widths(const std::vector<std::vector<std::string>>& cells) const {
    std::vector<size_t> widths(m_columns.size(), 0);
    for (const auto& row : cells)
        for (size_t i = 0; i < row.size(); ++i)
            widths[i] = std::max(widths[i], shownWidth(row[i]));
    const size_t nTerminal = terminalWidth();
    // The widest elastic column gives way, character by character.
    while (nTerminal > 0 && std::accumulate(widths.begin(), widths.end(), widths.size() - 1) > nTerminal) {
        size_t iWidest = widths.size();
        for (size_t i = 0; i < widths.size(); ++i)
            if (m_columns[i].bElastic && widths[i] > leastElastic &&
                (iWidest == widths.size() || widths[i] > widths[iWidest]))
                iWidest = i;
        if (iWidest == widths.size())
            break;
        --widths[iWidest];
    }
    return widths;
}

std::string table::line(const std::vector<std::string>& cells, const std::vector<size_t>& widths) const {
    std::string str;
    for (size_t i = 0; i < cells.size(); ++i) {
        const std::string strCell = cut(cells[i], widths[i]);
        const std::string strFill(widths[i] - std::min(widths[i], shownWidth(strCell)), ' ');
        str += (i == 0 ? "" : " ") + (m_columns[i].bRight ? strFill + strCell : strCell + strFill);
    }
    return str.substr(0, str.find_last_not_of(' ') + 1);
}

void table::print(const program& prog) const {
    if (prog.bJson) {
        printJson(rows());
        return;
    }
    const std::vector<std::vector<std::string>> all = cells(prog);
    const std::vector<size_t> wide = widths(all);
    for (size_t i = prog.bNoHeader ? 1 : 0; i < all.size(); ++i) {
        const char* lpszColor = i > 0 && prog.hasColor() ? colorOf(m_rows[i - 1].second) : "";
        put(lpszColor + line(all[i], wide) + (*lpszColor != 0 ? "\033[0m\n" : "\n"));
    }
}

std::string table::html() const {
    std::string str = "<table><tr>";
    for (const column& col : m_columns)
        str += std::string("<th>") + col.lpszTitle + "</th>";
    str += "</tr>\n";
    for (const auto& row : m_rows) {
        str += row.second == styleBad ? "<tr class=\"bad\">" : row.second == styleWarn ? "<tr class=\"warn\">" : "<tr>";
        for (const column& col : m_columns)
            str += "<td>" +
                   (row.first.contains(col.lpszKey) ? escapeHtml(format(row.first[col.lpszKey], col.format)) : "-") +
                   "</td>";
        str += "</tr>\n";
    }
    return str + "</table>\n";
}

std::string escapeHtml(const std::string& strText) {
    std::string str;
    for (const char ch : printable(strText))
        str += ch == '&'   ? "&amp;"
               : ch == '<' ? "&lt;"
               : ch == '>' ? "&gt;"
               : ch == '"' ? "&quot;"
                           : std::string(1, ch);
    return str;
}

// Names may hold any bytes; what is no UTF-8 becomes U+FFFD.
void printJson(const json& value) { put(value.dump(2, ' ', false, json::error_handler_t::replace) + "\n"); }

void printJsonLine(const json& value) { put(value.dump(-1, ' ', false, json::error_handler_t::replace) + "\n"); }

}  // namespace qorctl
