// Helpers of the tests of the registry: the warnings of a call, objects and values by handle, the pool's free bytes.
#ifndef QOR_TESTS_SUPPORT_REGISTRY_H
#define QOR_TESTS_SUPPORT_REGISTRY_H

#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "qor/RegistryHelper.h"
#include "qor/flat.h"
#include "support/filebytes.h"

namespace qorTest {

typedef std::vector<std::string> texts;

// The warnings that a call prints, as "module: text".
inline texts reportsOf(const std::function<void()>& fnCall) {
    testing::internal::CaptureStderr();
    fnCall();
    const std::string strErr = testing::internal::GetCapturedStderr();
    const std::string strMark = " warning: \033[00m[";
    texts listText;
    for (size_t nAt = 0; (nAt = strErr.find(strMark, nAt)) != std::string::npos;) {
        nAt += strMark.size();
        const size_t nColon = strErr.find(':', nAt);
        const size_t nText = strErr.find("] ", nColon) + 2;
        const size_t nEnd = strErr.rfind(" (", strErr.find('\n', nText));
        listText.push_back(strErr.substr(nAt, nColon - nAt) + ": " + strErr.substr(nText, nEnd - nText));
        nAt = nEnd;
    }
    return listText;
}

inline QOR_RegistryHelper::uCRegistryHelper& registryHelper() {
    return *QOR_RegistryHelper::uCRegistryHelpergetGlobalObject();
}

inline QOR_RegistryHelper::regSection* sectionOf(HREGISTRY hRegistry) {
    return static_cast<QOR_RegistryHelper::regSection*>(regHANDLE2Section(hRegistry));
}

inline QOR_RegistryHelper::regDocument* documentOf(HREGISTRY hRegistry) {
    return sectionOf(hRegistry)->GetHostDocument();
}

inline HREGISTRY registryHandle(uintptr_t u) { return reinterpret_cast<HREGISTRY>(u); }

// The whole value of a key, of any length.
inline std::string valueOf(HREGISTRY hRegistry, const char* lpszKey) {
    const int nLength = registryGetStringN(hRegistry, lpszKey, NULL, 0, "(none)");
    std::string str(static_cast<size_t>(nLength) + 1, '\0');
    registryGetStringN(hRegistry, lpszKey, &str[0], nLength + 1, "(none)");
    str.resize(static_cast<size_t>(nLength));
    return str;
}

// The pool's free bytes, headers included.
inline int freeRegistryBytes() {
    registryHelper().Lock(-1);
    auto& pool = registryHelper().getObject()->m_objPool;
    int nFree = 0;
    for (auto* pCell = pool.begin_cell(); pCell < pool.end_cell(); pCell = pCell->get_pRight())
        nFree += pCell->is_free_cell() ? static_cast<int>(pCell->get_iOffsetRightCell()) : 0;
    registryHelper().Unlock();
    return nFree;
}

}  // namespace qorTest

#endif
