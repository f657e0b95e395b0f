// Messages over D-Bus: two clients of a message bus of their own, which passes each message on. A question is a method
// call and its reply; a stream is calls without replies, as the others are measured.
#include "support.h"

#ifdef QOR_BENCH_DBUS
#include <dbus/dbus.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

namespace bench {

namespace {

const char szServer[] = "qor.bench.Server";
const char szClient[] = "qor.bench.Client";

class messageBus : public transport {
public:
    // Each measurement starts a bus of its own, on the processor of the client.
    messageBus() {
        static int s_nMade = 0;
        m_strAddress = "unix:path=/tmp/qor_bench.dbus" + std::to_string(++s_nMade);
        m_idMaker = getpid();
        m_idBus = fork();
        if (m_idBus == 0) {
            const std::string strOption = "--address=" + m_strAddress;
            (void)!freopen("/dev/null", "w", stderr);  // it may not raise its limit of descriptors, and says so
            execlp("dbus-daemon", "dbus-daemon", "--session", "--nofork", "--nopidfile", strOption.c_str(),
                   static_cast<char*>(NULL));
            _exit(1);
        }
    }
    ~messageBus() override {
        if (getpid() != m_idMaker)
            return;
        kill(m_idBus, SIGTERM);
        waitpid(m_idBus, NULL, 0);
    }
    const char* name() const override { return "D-Bus"; }
    void openServer() override { open(szServer); }
    void openClient() override {
        open(szClient);
        while (!dbus_bus_name_has_owner(m_pConnection, szServer, NULL))
            usleep(1000);
    }
    void ask(int nSize) override {
        DBusMessage* pCall = makeCall(szServer, nSize);
        DBusMessage* pReply = dbus_connection_send_with_reply_and_block(m_pConnection, pCall, -1, NULL);
        dbus_message_unref(pCall);
        if (pReply == NULL)
            abort();
        dbus_message_unref(pReply);
    }
    void answer() override {
        for (;;) {
            DBusMessage* pCall = receiveCall();
            DBusMessage* pReply = dbus_message_new_method_return(pCall);
            append(pReply, sizeOf(pCall));
            sendNow(pReply);
            dbus_message_unref(pCall);
        }
    }
    void stream(int nSize, int nCount) override {
        for (int i = 0; i < nCount; ++i) {
            if (m_nCredit == 0) {
                dbus_message_unref(receiveCall());
                m_nCredit += creditGrain;
            }
            post(szServer, nSize);
            --m_nCredit;
        }
    }
    void take() override {
        for (int i = 1;; ++i) {
            dbus_message_unref(receiveCall());
            if (i % creditGrain == 0)
                post(szClient, 1);
        }
    }

private:
    // The bus may still be starting.
    void open(const char* lpszName) {
        for (int i = 0; m_pConnection == NULL && i < 10000; ++i) {
            m_pConnection = dbus_connection_open_private(m_strAddress.c_str(), NULL);
            if (m_pConnection == NULL)
                usleep(1000);
        }
        if (m_pConnection == NULL || !dbus_bus_register(m_pConnection, NULL)) {
            fprintf(stderr, "D-Bus: the bus does not start\n");
            exit(1);
        }
        dbus_connection_set_exit_on_disconnect(m_pConnection, TRUE);
        dbus_bus_request_name(m_pConnection, lpszName, 0, NULL);
    }
    void append(DBusMessage* pMessage, int nSize) {
        const char* pData = m_aData;
        dbus_message_append_args(pMessage, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &pData, nSize, DBUS_TYPE_INVALID);
    }
    static int sizeOf(DBusMessage* pMessage) {
        const char* pData = NULL;
        int nSize = 0;
        dbus_message_get_args(pMessage, NULL, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &pData, &nSize, DBUS_TYPE_INVALID);
        return nSize;
    }
    DBusMessage* makeCall(const char* lpszTo, int nSize) {
        DBusMessage* pCall = dbus_message_new_method_call(lpszTo, "/bench", "qor.bench", "Take");
        append(pCall, nSize);
        return pCall;
    }
    void post(const char* lpszTo, int nSize) {
        DBusMessage* pCall = makeCall(lpszTo, nSize);
        dbus_message_set_no_reply(pCall, TRUE);
        sendNow(pCall);
    }
    void sendNow(DBusMessage* pMessage) {
        dbus_connection_send(m_pConnection, pMessage, NULL);
        dbus_connection_flush(m_pConnection);
        dbus_message_unref(pMessage);
    }
    // The next call; the signals of the bus itself are passed over.
    DBusMessage* receiveCall() {
        for (;;) {
            DBusMessage* pMessage = dbus_connection_pop_message(m_pConnection);
            if (pMessage == NULL) {
                if (!dbus_connection_read_write(m_pConnection, -1))
                    _exit(1);
                continue;
            }
            if (dbus_message_get_type(pMessage) == DBUS_MESSAGE_TYPE_METHOD_CALL)
                return pMessage;
            dbus_message_unref(pMessage);
        }
    }

    char m_aData[maxSize] = {};
    int m_nCredit = window;
    pid_t m_idMaker, m_idBus;
    std::string m_strAddress;
    DBusConnection* m_pConnection = NULL;
};

}  // namespace

std::vector<transportMaker> busTransports() {
    return {[]() { return std::unique_ptr<transport>(new messageBus); }};
}

}  // namespace bench

#else

namespace bench {

std::vector<transportMaker> busTransports() { return {}; }

}  // namespace bench

#endif
