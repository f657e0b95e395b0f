// Files as byte strings.
#ifndef QOR_TESTS_SUPPORT_FILEBYTES_H
#define QOR_TESTS_SUPPORT_FILEBYTES_H

#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

namespace qorTest {

inline void putFile(const std::string& strName, const std::string& strBytes) {
    std::ofstream(strName, std::ios::binary) << strBytes;
}

inline std::string getFile(const std::string& strName) {
    std::ifstream in(strName, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

// Whether something stands at the path.
inline bool isThere(const std::string& strName) { return access(strName.c_str(), F_OK) == 0; }

}  // namespace qorTest

#endif
