// Configuration read into strings.
#include "qor/SubClass.h"

#include "internal/registry.h"
#include "internal/report.h"
#include "qor/FileHelper/Ini.h"

using QOR_FileHelper::iniDocument;
using QOR_FileHelper::iniFile;

namespace QOR_SubClass {

typedef QOR_StringHelper::chReferenceStringT<char> refString;

// The section is told as readKey() has it.
template <class... Section>
static refString readString(const char* lpszKey, const char* lpszDefault, Section... section) {
    refString strValue;
    const auto take = [&strValue](const char* lpszValue) { strValue = lpszValue; };
    if (!QOR_RegistryHelper::readKey(QOR_MODULE, lpszKey, take, section...))
        take(lpszDefault);
    return strValue;
}

refString qorGetProfileString(const char* lpszFileName, const char* lpszSection, const char* lpszKey,
                              const char* lpszDefault) {
    iniFile file;
    return file.LoadFromFile(lpszFileName) ? file.GetTextValue(lpszSection, lpszKey, lpszDefault)
                                           : refString(lpszDefault);
}

refString profileGetString(HINIFILE hIniFile, const char* lpszSection, const char* lpszKey, const char* lpszDefault) {
    if (!QOR_ASSERT_TEXT(hIniFile != NULL, "hIniFile != 0"))
        return refString(lpszDefault);
    return reinterpret_cast<const iniDocument*>(hIniFile)->GetTextValue(lpszSection, lpszKey, lpszDefault);
}

refString registryGetString(HREGISTRY hRegistry, const char* lpszKey, const char* lpszDefault) {
    return readString(lpszKey, lpszDefault, reinterpret_cast<uintptr_t>(hRegistry));
}

refString qorGetRegistryString(const char* lpszFileName, const char* lpszSection, const char* lpszKey,
                               const char* lpszDefault) {
    return readString(lpszKey, lpszDefault, lpszFileName, lpszSection);
}

}  // namespace QOR_SubClass
