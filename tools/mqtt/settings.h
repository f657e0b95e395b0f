// The bridge's configuration: an INI file, read through the registry. docs/mqtt.md has all keys.
#ifndef QOR_MQTT_SETTINGS_H
#define QOR_MQTT_SETTINGS_H

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "outbox.h"
#include "rules.h"

namespace qormqtt {

// Read once, when the bridge starts.
struct brokerSettings {
    std::string strDevice;
    std::string strHost;
    int nPort = 0;
    int nKeepAlive = 0;
    int nReconnectMaxMs = 0;
    std::string strUser, strPassword;
    std::string strCaFile, strCaPath, strCertFile, strKeyFile, strTlsVersion, strCiphers;
    bool bInsecure = false;

    bool usesTls() const { return !strCaFile.empty() || !strCaPath.empty(); }
};

struct limitSettings {
    outboxLimits out;
    int nExpirySeconds = 0;    // of messages to the network; 0: they do not expire
    int nQueued = 0;           // messages that may wait unread in a thread's queue for the bridge to post another
    size_t nWaiting = 0;       // messages that wait in the bridge for one thread to read
    size_t nWaitingBytes = 0;  // of all that wait so
    int nWaitMs = 0;           // how long they wait
    int nSendMs = 0;           // time-out of a send
    size_t nOpenSends = 0;     // sends that wait for a worker
};

// A name that the bridge registers: what is posted to it goes to a thread of another device, or to this device's own
// topics.
struct mappedName {
    std::string strName;
    std::string strDevice, strThread;  // empty: qor/DEV/out/NAME
};

struct settings {
    limitSettings limits;
    std::map<std::string, std::string> files;  // of documents' aliases
    allowList allow;
    std::vector<mappedName> names;
    std::string strOwnFile;  // the configuration itself, which is no document: who may write it may do everything

    // The file of a document's name in topics: that of an alias, or an absolute path. Empty for anything else.
    std::string fileOf(const std::string& strDocument) const;
};

// All that follows is false with a reason when the file cannot be used. strFile is absolute.
bool readBrokerSettings(const std::string& strFile, brokerSettings& broker, std::string& strReason);
// How many workers handle sends; read once.
int readWorkerCount(const std::string& strFile);
// What may change while the bridge runs. What cannot be read is left out, with a trace line for each: nothing is
// allowed by mistake.
std::shared_ptr<const settings> readSettings(const std::string& strFile);
// The sections that readSettings() reads.
const std::vector<const char*>& changingSections();

// All values of a section, by key.
std::map<std::string, std::string> readSection(const std::string& strFile, const char* lpszSection);
// The names in a list that a function of flat.h copies into a buffer, one a line.
template <class F>
std::vector<std::string> listNames(const F& fnList) {
    std::string strList(static_cast<size_t>(fnList(nullptr, 0)) + 1, '\0');
    fnList(&strList[0], static_cast<int>(strList.size()));
    std::vector<std::string> names;
    const size_t nLength = strList.find('\0');
    for (size_t nBegin = 0, nEnd; (nEnd = strList.find('\n', nBegin)) < nLength; nBegin = nEnd + 1)
        names.push_back(strList.substr(nBegin, nEnd - nBegin));
    return names;
}

}  // namespace qormqtt

#endif
