// Reading whole files.
#include "internal/whole_file.h"

#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

namespace QOR_FileHelper {

namespace {

// A file that is read past its stream.
class wholeFile : public chFileStdio {
public:
    explicit wholeFile(const char* lpszFileName) { Open(lpszFileName, openBinary); }

    // The size that it says it has; files that are made while they are read say 0.
    long long Size() const {
        struct stat state;
        return m_pFile != NULL && fstat(fileno(m_pFile), &state) == 0 && S_ISREG(state.st_mode) ? state.st_size : 0;
    }

    ssize_t ReadSome(void* p, size_t nCount) {
        ssize_t nRead;
        do
            nRead = read(fileno(m_pFile), p, nCount);
        while (nRead == -1 && errno == EINTR);
        return nRead;
    }
};

}  // namespace

long long readWholeFile(const char* lpszFileName, long long nMax, const std::function<void*(long long)>& fnRoom) {
    wholeFile file(lpszFileName);
    if (!file.IsFileOpened())
        return -1;
    const long long nSize = file.Size();
    long long nRoom = nSize > 0 ? nSize : 4096;
    long long nRead = 0;
    while (nRoom <= nMax) {
        char* const pRoom = static_cast<char*>(fnRoom(nRoom));
        const ssize_t nSome = file.ReadSome(pRoom + nRead, static_cast<size_t>(nRoom - nRead));
        if (nSome <= 0)
            return nSome == 0 ? nRead : -1;
        nRead += nSome;
        if (nRead == nSize)
            return nRead;
        if (nRead == nRoom)
            nRoom *= 2;
    }
    errno = EFBIG;
    return -1;
}

int readWholeText(const char* lpszFileName, fileText& text) {
    const long long nRead = readWholeFile(lpszFileName, maxLineLength, [&](long long nRoom) {
        text.SetArraySize(static_cast<int>(nRoom) + 1);
        return text.GetBuffer();
    });
    text.SetArraySize(static_cast<int>(nRead < 0 ? 0 : nRead) + 1);
    text[text.GetSize() - 1] = 0;
    return static_cast<int>(nRead);
}

}  // namespace QOR_FileHelper
