// The flat functions for callers that know the former places of the configuration, which is now in the registry.
#include <string.h>

#include "internal/registry.h"
#include "internal/report.h"
#include "internal/safe_save.h"
#include "qor/MiscHelper.h"
#include "qor/flat.h"
#include "sub-interface/name_lines.h"

using namespace QOR_RegistryHelper;

namespace {

typedef QOR_StringHelper::chReferenceStringT<char> refString;

constexpr const char* systemFile = "/rundata/config/system.ini";
constexpr const char* userFile = "/rundata/config/user/user.ini";
constexpr const char* sipSection = "sipServerOptions";

bool isText(const char* lpszText, const char* lpszOther) {
    return lpszText != NULL && strcmp(lpszText, lpszOther) == 0;
}

// Prints the warning of a call, with its arguments.
void reportCall(const char* lpszFunction, std::initializer_list<std::string> listArgument) {
    std::string strReport = lpszFunction;
    const char* lpszBetween = "(";
    for (const std::string& strArgument : listArgument) {
        strReport += lpszBetween + strArgument;
        lpszBetween = ", ";
    }
    QOR_WARN_TEXT(false, (strReport + ")!!!!").c_str());
}

// The absolute path, with the present place of the telephony settings.
refString currentPath(const char* lpszFileName) {
    refString strFile = QOR_MiscHelper::pathGetAbsolutePath(lpszFileName, NULL);
    strFile.Replace("/vantrel/config/voip/", "/rundata/config/user/voip/");
    return strFile;
}

// The handle of a section of a document, which is made when there is none; 0 when there is no such document.
HREGISTRY sectionOf(HINIFILE hIniFile, const char* lpszSection) {
    const phraseConstTextA name(lpszSection);
    const additionLock hold;
    regDocument* pDocument = hold.GetDocument(reinterpret_cast<uintptr_t>(hIniFile));
    return pDocument != NULL ? reinterpret_cast<HREGISTRY>(registry().GetHandle(pDocument->GetSectionObject(name)))
                             : NULL;
}

// The section of a document, or null.
const regSection* findSection(const registryHold& hold, HINIFILE hIniFile, const phraseConstTextA& name) {
    const regDocument* pDocument = hold.GetDocument(reinterpret_cast<uintptr_t>(hIniFile));
    return pDocument != NULL ? pDocument->FindSectionObject(name) : NULL;
}

// Its handle, or 0.
HREGISTRY existingSection(HINIFILE hIniFile, const char* lpszSection) {
    const phraseConstTextA name(lpszSection);
    const registryLock hold;
    return reinterpret_cast<HREGISTRY>(registry().GetHandle(findSection(hold, hIniFile, name)));
}

}  // namespace

extern "C" {

HINIFILE profileOpen(const char* lpszFileName) {
    reportCall("profileOpen", {textOf(lpszFileName)});
    if (!QOR_ASSERT(lpszFileName != NULL) || isText(lpszFileName, "/tmp/vantrel_dhcp_options"))
        return NULL;
    refString strFile = currentPath(lpszFileName);
    strFile.Replace("/vantrel/config/Setting/AdvSetting.cfg", systemFile);
    if (!QOR_FileHelper::hasSavedFile(strFile))
        return NULL;
    const documentLock hold(strFile);
    return reinterpret_cast<HINIFILE>(registry().GetHandle(hold.m_pDocument));
}

void profileClose(HINIFILE) {}

BOOL profileGetString(HINIFILE hIniFile, const char* lpszSection, const char* lpszKey, char* lpszBuffer,
                      const char* lpszDefault) {
    reportCall("profileGetString", {textOf(lpszSection), textOf(lpszKey), textOf(lpszDefault)});
    const HREGISTRY hRegistry = sectionOf(hIniFile, lpszSection);
    return hRegistry != NULL ? registryGetString(hRegistry, lpszKey, lpszBuffer, lpszDefault) : 0;
}

int profileGetStringN(HINIFILE hIniFile, const char* lpszSection, const char* lpszKey, char* lpszBuffer, int nSize,
                      const char* lpszDefault) {
    reportCall("profileGetStringN", {textOf(lpszSection), textOf(lpszKey), textOf(lpszDefault)});
    return registryGetStringN(sectionOf(hIniFile, lpszSection), lpszKey, lpszBuffer, nSize, lpszDefault);
}

int profileGetInt(HINIFILE hIniFile, const char* lpszSection, const char* lpszKey, int nDefault) {
    reportCall("profileGetInt", {textOf(lpszSection), textOf(lpszKey), std::to_string(nDefault)});
    if (isText(lpszKey, "UseOutBoundInDialog")) {
        lpszSection = sipSection;
        lpszKey = "bUseOutBoundInDialog";
    }
    const HREGISTRY hRegistry = sectionOf(hIniFile, lpszSection);
    return hRegistry != NULL ? registryGetInt(hRegistry, lpszKey, nDefault) : 0;
}

BOOL profileHasSection(HINIFILE hIniFile, const char* lpszSection) {
    reportCall("profileHasSection", {textOf(lpszSection)});
    const phraseConstTextA name(lpszSection);
    const registryLock hold;
    const regSection* pSection = findSection(hold, hIniFile, name);
    return pSection != NULL && pSection->HasKeys();
}

BOOL profileHasKey(HINIFILE hIniFile, const char* lpszSection, const char* lpszKey) {
    reportCall("profileHasKey", {textOf(lpszSection), textOf(lpszKey)});
    return registryHasKey(existingSection(hIniFile, lpszSection), lpszKey);
}

int profileListSections(HINIFILE hIniFile, char* lpszBuffer, int nSize) {
    reportCall("profileListSections", {std::to_string(nSize)});
    std::vector<std::string> listName;
    {
        const registryLock hold;
        if (const regDocument* pDocument = hold.GetDocument(reinterpret_cast<uintptr_t>(hIniFile)))
            listName = sectionNames(*pDocument);
    }
    return listNames(listName, lpszBuffer, nSize);
}

int profileListKeys(HINIFILE hIniFile, const char* lpszSection, char* lpszBuffer, int nSize) {
    reportCall("profileListKeys", {textOf(lpszSection), std::to_string(nSize)});
    return registryListKeys(existingSection(hIniFile, lpszSection), lpszBuffer, nSize);
}

BOOL profileDeleteKey(HINIFILE hIniFile, const char* lpszSection, const char* lpszKey) {
    reportCall("profileDeleteKey", {textOf(lpszSection), textOf(lpszKey)});
    const HREGISTRY hRegistry = existingSection(hIniFile, lpszSection);
    return registryDeleteKey(hRegistry, lpszKey) && registryFlush(hRegistry);
}

BOOL profileDeleteSection(HINIFILE hIniFile, const char* lpszSection) {
    reportCall("profileDeleteSection", {textOf(lpszSection)});
    const HREGISTRY hRegistry = existingSection(hIniFile, lpszSection);
    return registryDeleteSection(hRegistry) && registryFlush(hRegistry);
}

BOOL qorGetProfileString(const char* lpszFileName, const char* lpszSection, const char* lpszKey, char* lpszBuffer,
                         const char* lpszDefault) {
    reportCall("qorGetProfileString",
               {textOf(lpszFileName), textOf(lpszSection), textOf(lpszKey), textOf(lpszDefault)});
    if (!QOR_ASSERT(lpszFileName != NULL))
        return 0;
    const refString strFile = currentPath(lpszFileName);
    if (!QOR_FileHelper::hasSavedFile(strFile))
        return 0;
    return qorGetRegistryString(strFile, lpszSection, lpszKey, lpszBuffer, lpszDefault);
}

int qorGetProfileInt(const char* lpszFileName, const char* lpszSection, const char* lpszKey, int nDefault) {
    reportCall("qorGetProfileInt",
               {textOf(lpszFileName), textOf(lpszSection), textOf(lpszKey), std::to_string(nDefault)});
    refString strFile;
    if (isText(lpszSection, "NGN")) {
        strFile = systemFile;
        lpszSection = sipSection;
        lpszKey = "bUse23AsPound";
    } else if (isText(lpszSection, "Call Type")) {
        strFile = userFile;
        lpszSection = "CallOption";
        lpszKey = "eCallMode";
    } else if (QOR_ASSERT(lpszFileName != NULL)) {
        strFile = currentPath(lpszFileName);
    }
    return QOR_FileHelper::hasSavedFile(strFile) ? qorGetRegistryInt(strFile, lpszSection, lpszKey, nDefault)
                                                 : nDefault;
}

}  // extern "C"
