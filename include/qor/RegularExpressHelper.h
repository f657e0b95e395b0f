/// @file
/// Regular expressions: the namespace `QOR_RegularExpressHelper`, a small pattern engine over 8-bit text.
///
/// A pattern is compiled into a tree of nodes. A match begins at exactly the given position of the text and returns its
/// end, or null; SearchREOnText() tries one position after the other.
///
/// @code
/// using namespace QOR_RegularExpressHelper;
/// reRegularExpress<char> express("([a-z]+)=(\\d+)", 0);
/// const char* lpszEnd = express.ApplyREOnText("size=12;", NULL);     // at ";"
/// re_Base<char>* pValue = express.GetCaptureRE(2);                   // m_lpszResultBegin to m_lpszResultEnd: 12
/// express.ClearResult();                                             // before another text
/// @endcode
///
/// The syntax is this library's own:
///
/// | written | matches |
/// | --- | --- |
/// | `abc` | the run of characters; a quantifier after it repeats the whole run |
/// | `(...)` `(?:...)` | a sequence, captured or not; a leading `^` negates it: any one character where it fails |
/// | `[...]` | the first alternative that matches: characters, ranges `a-z`, groups, sets; a leading `^` negates it |
/// | `.` `$` | any character; a line feed with an optional carriage return before it |
/// | `\d \D \s \S \w \W` | a digit, white space, a letter, digit or `_`; the capitals: none of them and not a NUL |
/// | `\1` | what the first group captured |
/// | `/name` | a custom alias, see reRegularExpress::AddCustomAlias() |
/// | `\b \t \n \v \f \r \/ \\ \x41` | characters; so is `\` followed by one of `^()[]{}?+*-.$` |
/// | `* + ? {m} {m,} {m,n}` | how often; with `+` after it as often as possible, with `?` as seldom as possible |
///
/// There is no `|` and there are no anchors; `^` and `$` have the meanings above. A `-` stands for itself only after a
/// backslash. Matching does not backtrack. A repetition without `+` or `?` after it looks ahead: it takes the largest
/// number after which the rest of its own sequence matches, or its least number if there is none, and keeps it.
///
/// docs/expressions.md has examples by task and compares the syntax with the usual dialect. A pattern that compiles but
/// looks as if it was meant in that dialect, such as `cat|dog`, gets a line in the trace at level 3.
///
/// Continue with RegularExpressHelper/Lexical.h, Node.h, Relation.h and Express.h.
#ifndef QOR_REGULAREXPRESSHELPER_H
#define QOR_REGULAREXPRESSHELPER_H

#include "qor/RegularExpressHelper/Express.h"
#include "qor/RegularExpressHelper/Lexical.h"
#include "qor/RegularExpressHelper/Node.h"
#include "qor/RegularExpressHelper/Relation.h"

#endif
