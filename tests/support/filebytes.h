// Files as byte strings.
#ifndef QOR_TESTS_SUPPORT_FILEBYTES_H
#define QOR_TESTS_SUPPORT_FILEBYTES_H

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

}  // namespace qorTest

#endif
