// Comma-separated values. Fields are collected in growing buffers and become strings once: strings grow in small steps.
#include <stdarg.h>
#include <string.h>

#include <string>

#include "internal/report.h"
#include "qor/FileHelper/Csv.h"

using QOR_StringHelper::chReferenceStringT;

namespace QOR_FileHelper {

namespace {

// Appends the bytes up to one of a set or the NUL, and returns its position.
const char* takeUntil(const char* lpszText, const char* lpszSet, std::string& strField) {
    const size_t nLength = strcspn(lpszText, lpszSet);
    strField.append(lpszText, nLength);
    return lpszText + nLength;
}

// The part that begins with the quote at lpszText.
const char* takeQuote(const char* lpszText, std::string& strField) {
    ++lpszText;
    for (;;) {
        lpszText = takeUntil(lpszText, "\"\r", strField);
        if (*lpszText == 0)
            return lpszText;
        if (*lpszText == '"' && *++lpszText != '"')
            return lpszText;
        if (*lpszText == '"')
            strField += '"';
        ++lpszText;
    }
}

void appendField(std::string& strLine, const char* lpszText) {
    if (strpbrk(lpszText, "\",\n\r ") == NULL) {
        strLine += lpszText;
        return;
    }
    strLine += '"';
    for (; *lpszText != 0; ++lpszText)
        strLine.append(*lpszText == '"' ? 2 : 1, *lpszText);
    strLine += '"';
}

}  // namespace

const char* qorPeekCSVQuote(const char* lpszText, chReferenceStringT<char>& strField) {
    if (!QOR_ASSERT_TEXT(lpszText != NULL && *lpszText == '"', "lpszText != NULL && *lpszText == '\\\"'"))
        return lpszText;
    std::string strPart;
    lpszText = takeQuote(lpszText, strPart);
    strField.AppendTextFrom(strPart.c_str(), static_cast<int>(strPart.size()));
    return lpszText;
}

const char* qorPeekCSVField(const char* lpszText, chReferenceStringT<char>& strField) {
    strField.Clear();
    if (!QOR_ASSERT(lpszText != NULL))
        return NULL;
    lpszText += strspn(lpszText, " \t");
    std::string strText;
    for (;;) {
        lpszText = takeUntil(lpszText, ",\n\r\"", strText);
        if (*lpszText == '"')
            lpszText = takeQuote(lpszText, strText);
        else if (*lpszText == '\r')
            ++lpszText;
        else
            break;
    }
    strField.CopyTextFrom(strText.c_str(), static_cast<int>(strText.size()));
    strField.TrimRightWhiteSpace();
    return *lpszText != 0 ? lpszText + 1 : lpszText;
}

const char* qorPeekCSVRecord(const char* lpszText, csvFields& fields) {
    fields.clear();
    if (QOR_StringHelper::textEMPTY(lpszText))
        return NULL;
    do
        lpszText = qorPeekCSVField(lpszText, fields.alloc_push_back());
    while (*lpszText != 0 && lpszText[-1] != '\n');
    return lpszText;
}

void qorBuildCSVLine(chReferenceStringT<char>& strLine, int nCount, ...) {
    std::string strText;
    va_list args;
    va_start(args, nCount);
    for (int i = 0; i < nCount; ++i) {
        const char* const lpszField = va_arg(args, const char*);
        if (i > 0)
            strText += ',';
        appendField(strText, lpszField != NULL ? lpszField : "");
    }
    va_end(args);
    strText += '\n';
    strLine.CopyTextFrom(strText.c_str(), static_cast<int>(strText.size()));
}

}  // namespace QOR_FileHelper
