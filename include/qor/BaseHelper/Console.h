/// @file
/// Keys and lines from the terminal of standard input, without waiting for them.
///
/// @code
/// QOR_BaseHelper::chStdInput input;             // from here on every key can be read at once
/// switch (input.getch()) {
///     case -1: break;                           // no key was pressed
///     case 27: return;                          // escape
///     case QOR_BaseHelper::keyF1: help();
/// }
/// @endcode
///
/// As long as an object lives, the terminal neither echoes nor assembles lines. Where several live at once, the
/// settings that the first one found are restored when the last one ends. They are also restored when the process that
/// made them ends by `exit`, or is killed by a signal that it could have caught and neither handles nor ignores itself:
/// the first object gives each such signal a handler, and the last one removes it. The handler leaves the terminal
/// alone when another job is in its foreground, and the process still dies of the signal. SIGKILL, `_exit` and being
/// stopped leave the terminal as it is. A child after `fork` does not restore its parent's terminal.
///
/// Where standard input is no terminal, nothing is set and reading waits like `getchar` for input or its end.
///
/// One thread makes, uses and destroys these objects.
#ifndef QOR_BASEHELPER_CONSOLE_H
#define QOR_BASEHELPER_CONSOLE_H

#include <termios.h>

#include "qor/StringHelper.h"
#include "qor/Types.h"

namespace QOR_BaseHelper {

/// What getch() returns for keys that are no characters: 0xFF00 and the key's number.
enum consoleKey {
    keyPageUp = 0xFF21,
    keyPageDown = 0xFF22,
    keyEnd = 0xFF23,
    keyHome = 0xFF24,
    keyLeft = 0xFF25,
    keyUp = 0xFF26,
    keyRight = 0xFF27,
    keyDown = 0xFF28,
    keyInsert = 0xFF2D,
    keyDelete = 0xFF2E,
    keyF1 = 0xFF70,
    keyF2 = 0xFF71,
    keyF3 = 0xFF72,
    keyF4 = 0xFF73,
    keyF5 = 0xFF74,
    keyF6 = 0xFF75,
    keyF7 = 0xFF76,
    keyF8 = 0xFF77,
    keyF9 = 0xFF78,
    keyF10 = 0xFF79,
    keyF11 = 0xFF7A,
    keyF12 = 0xFF7B
};

/// Keys from the terminal.
class QOR_API chStdInput {
public:
    /// Saves the terminal's settings and makes every key readable at once, without echo.
    chStdInput();
    chStdInput(const chStdInput&) = delete;
    chStdInput& operator=(const chStdInput&) = delete;
    /// Restores the terminal; see above.
    ~chStdInput();

    /// The next key: a character from 0 to 255, a consoleKey, or -1 when none was pressed. The bytes of a consoleKey
    /// that have not all arrived yet are characters.
    int getch();
    /// Buffers what was typed, up to 10 characters in all.
    /// @return how many are buffered
    int PeekKeyToBuffer();
    /// Takes the next key from the buffer; as getch(), but without reading.
    int TransBufferToKey();
    /// Drops the first n characters of the buffer; nothing when there are fewer, or n is not above 0.
    void RemoveKeys(int n);

private:
    static constexpr int maxKeys = 10;

    termios m_settings;          // as they were
    char m_arrKey[maxKeys + 1];  // what was typed and not taken yet
    int32_t m_nKeyCount;
    bool m_bSet;  // this object has set the terminal
};

/// Lines from the terminal, typed blind: nothing is echoed.
class QOR_API chConsoleLineInput : public chStdInput {
public:
    /// Takes what was typed into the pending line, which is assembled over several calls. Character 8 deletes the last
    /// character of the line; a NUL is ignored. A code above 127 is dropped and ends the call.
    /// @return the line without its line feed, once that was typed; otherwise, and for an empty line, an empty string
    QOR_StringHelper::chReferenceStringT<char> getInput();

private:
    QOR_StringHelper::chReferenceStringT<char> m_strLine;
};

/// What standard input has within 10 ms, its line feed included, or an empty string. It is read in blocks of
/// 1024 bytes until one is not full or holds a line feed, or the next one does not come within 10 ms; a signal may
/// shorten these waits. Bytes after a NUL of a block are dropped. What `getchar` and its like have read ahead is not
/// seen.
QOR_API QOR_StringHelper::chReferenceStringT<char> qorGetConsoleLineInput();

}  // namespace QOR_BaseHelper

#endif
