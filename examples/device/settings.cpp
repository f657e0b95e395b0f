// The device's settings: an INI file that all processes reach through the registry. The launcher makes it when it is
// missing, and shows at the end what a run has changed in it.
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <vector>

#include "device.h"

namespace device {

namespace {

constexpr char szDefault[] =
    "; Settings of the demo device. The processes read them through the registry; what the operator changes at run\n"
    "; time is saved here, with these comments and all blank lines in their places.\n"
    "\n"
    "[ Device ]\n"
    "name = first floor\n"
    "\n"
    "[ Sampler ]\n"
    "; milliseconds between two readings\n"
    "period = 100\n"
    "\n"
    "[ Alarm ]\n"
    "# permille of memory in use; none reaches 1001\n"
    "threshold = 1001\n"
    "# how often the alarm was raised\n"
    "raised = 0\n";

std::vector<std::string> linesOf(const std::string& strText) {
    std::vector<std::string> arrLine;
    for (size_t nBegin = 0; nBegin < strText.size();) {
        const size_t nEnd = strText.find('\n', nBegin);
        arrLine.push_back(strText.substr(nBegin, nEnd - nBegin));
        nBegin = nEnd == std::string::npos ? strText.size() : nEnd + 1;
    }
    return arrLine;
}

}  // namespace

std::string settingsFile() { return std::string(getenv("HOME")) + "/qor-device.ini"; }

bool makeSettings() {
    FILE* pFile = fopen(settingsFile().c_str(), "wxe");
    if (pFile == nullptr)
        return access(settingsFile().c_str(), R_OK | W_OK) == 0;
    const bool bWritten = fputs(szDefault, pFile) >= 0;
    return fclose(pFile) == 0 && bWritten;
}

std::string readSettings() {
    std::string strText;
    FILE* pFile = fopen(settingsFile().c_str(), "re");
    if (pFile == nullptr)
        return strText;
    char sz[4096];
    for (size_t n; (n = fread(sz, 1, sizeof(sz), pFile)) > 0;)
        strText.append(sz, n);
    fclose(pFile);
    return strText;
}

// Lines are only replaced or appended here, so they are compared one by one.
void showDifference(const std::string& strBefore, const std::string& strAfter) {
    const std::vector<std::string> arrBefore = linesOf(strBefore), arrAfter = linesOf(strAfter);
    if (arrBefore == arrAfter)
        return say("launcher", "%s is as it was", settingsFile().c_str());
    say("launcher", "%s has changed:", settingsFile().c_str());
    for (size_t i = 0; i < arrBefore.size() || i < arrAfter.size(); ++i) {
        if (i < arrBefore.size() && i < arrAfter.size() && arrBefore[i] == arrAfter[i])
            continue;
        if (i < arrBefore.size())
            say("launcher", "-%3zu %s", i + 1, arrBefore[i].c_str());
        if (i < arrAfter.size())
            say("launcher", "+%3zu %s", i + 1, arrAfter[i].c_str());
    }
}

HREGISTRY openSettings(const char* lpszSection) { return registryOpen(settingsFile().c_str(), lpszSection); }

void change(HREGISTRY hSection, const char* lpszKey, int nValue) {
    registrySetInt(hSection, lpszKey, nValue);
    registryFlush(hSection);
}

}  // namespace device
