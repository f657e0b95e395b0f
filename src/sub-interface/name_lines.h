// Lists of names in a caller's buffer, one on each line.
#ifndef QOR_SUB_INTERFACE_NAME_LINES_H
#define QOR_SUB_INTERFACE_NAME_LINES_H

#include <string.h>

#include <string>
#include <vector>

// Copies names into a buffer, each with a line feed after it. Names that do not fit whole are left out, and so are all
// after them; their length is counted.
class nameLines {
public:
    nameLines(char* lpszBuffer, int nSize)
        : m_lpszBuffer(nSize > 0 ? lpszBuffer : NULL), m_nRoom(nSize > 0 ? static_cast<size_t>(nSize) : 0) {
        if (m_lpszBuffer != NULL)
            *m_lpszBuffer = 0;
    }

    void Add(std::string strName) {
        for (char& ch : strName)
            if (ch == '\n')
                ch = '?';
        strName += '\n';
        // All names so far were copied while no length is missing.
        if (m_lpszBuffer != NULL && m_nCopied == m_nLength && m_nLength + strName.size() < m_nRoom) {
            memcpy(m_lpszBuffer + m_nLength, strName.c_str(), strName.size() + 1);
            m_nCopied += strName.size();
        }
        m_nLength += strName.size();
    }

    // The length of all names with their line feeds.
    int Length() const { return static_cast<int>(m_nLength); }

private:
    char* const m_lpszBuffer;
    const size_t m_nRoom;
    size_t m_nCopied = 0;
    size_t m_nLength = 0;
};

// The same for a whole list. The length of all names with their line feeds.
inline int listNames(const std::vector<std::string>& listName, char* lpszBuffer, int nSize) {
    nameLines lines(lpszBuffer, nSize);
    for (const std::string& strName : listName)
        lines.Add(strName);
    return lines.Length();
}

namespace QOR_RegistryHelper {
class regDocument;
}

// The names of the sections that have keys. The caller holds the registry's lock.
std::vector<std::string> sectionNames(const QOR_RegistryHelper::regDocument& document);

#endif
