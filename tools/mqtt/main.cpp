// qor-mqtt: the device on a network.
#include <errno.h>
#include <getopt.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "bridge.h"

namespace {

using namespace qormqtt;

const char szUsage[] =
    "usage: qor-mqtt [--check] [--help] [--version] [FILE]\n"
    "\n"
    "Connects the device that this machine is to an MQTT broker: threads, messages and configuration as topics below\n"
    "qor/DEVICE. FILE is the configuration, /etc/qor/mqtt.ini by default. Nothing passes that it does not allow.\n"
    "\n"
    "  -c, --check     read the configuration, say what is wrong with it, and end\n"
    "  -h, --help      this text\n"
    "  -V, --version   the version\n"
    "\n"
    "The exit status is 0 after SIGTERM or SIGINT, 1 when the bridge cannot run, 2 for a wrong option.\n"
    "qor-mqtt(1) has the keys of the configuration and the topics.\n";

bridge* s_pBridge = nullptr;

int onMessage(simpMSG* pMsg) { return s_pBridge != nullptr ? s_pBridge->onMessage(pMsg) : -1; }

int fail(const std::string& strReason) {
    fprintf(stderr, "qor-mqtt: %s\n", strReason.c_str());
    return 1;
}

// The registry knows files by their absolute names.
std::string absoluteName(const char* lpszFile) {
    char sz[PATH_MAX];
    return realpath(lpszFile, sz) != nullptr ? sz : lpszFile;
}

int check(const std::string& strFile) {
    brokerSettings broker;
    std::string strReason;
    if (!readBrokerSettings(strFile, broker, strReason))
        return fail(strReason);
    const std::shared_ptr<const settings> pSettings = readSettings(strFile);
    printf("%s: device %s, broker %s:%d%s, %zu rules, %zu documents, %zu names\n", strFile.c_str(),
           broker.strDevice.c_str(), broker.strHost.c_str(), broker.nPort, broker.usesTls() ? " with TLS" : "",
           pSettings->allow.rules().size(), pSettings->files.size(), pSettings->names.size());
    return 0;
}

int serve(HTHREAD hSelf, const std::string& strFile, const brokerSettings& settings) {
    std::unique_ptr<bridge> pBridge = std::make_unique<bridge>(strFile, settings, hSelf);
    s_pBridge = pBridge.get();
    // Before the device is online: whoever sees it there may end the bridge.
    msgQuitOnSignal(SIGTERM);
    msgQuitOnSignal(SIGINT);
    std::string strReason;
    if (!pBridge->start(strReason))
        return fail(strReason);
    msgEnableWatchdog();
    msgNotifyReady();
    const int nExit = msgDefaultThreadRun();
    if (!pBridge->stop()) {
        fflush(nullptr);
        _exit(nExit);
    }
    return nExit;
}

int run(const std::string& strFile) {
    brokerSettings settings;
    std::string strReason;
    if (!readBrokerSettings(strFile, settings, strReason))
        return fail(strReason);
    HTHREAD hSelf = nullptr;
    const int nResult = msgTryRegistMainThread("mqtt", onMessage, &hSelf);
    if (nResult == -1)
        return fail("the name mqtt is in use on this device: is the bridge running already?");
    if (nResult != 1)
        return fail("the device has no room for another thread");
    const int nExit = serve(hSelf, strFile, settings);
    s_pBridge = nullptr;
    msgUnregistMainThread(hSelf);
    return nExit;
}

}  // namespace

int main(int argc, char** argv) {
    static const option arrOption[] = {{"check", no_argument, nullptr, 'c'},
                                       {"help", no_argument, nullptr, 'h'},
                                       {"version", no_argument, nullptr, 'V'},
                                       {nullptr, 0, nullptr, 0}};
    bool bCheck = false;
    for (int nOption; (nOption = getopt_long(argc, argv, "chV", arrOption, nullptr)) != -1;) {
        switch (nOption) {
            case 'c':
                bCheck = true;
                break;
            case 'h':
                fputs(szUsage, stdout);
                return 0;
            case 'V':
                printf("qor-mqtt %s\n", _szVersion_VER_QOR_LIB);
                return 0;
            default:
                fputs(szUsage, stderr);
                return 2;
        }
    }
    if (argc - optind > 1) {
        fputs(szUsage, stderr);
        return 2;
    }
    const std::string strFile = absoluteName(optind < argc ? argv[optind] : "/etc/qor/mqtt.ini");
    signal(SIGPIPE, SIG_IGN);
    return bCheck ? check(strFile) : run(strFile);
}
