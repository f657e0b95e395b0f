/// @file
/// Lines of comma-separated values: reading field by field or record by record, and building.
///
/// @code
/// using namespace QOR_FileHelper;
/// QOR_StringHelper::chReferenceStringT<char> strLine;
/// qorBuildCSVLine(strLine, 3, "a b", "x\"y", "z");                // "a b","x""y",z and a line feed
///
/// csvFields fields;
/// for (const char* lpsz = lpszText; (lpsz = qorPeekCSVRecord(lpsz, fields)) != NULL;)
///     use(fields);
/// @endcode
#ifndef QOR_FILEHELPER_CSV_H
#define QOR_FILEHELPER_CSV_H

#include "qor/ListHelper.h"
#include "qor/StringHelper.h"

namespace QOR_FileHelper {

/// The fields of a record.
typedef QOR_ListHelper::chObjList_dynamic<QOR_StringHelper::chReferenceStringT<char>, 16> csvFields;

/// Reads one field: leading blanks and tabs and trailing white space are cut, carriage returns skipped. It ends at the
/// end of the text, at a comma or at a line feed, which is consumed; quoted parts are read as by qorPeekCSVQuote().
/// @return the position after the field. Fatal: null.
QOR_API const char* qorPeekCSVField(const char* lpszText, QOR_StringHelper::chReferenceStringT<char>& strField);

/// Appends a quoted part to a field. Two double quotes mean one, carriage returns are skipped; the part ends at
/// its closing quote, which is consumed, or at the end of the text.
/// @return the position after it. Fatal: a text that does not begin with a double quote.
QOR_API const char* qorPeekCSVQuote(const char* lpszText, QOR_StringHelper::chReferenceStringT<char>& strField);

/// Reads the fields up to a line feed or the end of the text into the list, which is cleared first.
/// @return the position of the next record; null when the text is null or empty.
QOR_API const char* qorPeekCSVRecord(const char* lpszText, csvFields& fields);

/// Makes strLine the record of nCount texts, with its line feed. A text with a double quote, comma, line feed, carriage
/// return or blank is quoted. A null text is empty.
QOR_API void qorBuildCSVLine(QOR_StringHelper::chReferenceStringT<char>& strLine, int nCount, ...);

}  // namespace QOR_FileHelper

#endif
