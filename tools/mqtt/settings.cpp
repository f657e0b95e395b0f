#include "settings.h"

#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "qor/flat.h"
#include "topics.h"

namespace qormqtt {

namespace {

typedef std::map<std::string, std::string> section;

std::string textOf(const section& values, const char* lpszKey, const char* lpszDefault = "") {
    const auto it = values.find(lpszKey);
    return it != values.end() && !it->second.empty() ? it->second : lpszDefault;
}

int numberOf(const section& values, const char* lpszKey, int nDefault, int nMin, int nMax) {
    const std::string strValue = textOf(values, lpszKey);
    if (strValue.empty())
        return nDefault;
    char* pEnd = nullptr;
    const long n = strtol(strValue.c_str(), &pEnd, 10);
    if (*pEnd != '\0' || n < nMin || n > nMax) {
        tracePrintf("qor-mqtt: %s = %s is not a number from %d to %d; it is %d", lpszKey, strValue.c_str(), nMin, nMax,
                    nDefault);
        return nDefault;
    }
    return static_cast<int>(n);
}

std::string hostName() {
    char sz[HOST_NAME_MAX + 1] = "";
    gethostname(sz, sizeof(sz) - 1);
    return sz[0] != '\0' ? sz : "device";
}

// Others on the machine must not read it; the registry would show it to all.
bool readPassword(const std::string& strFile, std::string& strPassword, std::string& strReason) {
    struct stat status;
    if (stat(strFile.c_str(), &status) != 0) {
        strReason = "password_file " + strFile + ": " + strerror(errno);
        return false;
    }
    if (!S_ISREG(status.st_mode) || (status.st_mode & 077) != 0) {
        strReason = "password_file " + strFile + " can be read by others: chmod 600 " + strFile;
        return false;
    }
    std::ifstream file(strFile);
    if (!std::getline(file, strPassword)) {
        strReason = "password_file " + strFile + " cannot be read or is empty";
        return false;
    }
    return true;
}

void readTls(const section& values, brokerSettings& broker) {
    broker.strCaFile = textOf(values, "cafile");
    broker.strCaPath = textOf(values, "capath");
    broker.strCertFile = textOf(values, "certfile");
    broker.strKeyFile = textOf(values, "keyfile");
    broker.strTlsVersion = textOf(values, "tls_version");
    broker.strCiphers = textOf(values, "ciphers");
    broker.bInsecure = numberOf(values, "insecure", 0, 0, 1) != 0;
}

limitSettings readLimits(const section& values) {
    limitSettings limits;
    limits.out.nMessages = static_cast<size_t>(numberOf(values, "out_messages", 4096, 1, 1000000));
    limits.out.nBytes = static_cast<size_t>(numberOf(values, "out_bytes", 1 << 20, 4096, INT_MAX));
    limits.out.nStates = static_cast<size_t>(numberOf(values, "states", 16384, 1, 1000000));
    limits.out.nStateBytes = static_cast<size_t>(numberOf(values, "state_bytes", 4 << 20, 4096, INT_MAX));
    limits.nExpirySeconds = numberOf(values, "expiry", 60, 0, INT_MAX);
    limits.nQueued = numberOf(values, "queued", 50, 1, 1000);
    limits.nWaiting = static_cast<size_t>(numberOf(values, "waiting", 512, 1, 100000));
    limits.nWaitingBytes = static_cast<size_t>(numberOf(values, "waiting_bytes", 1 << 18, 4096, INT_MAX));
    limits.nWaitMs = numberOf(values, "wait", 5000, 0, 600000);
    limits.nSendMs = numberOf(values, "send_timeout", 2000, 1, 600000);
    limits.nOpenSends = static_cast<size_t>(numberOf(values, "sends", 64, 1, 10000));
    return limits;
}

// "DEVICE/THREAD", written as in topics, or nothing.
bool parseTarget(const std::string& strTarget, mappedName& name) {
    if (strTarget.empty())
        return true;
    const size_t nSlash = strTarget.find('/');
    return nSlash != std::string::npos && decodeName(strTarget.substr(0, nSlash), name.strDevice) &&
           decodeName(strTarget.substr(nSlash + 1), name.strThread) && !name.strDevice.empty() &&
           !name.strThread.empty();
}

void readNames(const section& values, std::vector<mappedName>& names) {
    for (const auto& entry : values) {
        mappedName name;
        if (decodeName(entry.first, name.strName) && parseTarget(entry.second, name) && name.strName != "mqtt")
            names.push_back(name);
        else
            tracePrintf("qor-mqtt: [map] %s = %s is left out: DEVICE/THREAD or nothing is expected",
                        entry.first.c_str(), entry.second.c_str());
    }
}

// Whoever may write the allow list may do everything, so it is no document.
bool isSameFile(const std::string& strOne, const std::string& strOther) {
    struct stat one, other;
    return strOne == strOther || (stat(strOne.c_str(), &one) == 0 && stat(strOther.c_str(), &other) == 0 &&
                                  one.st_dev == other.st_dev && one.st_ino == other.st_ino);
}

void readRules(const section& values, allowList& allow) {
    for (const auto& entry : values) {
        std::string strReason;
        if (!allow.add(entry.second, strReason))
            tracePrintf("qor-mqtt: [allow] %s = %s is left out: %s", entry.first.c_str(), entry.second.c_str(),
                        strReason.c_str());
    }
}

}  // namespace

std::string settings::fileOf(const std::string& strDocument) const {
    const auto it = files.find(strDocument);
    const std::string strFile = it != files.end() ? it->second : strDocument;
    return strFile.empty() || strFile[0] != '/' || isSameFile(strFile, strOwnFile) ? "" : strFile;
}

std::map<std::string, std::string> readSection(const std::string& strFile, const char* lpszSection) {
    section values;
    const HREGISTRY hSection = registryOpen(strFile.c_str(), lpszSection);
    for (const std::string& strKey :
         listNames([&](char*lpsz, int nSize) { return registryListKeys(hSection, lpsz, nSize); })) {
        std::string strValue(static_cast<size_t>(registryGetStringN(hSection, strKey.c_str(), nullptr, 0, "")) + 1, 0);
        registryGetStringN(hSection, strKey.c_str(), &strValue[0], static_cast<int>(strValue.size()), "");
        values[strKey] = strValue.c_str();
    }
    return values;
}

bool readBrokerSettings(const std::string& strFile, brokerSettings& broker, std::string& strReason) {
    if (access(strFile.c_str(), R_OK) != 0) {
        strReason = strFile + ": " + strerror(errno);
        return false;
    }
    const section values = readSection(strFile, "broker");
    for (const auto& entry : values)
        if (strcasecmp(entry.first.c_str(), "password") == 0) {
            strReason = strFile +
                        ": a password does not belong into the registry, where every process sees it; "
                        "write it to a file of mode 0600 and name that as password_file";
            return false;
        }
    broker.strDevice = textOf(values, "device", hostName().c_str());
    broker.strHost = textOf(values, "host", "localhost");
    readTls(values, broker);
    broker.nPort = numberOf(values, "port", broker.usesTls() ? 8883 : 1883, 1, 65535);
    broker.nKeepAlive = numberOf(values, "keepalive", 30, 5, 3600);
    broker.nReconnectMaxMs = numberOf(values, "reconnect_max", 10000, 10, 3600000);
    broker.strUser = textOf(values, "username");
    const std::string strPasswordFile = textOf(values, "password_file");
    return strPasswordFile.empty() || readPassword(strPasswordFile, broker.strPassword, strReason);
}

int readWorkerCount(const std::string& strFile) {
    return numberOf(readSection(strFile, "limits"), "workers", 4, 1, 64);
}

const std::vector<const char*>& changingSections() {
    static const std::vector<const char*> s_sections = {"allow", "aliases", "limits", "map"};
    return s_sections;
}

std::shared_ptr<const settings> readSettings(const std::string& strFile) {
    const std::shared_ptr<settings> result = std::make_shared<settings>();
    result->strOwnFile = strFile;
    result->limits = readLimits(readSection(strFile, "limits"));
    result->files = readSection(strFile, "aliases");
    readRules(readSection(strFile, "allow"), result->allow);
    readNames(readSection(strFile, "map"), result->names);
    return result;
}

}  // namespace qormqtt
