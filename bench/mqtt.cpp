// The bridge to MQTT beside two bare clients of libmosquitto: how many messages a second, and how long one takes, with
// QoS 1 and a broker on the loopback.
#include <arpa/inet.h>
#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include "qor/flat.h"
#include "support.h"

namespace {

int s_nCount = 20000;
int s_nQuestions = 500;
constexpr int nWindow = 100;
const char szPayload[] = "{\"w\":1,\"l\":2,\"data\":\"MDEyMzQ1Njc4OWFiY2RlZjAxMjM0NTY3ODlhYmNkZWYwMTIz\"}";

std::atomic<int> s_nTaken{0};

class client {
public:
    explicit client(int nPort) : m_pClient(mosquitto_new(NULL, true, this)) {
        mosquitto_int_option(m_pClient, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
        mosquitto_int_option(m_pClient, MOSQ_OPT_TCP_NODELAY, 1);
        mosquitto_publish_callback_set(m_pClient, [](mosquitto*, void* p, int) { --static_cast<client*>(p)->nOpen; });
        mosquitto_message_callback_set(m_pClient, [](mosquitto*, void* p, const mosquitto_message* pMessage) {
            ++static_cast<client*>(p)->nGot;
            static_cast<client*>(p)->strLast.assign(static_cast<const char*>(pMessage->payload),
                                                    static_cast<size_t>(pMessage->payloadlen));
        });
        while (mosquitto_connect(m_pClient, "127.0.0.1", nPort, 60) != MOSQ_ERR_SUCCESS)
            usleep(1000);
    }
    ~client() { mosquitto_destroy(m_pClient); }
    void subscribe(const char* lpszTopic) {
        mosquitto_subscribe(m_pClient, NULL, lpszTopic, 1);
        for (int i = 0; i < 20; ++i)
            run(5);
    }
    void publish(const char* lpszTopic, const char* lpszText, const char* lpszResponse = NULL) {
        mosquitto_property* pProperties = NULL;
        if (lpszResponse != NULL)
            mosquitto_property_add_string(&pProperties, MQTT_PROP_RESPONSE_TOPIC, lpszResponse);
        mosquitto_publish_v5(m_pClient, NULL, lpszTopic, static_cast<int>(strlen(lpszText)), lpszText, 1, false,
                             pProperties);
        mosquitto_property_free_all(&pProperties);
        ++nOpen;
    }
    void run(int nMs) { mosquitto_loop(m_pClient, nMs, 1); }

    int nOpen = 0, nGot = 0;
    std::string strLast;

private:
    mosquitto* m_pClient;
};

pid_t start(const std::vector<const char*>& words) {
    const pid_t id = fork();
    if (id != 0)
        return id;
    std::vector<char*> arguments;
    for (const char* lpsz : words)
        arguments.push_back(const_cast<char*>(lpsz));
    arguments.push_back(NULL);
    (void)!freopen("/dev/null", "w", stderr);
    execv(arguments[0], arguments.data());
    _exit(127);
}

void put(const char* lpszFile, const std::string& strText) {
    FILE* pFile = fopen(lpszFile, "w");
    fputs(strText.c_str(), pFile);
    fclose(pFile);
}

int freePort() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t nSize = sizeof(address);
    (void)!bind(fd, reinterpret_cast<sockaddr*>(&address), nSize);
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &nSize);
    close(fd);
    return ntohs(address.sin_port);
}

// Messages a second until the last has arrived.
void printRate(const char* lpszWhat, const std::function<void(int)>& fnPublish, const std::function<bool()>& fnIsDone) {
    const long long tBegin = bench::now();
    fnPublish(s_nCount);
    while (!fnIsDone()) {
    }
    printf("%-44s %8.0f messages/s\n", lpszWhat, s_nCount * 1e9 / static_cast<double>(bench::now() - tBegin));
}

void printTimes(const char* lpszWhat, const std::function<void()>& fnAsk) {
    std::vector<long long> times;
    for (int i = 0; i < s_nQuestions; ++i) {
        const long long tBegin = bench::now();
        fnAsk();
        times.push_back(bench::now() - tBegin);
    }
    const bench::figures figures = bench::figuresOf(times);
    printf("%-44s %8.0f us median, %6.0f us 99%%\n", lpszWhat, figures.nMedian / 1000, figures.nHigh / 1000);
}

void publishAll(client& from, client* pTo, const char* lpszTopic, int nMessages) {
    for (int i = 0; i < nMessages || from.nOpen > 0;) {
        for (; i < nMessages && from.nOpen < nWindow; ++i)
            from.publish(lpszTopic, szPayload);
        from.run(from.nOpen < nWindow ? 0 : 1);
        if (pTo != NULL)
            pTo->run(0);
    }
}

void measureBare(int nPort) {
    client from(nPort), to(nPort);
    to.subscribe("bare/+");
    printRate(
        "libmosquitto to libmosquitto", [&](int n) { publishAll(from, &to, "bare/a", n); },
        [&] { return to.run(1), to.nGot >= s_nCount; });
    const bench::peer echo(1, [&] {
        client answerer(nPort);
        answerer.subscribe("question");
        for (int nAnswered = 0;;) {
            answerer.run(100);
            for (; nAnswered < answerer.nGot; ++nAnswered)
                answerer.publish("bare/answer", szPayload);
        }
    });
    usleep(500000);
    printTimes("libmosquitto, question and answer", [&] {
        const int nGot = to.nGot;
        from.publish("question", szPayload);
        for (from.run(0); to.nGot == nGot; from.run(0))
            to.run(1);
    });
}

int onMessage(simpMSG* pMsg) {
    if (pMsg->uMsg == 0x100)
        ++s_nTaken;
    return pMsg->uMsg == 0x200 ? 1 : -1;
}

void measureBridge(int nPort) {
    msgLaunchCallbackWorkThread("bench", onMessage, -1);
    client from(nPort), to(nPort);
    to.subscribe("qor/bench/out/#");
    to.subscribe("answers");
    printRate(
        "libmosquitto to a thread", [&](int n) { publishAll(from, NULL, "qor/bench/msg/bench/0x100", n); },
        [&] { return from.run(1), s_nTaken >= s_nCount; });
    const HTHREAD hBridge = msgGetThreadByName("mqtt");
    const char aData[36] = {};
    printRate(
        "a thread to libmosquitto",
        [&](int n) {
            for (int i = 0; i < n; to.run(0))
                while (i < n && msgTryPostMsgToThread(hBridge, 0x100, 1, 2, 36, aData, 50) == 1)
                    ++i;
        },
        [&] { return to.run(1), to.nGot >= s_nCount; });
    printTimes("libmosquitto to a thread, send and answer", [&] {
        const int nGot = to.nGot;
        from.publish("qor/bench/msg/bench/0x200", szPayload, "answers");
        for (from.run(0); to.nGot == nGot; from.run(0))
            to.run(1);
    });
    msgUnlaunchWorkThread("bench");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && strcmp(argv[1], "--quick") == 0)
        s_nCount = 2000, s_nQuestions = 50;
    const std::string strPort = std::to_string(freePort());
    put("/tmp/qor_bench.mosquitto",
        "listener " + strPort + " 127.0.0.1\nallow_anonymous true\nmax_queued_messages 0\nset_tcp_nodelay true\n" +
            (geteuid() == 0 ? "user root\n" : ""));
    put("/tmp/qor_bench.ini", "[broker]\ndevice = bench\nhost = 127.0.0.1\nport = " + strPort +
                                  "\n[allow]\n1 = post bench *\n2 = send bench *\n3 = out mqtt *\n");
    setenv("trace", "0", 1);
    const pid_t idBroker = start({QOR_MOSQUITTO_PROGRAM, "-c", "/tmp/qor_bench.mosquitto"});
    const int nPort = atoi(strPort.c_str());
    measureBare(nPort);
    const pid_t idBridge = start({QOR_MQTT_PROGRAM, "/tmp/qor_bench.ini"});
    while (msgGetThreadByName("mqtt") == NULL)
        usleep(1000);
    usleep(1000000);
    measureBridge(nPort);
    for (const pid_t id : {idBridge, idBroker}) {
        kill(id, SIGTERM);
        waitpid(id, NULL, 0);
    }
    return 0;
}
