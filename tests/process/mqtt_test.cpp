// The bridge to MQTT, against a broker on the loopback.
#include "support/mqtt.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <atomic>
#include <fstream>
#include <map>
#include <memory>
#include <thread>

#include "counters.h"
#include "qor/RegistryHelper.h"
#include "qor/flat.h"
#include "support/ctl.h"
#include "support/filebytes.h"
#include "support/leavings.h"
#include "support/message_thread.h"
#include "support/scale.h"

using namespace qorTest;
using nlohmann::json;

namespace {

// What the bridge and killed processes leave: their wake-up events go with the next registration.
const bool s_bLeave = leaveObjects("task_event_");

class Mqtt : public testing::Test {
protected:
    void SetUp() override {
        watch("mqtt_test");
        alarm(0);
        unlink("/tmp/bridge.out");
        // The counters go on from bridge to bridge.
        nameHelperLock();
        void* const pBlock = nameGetSystemObject(qormqtt::szCounterBlock, sizeof(qormqtt::counterBlock), NULL);
        memset(pBlock, 0, sizeof(qormqtt::counterBlock));  // as a new one
        nameHelperUnlock();
    }

    mqttBroker m_broker;
};

std::string base64(const std::string& strText) { return strText == "abc" ? "YWJj" : "AAEC"; }

std::function<bool(const mqttMessage&)> stateIs(const char* lpszTopic, const char* lpszState) {
    return [=](const mqttMessage& message) {
        const json object = message.json();
        return message.strTopic == lpszTopic && object.is_object() && object.value("state", "") == lpszState;
    };
}

std::function<bool(const mqttMessage&)> valueIs(const std::string& strTopic, const std::string& strValue) {
    return [=](const mqttMessage& message) {
        const json object = message.json();
        return message.strTopic == strTopic && object.is_object() && object.value("value", "") == strValue;
    };
}

// What the bridge counts, once it has counted at least so many.
json countersWith(mqttClient& client, const std::string& strName, unsigned uAtLeast) {
    return client
        .await([&](const mqttMessage& message) {
            return message.strTopic == "qor/dev/bridge" && message.json()["counters"].value(strName, 0u) >= uAtLeast;
        })
        .json()["counters"];
}

const char szPosts[] = "[allow]\n1 = post worker 0x100-0x1ff\n2 = send worker 0x200-0x2ff\n3 = out mqtt *\n";

TEST_F(Mqtt, ADeviceIsOnlineUntilItsBridgeDiesAndALateWillIsCorrected) {
    mqttClient client(m_broker);
    client.subscribe("qor/dev/state");
    mqttBridge bridge(m_broker, "");
    const unsigned uBirth = client.await(stateIs("qor/dev/state", "online")).json()["birth"];
    bridge.kill();
    EXPECT_EQ(uBirth, client.await(stateIs("qor/dev/state", "offline")).json()["birth"]);
    bridge.start();
    const unsigned uNext = client.await(stateIs("qor/dev/state", "online")).json()["birth"];
    EXPECT_GT(uNext, uBirth);

    // The will of an earlier connection, late.
    client.publish("qor/dev/state", json{{"state", "offline"}, {"birth", uBirth}}.dump(), true);
    client.await(stateIs("qor/dev/state", "offline"));
    EXPECT_EQ(uNext, client.await(stateIs("qor/dev/state", "online")).json()["birth"]);

    EXPECT_EQ(0, bridge.end()) << bridge.output();
    EXPECT_EQ(uNext, client.await(stateIs("qor/dev/state", "offline")).json()["birth"]);
    mqttClient late(m_broker);
    late.subscribe("qor/dev/state");
    EXPECT_TRUE(late.await(stateIs("qor/dev/state", "offline")).bRetained);
}

TEST_F(Mqtt, AThreadThatIsKilledIsDeadEvenWhenNobodyWaitsForItsProcess) {
    mqttClient client(m_broker);
    client.subscribe("qor/dev/thread/#");
    mqttBridge bridge(m_broker, "[allow]\n1 = state victim\n2 = state other%2F*\n");
    client.await(stateIs("qor/dev/thread/victim/state", "dead"));
    meeting registered;
    childProcess victim("victim", [&] {
        messageThread thread("victim", [](QOR_MsgQueueHelper::msgObject&) { return 0; });
        messageThread other("other/one", [](QOR_MsgQueueHelper::msgObject&) { return 0; });
        messageThread unnamed("unnamed", [](QOR_MsgQueueHelper::msgObject&) { return 0; });
        registered.say();
        pause();
        return 0;
    });
    registered.hear();
    client.await(stateIs("qor/dev/thread/other%2Fone/state", "alive"));
    client.messages.clear();
    victim.kill();  // and not waited for
    const auto tKilled = std::chrono::steady_clock::now();
    client.await(stateIs("qor/dev/thread/victim/state", "dead"));
    const auto tDead = std::chrono::steady_clock::now();
    EXPECT_LT(tDead - tKilled, isSlow() ? std::chrono::seconds(10) : std::chrono::seconds(3));
    for (const mqttMessage& message : client.messages)
        EXPECT_EQ(std::string::npos, message.strTopic.find("unnamed"));
    EXPECT_EQ(0, bridge.end());
}

TEST_F(Mqtt, MessagesArePostedWithAllThatIsInThem) {
    std::atomic<int> nGot{0};
    std::string strGot;
    messageThread worker("worker", [&](QOR_MsgQueueHelper::msgObject& msg) {
        strGot += std::to_string(msg.uMsg) + " " + std::to_string(msg.wParam) + " " + std::to_string(msg.lParam) + " " +
                  std::string(static_cast<const char*>(msg.GetExtraData()), static_cast<size_t>(msg.GetExtraSize())) +
                  "\n";
        ++nGot;
        return 0;
    });
    mqttClient client(m_broker);
    client.subscribe("qor/dev/bridge");
    mqttBridge bridge(m_broker, std::string(szPosts) + "4 = post worker 0x300 raw\n");
    countersWith(client, "connected", 1);
    client.publish("qor/dev/msg/worker/0x100", R"({"w":4294967295,"l":-2,"data":"YWJj"})");
    client.publish("qor/dev/msg/worker/511", "");
    client.publish("qor/dev/msg/worker/0x300", "raw bytes");
    countersWith(client, "posted", 3);
    worker.Stop();
    EXPECT_EQ("256 4294967295 -2 abc\n511 0 0 \n768 0 0 raw bytes\n", strGot);
    EXPECT_EQ(0, bridge.end());
}

TEST_F(Mqtt, ASendIsAnsweredWithDataOrATimeOut) {
    meeting goOn;
    messageThread worker("worker", [&](QOR_MsgQueueHelper::msgObject& msg) {
        if (msg.uMsg == 0x202)
            goOn.hear();
        if (msg.uMsg == 0x200)
            msg.ResetExtraData(3, "abc");
        return static_cast<int>(msg.wParam) + 1;
    });
    mqttClient client(m_broker);
    client.subscribe("answers/#");
    client.subscribe("qor/dev/bridge");
    mqttBridge bridge(m_broker, std::string("[limits]\nsend_timeout = 300\n") + szPosts + "4 = send nobody 0x200\n");
    countersWith(client, "connected", 1);
    client.publish("qor/dev/msg/worker/0x200", R"({"w":41})", false, "answers/one", std::string("id\0\1", 4));
    const mqttMessage answer = client.await("answers/one");
    EXPECT_EQ(json({{"result", 42}, {"data", base64("abc")}}), answer.json());
    EXPECT_EQ(std::string("id\0\1", 4), answer.strCorrelation);
    client.publish("qor/dev/msg/nobody/0x200", "", false, "answers/none");
    EXPECT_EQ("no such thread", client.await("answers/none").json()["error"]);
    client.publish("qor/dev/msg/worker/0x202", "", false, "answers/late", "late");
    const mqttMessage late = client.await("answers/late");
    EXPECT_EQ("timeout", late.json()["error"]);
    EXPECT_EQ("late", late.strCorrelation);
    goOn.say();

    // Nobody makes the bridge publish where it wants.
    for (const char* lpszTopic : {"qor/dev/state", "qor/other/set/a/b/c", "$SYS/a"})
        client.publish("qor/dev/msg/worker/0x200", "", false, lpszTopic);
    EXPECT_EQ(3, countersWith(client, "refused_rule", 3)["refused_rule"]);
    EXPECT_EQ(0, bridge.end());
}

TEST_F(Mqtt, AThreadThatHangsKeepsNobodyElseWaiting) {
    meeting taken, goOn;
    messageThread hung("hung", [&](QOR_MsgQueueHelper::msgObject&) { return taken.say(), goOn.hear() * 0; });
    std::atomic<unsigned> uLast{0};
    messageThread worker("worker", [&](QOR_MsgQueueHelper::msgObject& msg) { return uLast = msg.wParam, 1; });
    mqttClient client(m_broker);
    client.subscribe("qor/dev/bridge");
    client.subscribe("answers");
    mqttBridge bridge(m_broker,
                      std::string("[limits]\nworkers = 2\nqueued = 5\nwaiting = 10\nwait = 60000\nsend_timeout = "
                                  "600000\nsends = 3\n") +
                          szPosts + "4 = post hung *\n5 = send hung *\n");
    countersWith(client, "connected", 1);
    // One is handled, five wait in its queue, ten in the bridge; the others are dropped.
    client.publish("qor/dev/msg/hung/0x100", "");
    client.settle();
    taken.hear();
    for (int i = 0; i < 39; ++i)
        client.publish("qor/dev/msg/hung/0x100", "");
    EXPECT_EQ(40 - 5 - 10 - 1, countersWith(client, "dropped_hung", 24)["dropped_hung"]);
    EXPECT_EQ(5, msgGetQueueLength(msgGetThreadByName("hung")));
    client.publish("qor/dev/msg/worker/0x100", R"({"w":77})");
    client.publish("qor/dev/msg/worker/0x200", R"({"w":78})", false, "answers");
    client.await("answers", R"({"result":1})");
    EXPECT_EQ(78u, uLast);
    // When it reads again, it gets what has waited.
    for (int i = 0; i < 16; ++i)
        goOn.say();
    EXPECT_EQ(16u, countersWith(client, "posted", 17)["posted"].get<unsigned>() - 1);
    EXPECT_EQ(0, bridge.end());
}

TEST_F(Mqtt, SendsThatComeWhileTheBridgeEndsAreRefused) {
    meeting taken, goOn;
    messageThread hung("hung", [&](QOR_MsgQueueHelper::msgObject&) { return taken.say(), goOn.hear() * 0; });
    messageThread worker("worker", [&](QOR_MsgQueueHelper::msgObject&) { return 1; });
    mqttClient client(m_broker);
    client.subscribe("qor/dev/bridge");
    client.subscribe("qor/dev/state");
    client.subscribe("answers");
    mqttBridge bridge(m_broker, std::string("[limits]\nsend_timeout = 600000\n") + szPosts + "4 = send hung *\n");
    countersWith(client, "connected", 1);
    client.publish("qor/dev/msg/hung/0x200", "", false, "other");
    client.settle();
    taken.hear();
    std::thread ender([&] { EXPECT_EQ(0, bridge.end()) << bridge.output(); });
    // The send to "hung" keeps the bridge from ending.
    std::string strLast;
    while (strLast != R"({"error":"busy"})" && strLast.find("offline") == std::string::npos) {
        client.publish("qor/dev/msg/worker/0x200", "", false, "answers");
        client.run(20);
        for (const mqttMessage& message : client.messages)
            strLast = message.strPayload;
        client.messages.clear();
    }
    EXPECT_EQ(R"({"error":"busy"})", strLast);
    goOn.say();
    ender.join();
}

TEST_F(Mqtt, NothingPassesThatNoRuleNames) {
    std::atomic<int> nGot{0};
    messageThread worker("worker", [&](QOR_MsgQueueHelper::msgObject&) { return ++nGot; });
    messageThread other("other", [&](QOR_MsgQueueHelper::msgObject&) { return ++nGot; });
    putFile("/tmp/a.ini", "[a]\nk = 1\n");
    mqttClient client(m_broker);
    client.publish("qor/dev/msg/worker/0x100", "{}", true);
    client.settle();
    client.subscribe("qor/dev/#");
    mqttBridge bridge(m_broker, std::string(szPosts) + "4 = post worker *\n5 = write %2Ftmp%2Fbridge*\n");
    const std::string strOwn = "set/%2Ftmp%2F" + bridge.file().substr(5) + "/allow/9";
    EXPECT_EQ(1, countersWith(client, "ignored_retained", 1)["ignored_retained"]);
    // The library's own ids are not carried, whatever a rule says: the quit message, a proxy, and the bridge's own
    // thread.
    const char* const arrTopic[] = {"msg/worker/0x8002", "msg/worker/1",           "msg/other/0x100",
                                    "msg/mqtt/0x100",    "set/%2Ftmp%2Fa.ini/a/k", "cmd/republish",
                                    "cmd/trace",         "cmd/acc/name",           strOwn.c_str()};
    for (const char* lpszTopic : arrTopic)
        client.publish(std::string("qor/dev/") + lpszTopic, R"({"value":"post * *"})");
    EXPECT_EQ(9, countersWith(client, "refused_rule", 9)["refused_rule"]);
    client.publish("qor/dev/msg/worker/0x100", R"({"data":")" + std::string(1368, 'A') + "AAAA\"}");
    client.publish("qor/dev/msg/worker/0x100", std::string(9000, ' '));
    EXPECT_EQ(2, countersWith(client, "refused_long", 2)["refused_long"]);
    for (const char* lpszPayload : {"x", "[]", "{\"w\":-1}", "{\"w\":1.5}", "{\"l\":2147483648}", "{\"data\":\"a\"}",
                                    "{\"e\":1}", "{\"w\":1", "\xff"})
        client.publish("qor/dev/msg/worker/0x100", lpszPayload);
    for (const char* lpszTopic : {"msg/worker/x", "msg/%zz/0x100", "msg/%00/0x100", "msg/worker/0x100000000"})
        client.publish(std::string("qor/dev/") + lpszTopic, "");
    EXPECT_EQ(13, countersWith(client, "refused_malformed", 13)["refused_malformed"]);
    EXPECT_EQ(0, nGot);
    EXPECT_EQ(0, bridge.end());
    // One line a second, whatever a stranger does.
    std::ifstream file("/tmp/bridge.out");
    int nLines = 0;
    for (std::string strLine; std::getline(file, strLine);)
        nLines += strLine.find(" is refused: ") != std::string::npos;
    EXPECT_GE(nLines, 1);
    EXPECT_LT(nLines, 15);
}

TEST_F(Mqtt, WhatIsPostedToTheBridgeAndToMappedNamesLeavesTheDevice) {
    mqttClient client(m_broker);
    client.subscribe("qor/#");
    mqttBridge bridge(m_broker, std::string("[map]\npanel%2F1 =\nsampler = other/dev%2Fice\n[limits]\nexpiry = 7\n") +
                                    "[allow]\n1 = out mqtt 0x100\n2 = out panel%2F1 * raw\n3 = out sampler 0x102\n");
    client.await(stateIs("qor/dev/state", "online"));
    client.await("qor/dev/bridge");
    const HTHREAD hBridge = msgGetThreadByName("mqtt");
    EXPECT_EQ(1, msgPostMsgToThreadEx(hBridge, 0x100, 5, -6, 3, "abc"));
    const mqttMessage posted = client.await("qor/dev/out/mqtt/0x100");
    EXPECT_EQ(json({{"w", 5}, {"l", -6}, {"data", base64("abc")}}), posted.json());
    EXPECT_GT(posted.uExpiry, 0u);
    EXPECT_LE(posted.uExpiry, 8u);
    EXPECT_EQ(1, msgPostMsgToThreadEx(msgGetThreadByName("panel/1"), 0x101, 5, 0, 3, "a\0b"));
    EXPECT_EQ(std::string("a\0b", 3), client.await("qor/dev/out/panel%2F1/0x101").strPayload);
    EXPECT_EQ(1, msgPostMsgToThread(msgGetThreadByName("sampler"), 0x102, 0, 0));
    EXPECT_EQ("{}", client.await("qor/other/msg/dev%2Fice/0x102").strPayload);
    // Whoever sends sees whether it may leave.
    EXPECT_EQ(1, msgSendMsgToThread(hBridge, 0x100, 0, 0));
    EXPECT_EQ(0, msgSendMsgToThread(hBridge, 0x101, 0, 0));
    EXPECT_EQ(1, countersWith(client, "refused_out", 1)["refused_out"]);
    EXPECT_EQ(0, bridge.end());
}

// Posts as fast as there is room, at most so many ahead of the bridge.
void postAll(HTHREAD hThread, unsigned uFirst, unsigned uEnd) {
    for (unsigned u = uFirst; u < uEnd;) {
        const int nResult = msgTryPostMsgToThread(hThread, 0x100, u, 0, 0, NULL, 50);
        ASSERT_NE(0, nResult);
        if (nResult == 1)
            ++u;
        else
            usleep(500);
    }
}

TEST_F(Mqtt, TenThousandMessagesEachWayKeepTheirOrderAndNoneIsLost) {
    const unsigned uCount = isSlow() ? 1000 : 10000;
    unsigned uNext = 0;
    std::atomic<bool> bInOrder{true}, bAll{false};
    messageThread worker("worker", [&](QOR_MsgQueueHelper::msgObject& msg) {
        bInOrder = bInOrder && msg.wParam == uNext++;
        bAll = uNext == uCount;
        return 0;
    });
    mqttClient client(m_broker), reader(m_broker);
    reader.subscribe("qor/dev/out/mqtt/0x100");
    client.subscribe("qor/dev/bridge");
    mqttBridge bridge(m_broker, szPosts);
    countersWith(client, "connected", 1);
    std::thread poster([&] { postAll(msgGetThreadByName("mqtt"), 0, uCount); });
    const auto tEnd = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    const auto isInTime = [tEnd] { return std::chrono::steady_clock::now() < tEnd; };
    std::thread taker([&] {
        while (reader.messages.size() < uCount && bInOrder && isInTime())
            reader.run(10);
    });
    for (unsigned u = 0; (u < uCount || !bAll) && bInOrder && isInTime();) {
        for (; u < uCount && client.unacknowledged() < 100; ++u)
            client.publish("qor/dev/msg/worker/0x100", "{\"w\":" + std::to_string(u) + "}");
        client.run(5);
    }
    taker.join();
    poster.join();
    EXPECT_TRUE(bInOrder);
    for (unsigned u = 0; u < reader.messages.size(); ++u)
        ASSERT_EQ(u, reader.messages[u].json().value("w", 0u));
    worker.Stop();
    EXPECT_EQ(uCount, uNext);
    EXPECT_EQ(uCount, reader.messages.size());
    EXPECT_EQ(0, bridge.end());
}

// A port of the loopback at which a test itself is the broker of a bridge.
class ownBroker {
public:
    ownBroker() : m_fdListen(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t nSize = sizeof(address);
        if (bind(m_fdListen, reinterpret_cast<sockaddr*>(&address), nSize) != 0 || listen(m_fdListen, 5) != 0 ||
            getsockname(m_fdListen, reinterpret_cast<sockaddr*>(&address), &nSize) != 0)
            abort();
        m_nPort = ntohs(address.sin_port);
    }
    ~ownBroker() { close(m_fdListen); }

    std::unique_ptr<childProcess> StartBridge(const std::string& strConfig) const {
        // The registry keeps what it has read.
        const std::string strFile = "/tmp/own_broker" + std::to_string(m_nPort) + ".ini";
        putFile(strFile,
                "[broker]\ndevice = dev\nhost = 127.0.0.1\nport = " + std::to_string(m_nPort) + "\n" + strConfig);
        return std::make_unique<childProcess>("qor-mqtt", [strFile] {
            return execl(QOR_MQTT_PROGRAM, QOR_MQTT_PROGRAM, strFile.c_str(), static_cast<char*>(nullptr));
        });
    }
    // The next connection, which has said its first word and heard that it is good.
    int Accept() const {
        const int fd = accept(m_fdListen, NULL, NULL);
        char aConnect[512];
        EXPECT_GT(read(fd, aConnect, sizeof(aConnect)), 0);
        EXPECT_EQ(5, write(fd, "\x20\x03\x00\x00\x00", 5));
        return fd;
    }

private:
    int m_fdListen;
    int m_nPort = 0;
};

// The broker's end of a connection. It acknowledges nothing before it is told to.
class heldConnection {
public:
    explicit heldConnection(int fd) : m_fd(fd) {}
    ~heldConnection() { close(m_fd); }

    // Takes the packets that have come.
    void Read() {
        char aRead[4096];
        for (ssize_t n; (n = recv(m_fd, aRead, sizeof(aRead), MSG_DONTWAIT)) > 0;)
            m_strInput.append(aRead, static_cast<size_t>(n));
        for (size_t nHead; (nHead = SizeOfHead()) != 0;) {
            Take(m_strInput[0] & 0xf0, m_strInput.substr(nHead, m_nBody));
            m_strInput.erase(0, nHead + m_nBody);
        }
    }
    // A message without bytes, which asks for no acknowledgement.
    void Publish(const std::string& strTopic) {
        std::string strPacket = {0x30, static_cast<char>(strTopic.size() + 3), 0, static_cast<char>(strTopic.size())};
        strPacket += strTopic;
        Write(strPacket + '\0');
    }
    // From now on, and what it has held back.
    void Acknowledge() {
        m_bAcknowledges = true;
        for (const std::string& strId : m_listHeld)
            Write({0x40, 2, strId[0], strId[1]});
        m_listHeld.clear();
    }
    // The payloads of a topic, as they came.
    std::vector<std::string> payloads(const std::string& strTopic) const {
        const auto it = m_mapPayloads.find(strTopic);
        return it != m_mapPayloads.end() ? it->second : std::vector<std::string>();
    }

private:
    void Write(const std::string& strPacket) {
        EXPECT_EQ(static_cast<ssize_t>(strPacket.size()), write(m_fd, strPacket.data(), strPacket.size()));
    }
    // Of the first packet, whose body then follows; 0 when it is not all there.
    size_t SizeOfHead() {
        m_nBody = 0;
        for (size_t i = 1; i < m_strInput.size() && i < 5; ++i) {
            m_nBody |= static_cast<size_t>(m_strInput[i] & 0x7f) << 7 * (i - 1);
            if ((m_strInput[i] & 0x80) == 0)
                return m_strInput.size() > i + m_nBody ? i + 1 : 0;
        }
        return 0;
    }
    void Take(int nType, const std::string& strBody) {
        if ((nType & 0xff) == 0x80)
            Write({static_cast<char>(0x90), 4, strBody[0], strBody[1], 0, 1});
        if ((nType & 0xff) != 0x30)
            return;
        const size_t nTopic = static_cast<unsigned char>(strBody[1]);  // none here has 256 characters
        const size_t nProperties = static_cast<unsigned char>(strBody[nTopic + 4]);
        m_mapPayloads[strBody.substr(2, nTopic)].push_back(strBody.substr(nTopic + 5 + nProperties));
        m_listHeld.push_back(strBody.substr(nTopic + 2, 2));
        if (m_bAcknowledges)
            Acknowledge();
    }

    int m_fd;
    bool m_bAcknowledges = false;
    std::string m_strInput;
    size_t m_nBody = 0;
    std::vector<std::string> m_listHeld;
    std::map<std::string, std::vector<std::string>> m_mapPayloads;
};

// The acknowledgements of a busy broker wait behind what it has for the device.
TEST_F(Mqtt, NothingIsDroppedWhileABrokerSendsButDoesNotAcknowledge) {
    constexpr unsigned uCount = 400;
    std::atomic<unsigned> uGot{0};
    messageThread worker("worker", [&](QOR_MsgQueueHelper::msgObject&) { return ++uGot, 0; });
    const ownBroker broker;
    const auto pBridge = broker.StartBridge(std::string(szPosts) + "[limits]\nout_messages = 100\n");
    heldConnection connection(broker.Accept());
    std::thread poster([] { postAll(msgGetThreadByName("mqtt"), 0, uCount); });
    const auto tBegin = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - tBegin < std::chrono::seconds(4)) {
        connection.Read();
        connection.Publish("qor/dev/msg/worker/0x100");
        usleep(20000);
    }
    connection.Acknowledge();
    const auto payloads = [&] { return connection.payloads("qor/dev/out/mqtt/0x100"); };
    for (int i = 0; payloads().size() < uCount && i < 20000; ++i) {
        connection.Read();
        usleep(1000);
    }
    poster.join();
    ASSERT_EQ(uCount, payloads().size());
    for (unsigned u = 0; u < uCount; ++u)
        EXPECT_EQ(u, json::parse(payloads()[u]).value("w", 0u));
    EXPECT_GT(uGot, 0u);
    pBridge->signal(SIGTERM);
    EXPECT_EQ(0, pBridge->wait());
}

// The registry keeps what it has read: each test has a document of its own.
const char* newDocument(const std::string& strText) {
    static std::string s_strName;
    static int s_nMade = 0;
    s_strName = "/tmp/net" + std::to_string(++s_nMade) + ".ini";
    putFile(s_strName, strText);
    return s_strName.c_str();
}

const char szReads[] =
    "[allow]\n1 = read net display\n2 = write net display\n"
    "3 = read net extra Key\n4 = republish\n";

std::string readsOf(const char* lpszFile) { return std::string("[aliases]\nnet = ") + lpszFile + "\n" + szReads; }

TEST_F(Mqtt, ValuesAreKeptByTheBrokerAfterAFlushAndClearedWhenTheyAreGone) {
    const char* const szFile = newDocument(
        "[display]\nlevel = 3\na/b+#% = x\nbytes = \xff\xfe\n[secret]\nkey = 1\n[extra]\nkey = 5\nother = 6\n");
    mqttClient client(m_broker);
    client.subscribe("qor/dev/reg/#");
    mqttBridge bridge(m_broker, readsOf(szFile));
    const json first = client.await(valueIs("qor/dev/reg/net/display/level", "3")).json();
    EXPECT_EQ("device", first["by"]);
    EXPECT_GT(first["session"].get<unsigned>(), 0u);
    client.await(valueIs("qor/dev/reg/net/extra/key", "5"));

    const HREGISTRY hSection = registryOpen(szFile, "display");
    registrySetInt(hSection, "level", 4);
    registrySetInt(hSection, "new", 1);
    registryDeleteKey(hSection, "a/b+#%");
    registryFlush(hSection);
    client.await(valueIs("qor/dev/reg/net/display/level", "4"));
    client.await(valueIs("qor/dev/reg/net/display/new", "1"));
    client.await("qor/dev/reg/net/display/a%2Fb%2B%23%25", "");

    mqttClient late(m_broker);
    late.subscribe("qor/dev/reg/#");
    EXPECT_TRUE(late.await(valueIs("qor/dev/reg/net/display/level", "4")).bRetained);
    EXPECT_EQ("//4=", late.await("qor/dev/reg/net/display/bytes").json()["data"]);
    for (const mqttMessage& message : client.messages)
        EXPECT_EQ(std::string::npos, message.strTopic.find("secret") & message.strTopic.find("other"));

    // A rule that goes takes what it let out with it, at run time.
    qorSetRegistryString(bridge.file().c_str(), "allow", "3", "read net nothing");
    client.await("qor/dev/reg/net/extra/key", "");
    // While the bridge is away, a key goes; it is cleared when the bridge is back.
    bridge.kill();
    registryDeleteKey(hSection, "new");
    registryFlush(hSection);
    bridge.start();
    client.await("qor/dev/reg/net/display/new", "");
    EXPECT_EQ(0, bridge.end());
}

TEST_F(Mqtt, TheNetworkChangesAllowedKeysAndItsOwnChangesAreMarkedAndToldOnce) {
    const char* const szFile = newDocument("[display]\nlevel = 3\n[extra]\nkey = 5\n");
    mqttClient client(m_broker);
    client.subscribe("qor/dev/#");
    client.subscribe("answers");
    mqttBridge bridge(m_broker, readsOf(szFile));
    client.await(valueIs("qor/dev/reg/net/display/level", "3"));
    client.publish("qor/dev/set/net/display/level", R"({"value":7})", false, "answers");
    client.publish("qor/dev/set/net/display/level", R"({"value":"7"})", false, "answers");
    client.publish("qor/dev/set/net/display/none", R"({"value":null})", false, "answers");
    client.publish("qor/dev/set/net/display/lf", R"({"value":"a\nb"})", false, "answers");
    client.publish("qor/dev/set/net/extra/key", R"({"value":6})", false, "answers");
    client.publish("qor/dev/set/net/display/%C3%A4", R"({"value":"\u00e4 "})", false, "answers");
    client.publish("qor/dev/cmd/republish", "", false, "answers", "all");
    int nSeen = 0, nAnswers = 0;
    std::string strAnswers, strDone;
    client.await([&](const mqttMessage& message) {
        nSeen += message.strTopic == "qor/dev/reg/net/display/level";
        if (message.strPayload == "done") {
            strDone = message.strCorrelation;
        } else if (message.strTopic == "answers") {
            strAnswers += message.strPayload + " ";
            ++nAnswers;
        }
        return nAnswers == 5 && !strDone.empty();  // "done" may overtake answers
    });
    EXPECT_EQ("all", strDone);
    EXPECT_LE(nSeen, 2);  // as changed, and as republished
    EXPECT_NE(std::string::npos, strAnswers.find(R"({"result":1} {"result":0} {"result":0} {"error":)")) << strAnswers;
    EXPECT_EQ(5, registryGetInt(registryOpen(szFile, "extra"), "key", 0));
    EXPECT_EQ(7, registryGetInt(registryOpen(szFile, "display"), "level", 0));
    // The file is written after the value is there for all.
    for (int i = 0; i < 10000 && getFile(szFile).find("level = 7") == std::string::npos; ++i)
        usleep(1000);
    EXPECT_NE(std::string::npos, getFile(szFile).find("level = 7"));

    mqttClient late(m_broker);
    late.subscribe("qor/dev/reg/#");
    EXPECT_EQ("network", late.await(valueIs("qor/dev/reg/net/display/level", "7")).json()["by"]);
    late.await(valueIs("qor/dev/reg/net/display/\u00e4", "\u00e4"));
    // The device's change afterwards is the device's, also when it is back to the same value.
    for (int nValue : {8, 7}) {
        registrySetInt(registryOpen(szFile, "display"), "level", nValue);
        registryFlush(registryOpen(szFile, "display"));
        EXPECT_EQ("device", late.await(valueIs("qor/dev/reg/net/display/level", std::to_string(nValue))).json()["by"]);
    }
    EXPECT_EQ(0, bridge.end());
}

TEST_F(Mqtt, AValueThatIsTooLongForTheBrokerIsPublishedInNoSession) {
    const char* const szFile = newDocument("[display]\nbig = " + std::string(40000, 'x') + "\nlevel = 3\n");
    mqttClient client(m_broker);
    client.subscribe("qor/dev/reg/#");
    mqttBridge bridge(m_broker, readsOf(szFile));
    for (int i = 0; i < 2; ++i) {
        client.await([](const mqttMessage& message) {
            if (message.strTopic == "qor/dev/reg/net/display/big") {
                EXPECT_EQ(0u, message.strPayload.size());
            }
            return message.strTopic == "qor/dev/reg/net/display/level";
        });
        if (i == 0)
            bridge.kill(), bridge.start();
    }
    EXPECT_EQ(0, bridge.end());
}

TEST_F(Mqtt, KeysThatTheNetworkSetsAndDeletesTakeNoMemoryForGood) {
    const char* const szFile = newDocument("[display]\nlevel = 3\n");
    mqttClient client(m_broker);
    client.subscribe("answers");
    client.subscribe("qor/dev/bridge");
    mqttBridge bridge(m_broker, std::string("[aliases]\nnet = ") + szFile +
                                    "\n[allow]\n1 = read net display level\n2 = write net display\n");
    countersWith(client, "connected", 1);
    // One at a time: how much waits in the bridge must not depend on the machine's load.
    const auto setAndDelete = [&](char chName, int nKeys) {
        for (int i = 0; i < nKeys; ++i)
            for (const char* lpszPayload : {R"({"value":1})", R"({"value":null})"}) {
                client.publish("qor/dev/set/net/display/" + std::string(40000, chName) + std::to_string(i), lpszPayload,
                               false, "answers");
                ASSERT_EQ(R"({"result":1})", client.await("answers").strPayload);
            }
    };
    setAndDelete('a', 50);
    const long nBefore = bridge.memory();
    for (char chName = 'b'; chName < 'f'; ++chName)
        setAndDelete(chName, 50);
    EXPECT_LT(bridge.memory() - nBefore, 4096) << "KB";
    EXPECT_EQ(0, bridge.end());
}

TEST_F(Mqtt, KeysThatAreDeletedButNotSavedLeaveRoomForOthers) {
    constexpr int nKeys = 100;  // four times what the registry has room for, in two batches at most
    const char* const szFile = newDocument("[display]\nlevel = 3\n");
    meeting allCame;
    messageThread worker("worker", [&](QOR_MsgQueueHelper::msgObject&) { return allCame.say(), 1; });
    mqttClient client(m_broker);
    client.subscribe("answers");
    client.subscribe("qor/dev/bridge");
    mqttBridge bridge(
        m_broker, std::string("[aliases]\nnet = ") + szFile + "\n[allow]\n1 = write net display\n2 = post worker *\n");
    countersWith(client, "connected", 1);
    QOR_RegistryHelper::uCRegistryHelpergetGlobalObject()->Lock(-1);
    for (int i = 0; i < nKeys; ++i)
        for (const char* lpszPayload : {R"({"value":1})", R"({"value":null})"})
            client.publish("qor/dev/set/net/display/" + std::string(40000, 'k') + std::to_string(i), lpszPayload, false,
                           "answers");
    client.publish("qor/dev/msg/worker/0x100", "");
    client.settle();
    allCame.hear();
    QOR_RegistryHelper::uCRegistryHelpergetGlobalObject()->Unlock();
    for (int i = 0; i < 2 * nKeys; ++i)
        ASSERT_EQ(R"({"result":1})", client.await("answers").strPayload) << i;
    EXPECT_EQ(0, bridge.end());
}

TEST_F(Mqtt, CountersAndTraceComeOnRequestAndRepublishEndsWithDone) {
    accCreateAccumulater("births/all", 41, 0, 100);
    accCreateAccumulater("other", 1, 0, 100);
    mqttClient client(m_broker);
    client.subscribe("qor/dev/#");
    mqttBridge bridge(m_broker, "[allow]\n1 = acc births%2Fall\n2 = trace\n3 = republish\n4 = state mqtt\n");
    // A process that traces into the shared buffer.
    putFile("/tmp/bad.ini", "[broker]\ndevice = d\n[allow]\n1 = nonsense\n");
    EXPECT_EQ(0, shell("trace=2:system " QOR_MQTT_PROGRAM " --check /tmp/bad.ini").nStatus);
    countersWith(client, "connected", 1);
    client.publish("qor/dev/cmd/acc/other", "");
    client.publish("qor/dev/cmd/acc/births%2Fall", "");
    EXPECT_EQ(41, client.await("qor/dev/acc/births%2Fall").json()["value"]);
    client.publish("qor/dev/cmd/trace", R"({"lines":5})");
    const json lines = client.await("qor/dev/trace").json()["lines"];
    ASSERT_FALSE(lines.empty());
    EXPECT_LE(lines.size(), 5u);
    EXPECT_NE(std::string::npos, lines.dump().find("nonsense is left out")) << lines;
    client.publish("qor/dev/cmd/republish", "");
    client.await(stateIs("qor/dev/thread/mqtt/state", "alive"));
    EXPECT_EQ(41, client.await("qor/dev/acc/births%2Fall").json()["value"]);
    client.await("qor/dev/done", "done");
    EXPECT_EQ(1, countersWith(client, "refused_rule", 1)["refused_rule"]);
    // The same figures as in qorctl metrics.
    const std::string strMetrics = ctl({"metrics"}).strOutput;
    EXPECT_NE(std::string::npos, strMetrics.find("qor_mqtt_refused_rule_total 1\n")) << strMetrics;
    EXPECT_NE(std::string::npos, strMetrics.find("# TYPE qor_mqtt_connected counter\n"));
    EXPECT_EQ(0, bridge.end());
}

TEST_F(Mqtt, ABrokerThatIsAwayCostsBoundedMemoryAndTheValuesAreRightAfterwards) {
    const auto tOutage = std::chrono::milliseconds(isLong() ? 30000 : 1000);
    const char* const szFile = newDocument("[display]\nlevel = 0\n");
    auto client = std::make_unique<mqttClient>(m_broker);
    client->subscribe("qor/dev/#");
    mqttBridge bridge(
        m_broker, readsOf(szFile) + "5 = out mqtt *\n[limits]\nout_messages = 100\nout_bytes = 65536\nexpiry = 0\n");
    client->await(valueIs("qor/dev/reg/net/display/level", "0"));
    client.reset();
    m_broker.stop();
    const long nBefore = bridge.memory();
    const HTHREAD hBridge = msgGetThreadByName("mqtt");
    const HREGISTRY hSection = registryOpen(szFile, "display");
    const auto tEnd = std::chrono::steady_clock::now() + tOutage;
    unsigned uPosted = 0, uValue = 0;
    const std::string strData(500, 'x');
    while (std::chrono::steady_clock::now() < tEnd || uPosted < 500) {
        for (int i = 0; i < 50; ++i)
            uPosted += msgTryPostMsgToThread(hBridge, 0x100, uPosted, 0, 500, strData.data(), 20) == 1;
        registrySetInt(hSection, "level", static_cast<int>(++uValue));
        registrySetInt(hSection, ("key" + std::to_string(uValue % 20)).c_str(), static_cast<int>(uValue));
        registryFlush(hSection);
    }
    EXPECT_LT(bridge.memory() - nBefore, 4096) << "KB, after " << uPosted << " messages";
    m_broker.start();
    client = std::make_unique<mqttClient>(m_broker);
    client->subscribe("qor/dev/#");
    client->await(valueIs("qor/dev/reg/net/display/level", std::to_string(uValue)));
    msgPostMsgToThread(hBridge, 0x101, 0, 0);
    client->await("qor/dev/out/mqtt/0x101", "{}");
    const json counters = countersWith(*client, "published", 1);
    // What was not published was counted as dropped.
    while (uPosted + 1 != counters.value("dropped_out", 0u) + counters.value("published", 0u)) {
        const json more = countersWith(*client, "published", 1);
        ASSERT_LE(more.value("dropped_out", 0u) + more.value("published", 0u), uPosted + 1);
        if (uPosted + 1 == more.value("dropped_out", 0u) + more.value("published", 0u))
            break;
    }
    printf("%u messages and %u values while the broker was away\n", uPosted, uValue);
    EXPECT_EQ(0, bridge.end());
}

TEST_F(Mqtt, ABridgeThatIsKilledUnderLoadStartsAgain) {
    std::atomic<unsigned> uGot{0};
    messageThread worker("worker", [&](QOR_MsgQueueHelper::msgObject&) { return ++uGot, 0; });
    mqttClient client(m_broker);
    client.subscribe("qor/dev/state");
    mqttBridge bridge(m_broker, szPosts);
    for (int i = 0; i < 3; ++i) {
        client.await(stateIs("qor/dev/state", "online"));
        const unsigned uBefore = uGot;
        while (uGot < uBefore + 100) {
            client.publish("qor/dev/msg/worker/0x100", "");
            client.run(0);
        }
        bridge.kill();
        client.await(stateIs("qor/dev/state", "offline"));
        bridge.start();
    }
    client.await(stateIs("qor/dev/state", "online"));
    EXPECT_EQ(0, bridge.end());
}

// Accepts a connection, and ends it.
void refuseLater(const ownBroker& broker) {
    const int fd = broker.Accept();
    shutdown(fd, SHUT_WR);
    char aRead[512];
    while (read(fd, aRead, sizeof(aRead)) > 0)
        ;
    close(fd);
}

// As when two bridges have one device's name: each ends the other's connection.
TEST_F(Mqtt, ABrokerThatEndsEachConnectionAtOnceIsAskedLessAndLessOften) {
    const ownBroker broker;
    const auto pBridge = broker.StartBridge("");
    refuseLater(broker);
    const auto tFirst = std::chrono::steady_clock::now();
    for (int i = 0; i < 5; ++i)
        refuseLater(broker);
    // 50, 100, 200, 400 and 800 ms.
    EXPECT_GE(std::chrono::steady_clock::now() - tFirst, std::chrono::milliseconds(1500));
    pBridge->signal(SIGTERM);
    EXPECT_EQ(0, pBridge->wait());
}

TEST_F(Mqtt, HostileBytesHarmNothing) {
    std::atomic<unsigned> uGot{0};
    messageThread worker("worker", [&](QOR_MsgQueueHelper::msgObject&) { return ++uGot, 0; });
    const char* const szFile = newDocument("[display]\nlevel = 0\n");
    mqttClient client(m_broker);
    client.subscribe("qor/dev/bridge");
    mqttBridge bridge(m_broker, readsOf(szFile) + "5 = post worker 0x100\n6 = trace\n7 = acc *\n");
    countersWith(client, "connected", 1);
    unsigned uState = seed(1);
    const auto next = [&uState](unsigned uMost) { return (uState = uState * 1103515245 + 12345) / 65536 % uMost; };
    const char* const arrTopic[] = {
        "msg/worker/0x100",      "set/net/display/level", "cmd/trace",     "cmd/acc/%", "cmd/acc/a",
        "reg/net/display/level", "thread/worker/state",   "state",         "set///",    "msg//0x100",
        "cmd/republish",         "set/net/%5B/%3D",       "msg/worker/-1", "cmd/x/y/z"};
    const char* const arrPayload[] = {
        R"({"w":1,"l":2,"data":"YWJj"})",   R"({"value":"1"})", R"({"lines":3})",          "{}", "",
        R"({"state":"offline","birth":1})", "[[[[[[[[[[",       R"({"value":{"a":[1,2]}})"};
    for (int i = 0; i < scaled(600); ++i) {
        std::string strPayload = arrPayload[next(8)];
        for (unsigned n = next(4); n > 0 && !strPayload.empty(); --n)
            strPayload[next(static_cast<unsigned>(strPayload.size()))] = static_cast<char>(next(256));
        if (next(50) == 0)
            strPayload = std::string(next(70000), '[');
        client.publish(std::string("qor/dev/") + arrTopic[next(14)], strPayload, next(10) == 0);
        client.run(0);
    }
    client.settle();
    const unsigned uBefore = uGot;
    client.publish("qor/dev/msg/worker/0x100", "");
    while (uGot == uBefore)
        client.run(10);
    EXPECT_EQ(0, bridge.end()) << bridge.output();
}

TEST_F(Mqtt, APasswordAndTlsProtectTheWay) {
    const std::string strMake =
        "cd /tmp/broker && openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 -subj "
        "/CN=127.0.0.1 -addext subjectAltName=IP:127.0.0.1 -keyout key.pem -out cert.pem && mosquitto_passwd -b -c "
        "users device secret";
    const ctlResult made = shell(strMake);
    ASSERT_EQ(0, made.nStatus) << made.strError;
    mqttBroker secured(
        "allow_anonymous false\npassword_file /tmp/broker/users\ncertfile /tmp/broker/cert.pem\nkeyfile "
        "/tmp/broker/key.pem\n");
    mqttClient client(secured, "/tmp/broker/cert.pem", "device", "secret");
    client.subscribe("qor/dev/state");
    putFile("/tmp/password", "secret\n");
    chmod("/tmp/password", 0600);
    mqttBridge bridge(secured, "", "cafile = /tmp/broker/cert.pem\nusername = device\npassword_file = /tmp/password\n");
    client.await(stateIs("qor/dev/state", "online"));
    EXPECT_EQ(0, bridge.end());
    EXPECT_EQ(std::string::npos, ctl({"--json", "reg", "get", bridge.file()}).strOutput.find("secret"));

    // A wrong certificate, and a password that others may read.
    std::string strOutput;
    chmod("/tmp/password", 0640);
    EXPECT_EQ(1, runBridge({bridge.file()}, strOutput));
    EXPECT_EQ("qor-mqtt: password_file /tmp/password can be read by others: chmod 600 /tmp/password\n", strOutput);
}

TEST_F(Mqtt, WrongOptionsAndConfigurationsAreExplained) {
    std::string strOutput;
    EXPECT_EQ(0, runBridge({"--help"}, strOutput));
    EXPECT_EQ(0u, strOutput.find("usage: qor-mqtt ")) << strOutput;
    EXPECT_EQ(0, runBridge({"--version"}, strOutput));
    EXPECT_EQ(std::string("qor-mqtt ") + _szVersion_VER_QOR_LIB + "\n", strOutput);
    EXPECT_EQ(2, runBridge({"--unknown"}, strOutput));
    EXPECT_EQ(2, runBridge({"a", "b"}, strOutput));
    EXPECT_EQ(1, runBridge({"/tmp/none.ini"}, strOutput));
    EXPECT_EQ("qor-mqtt: /tmp/none.ini: No such file or directory\n", strOutput);
    putFile("/tmp/password.ini", "[broker]\nPassword = x\n");
    EXPECT_EQ(1, runBridge({"/tmp/password.ini"}, strOutput));
    EXPECT_NE(std::string::npos, strOutput.find("a password does not belong into the registry")) << strOutput;
    putFile("/tmp/good.ini", "[broker]\ndevice = d\n[allow]\n1 = post a 1\n2 = nonsense\n");
    EXPECT_EQ(0, runBridge({"--check", "/tmp/good.ini"}, strOutput));
    EXPECT_EQ("/tmp/good.ini: device d, broker localhost:1883, 1 rules, 0 documents, 0 names\n", strOutput);
    // There is one bridge on a device.
    messageThread other("mqtt", [](QOR_MsgQueueHelper::msgObject&) { return 0; });
    EXPECT_EQ(1, runBridge({"/tmp/good.ini"}, strOutput));
    EXPECT_EQ("qor-mqtt: the name mqtt is in use on this device: is the bridge running already?\n", strOutput);
}

}  // namespace
