// The parts of the bridge to MQTT that need no broker: topics, payloads, the allow list, and the queue to the network.
#include <gtest/gtest.h>

#include "outbox.h"
#include "payload.h"
#include "rules.h"
#include "topics.h"

using namespace qormqtt;

namespace {

TEST(MqttTopics, ANameIsOneLevelAndComesBackAsItWas) {
    for (const char* lpszName : {"worker", "a/b+c#d%e", "\xc3\xa4", "\xff\xfe", "a\nb\x7f", "", "$x", "%2F"}) {
        const std::string strLevel = encodeName(lpszName);
        EXPECT_EQ(std::string::npos, strLevel.find_first_of("/+#\n\x7f")) << strLevel;
        EXPECT_TRUE(isValidUtf8(strLevel));
        std::string strName;
        EXPECT_TRUE(decodeName(strLevel, strName));
        EXPECT_EQ(lpszName, strName);
    }
    EXPECT_EQ("a%2Fb%2Bc%23d%25e", encodeName("a/b+c#d%e"));
    EXPECT_EQ("qor/d%2Fv/out/%00", makeTopic("d/v", {"out", std::string(1, '\0')}));
    std::string strName;
    for (const char* lpszLevel : {"%", "%4", "%4g", "a%00b", "a+", "#"})
        EXPECT_FALSE(decodeName(lpszLevel, strName)) << lpszLevel;
}

TEST(MqttTopics, CharactersThatBrokersRefuseAreEncoded) {
    for (const char* lpsz : {"\xc2\x80", "\xc2\x9f", "\xef\xb7\x90", "\xef\xb7\xaf", "\xef\xbf\xbe", "\xef\xbf\xbf",
                             "\xf0\x9f\xbf\xbe", "\xf4\x8f\xbf\xbf"}) {
        const std::string strLevel = encodeName(lpsz);
        EXPECT_EQ('%', strLevel[0]);
        std::string strName;
        EXPECT_TRUE(decodeName(strLevel, strName));
        EXPECT_EQ(lpsz, strName);
    }
    for (const char* lpsz : {"\xc2\xa0", "\xc3\x80", "\xef\xb7\x8f", "\xef\xb7\xb0", "\xef\xbf\xbd", "\xf0\x9f\xbe\xbf",
                             "\xf0\x9e\xbf\xbf"})
        EXPECT_EQ(lpsz, encodeName(lpsz));
}

TEST(MqttTopics, OnlyTextIsValidUtf8) {
    for (const char* lpsz : {"", "a", "\xc3\xa4", "\xe2\x82\xac", "\xf0\x9f\x98\x80"})
        EXPECT_TRUE(isValidUtf8(lpsz)) << lpsz;
    for (const char* lpsz : {"\x80", "\xc3", "\xc0\x80", "\xe0\x80\x80", "\xed\xa0\x80", "\xf0\x80\x80\x80",
                             "\xf4\x90\x80\x80", "\xf5\x80\x80\x80", "\xe2\x82"})
        EXPECT_FALSE(isValidUtf8(lpsz)) << lpsz;
}

TEST(MqttTopics, ATopicSaysWhatItAsksFor) {
    parsedTopic topic;
    ASSERT_TRUE(parseTopic("dev", "qor/dev/msg/a%2Fb/0xFF", topic));
    EXPECT_EQ(topicKind::message, topic.kind);
    EXPECT_EQ("a/b", topic.names[0]);
    EXPECT_EQ(255u, topic.uMsg);
    ASSERT_TRUE(parseTopic("dev", "qor/dev/set/net//k", topic));
    EXPECT_EQ(topicKind::set, topic.kind);
    EXPECT_EQ((std::vector<std::string>{"net", "", "k"}), topic.names);
    for (const char* lpsz : {"qor/dev/msg/a", "qor/dev/msg/a/b", "qor/dev/msg/a/1/2", "qor/other/msg/a/1", "qor/dev",
                             "qor/dev/cmd/", "qor/dev/msg/a/4294967296", "qor/dev/msg/a/0x", "qor/dev/msg/a/-1"})
        EXPECT_FALSE(parseTopic("dev", lpsz, topic)) << lpsz;
}

TEST(MqttTopics, NobodyMakesTheBridgePublishOnTopicsOfDevicesOrOfTheBroker) {
    for (const char* lpsz : {"answers/1", "qor/panel/reply/1", "quora/dev/state"})
        EXPECT_TRUE(isResponseTopic(lpsz)) << lpsz;
    for (const char* lpsz :
         {"", "$SYS/x", "a/#", "a/+/b", "qor/dev/state", "qor/dev/set/a/b/c", "qor/dev/reply", "\xff"})
        EXPECT_FALSE(isResponseTopic(lpsz)) << lpsz;
    EXPECT_FALSE(isResponseTopic(std::string(2000, 'a')));
}

TEST(MqttPayload, AMessageHasTwoParametersAndDataWithinBounds) {
    messagePayload message;
    EXPECT_EQ(payloadState::good, parseMessage(R"({"w":1,"l":-2,"data":"YWJj"})", message));
    EXPECT_EQ("abc", message.strData);
    EXPECT_EQ(R"({"data":"YWJj","l":-2,"w":1})", formatMessage(message));
    message.strData.assign(maxData, 'x');
    EXPECT_EQ(payloadState::good, parseMessage(formatMessage(message), message));
    EXPECT_EQ(maxData, message.strData.size());
    message.strData += 'x';
    EXPECT_EQ(payloadState::tooLong, parseMessage(formatMessage(message), message));
    for (const char* lpsz : {"1", "null", "{", R"({"w":true})", R"({"w":4294967296})", R"({"w":18446744073709551615})",
                             R"({"l":-2147483649})", R"({"data":1})", R"({"data":"YQ"})", R"({"x":1})"})
        EXPECT_EQ(payloadState::malformed, parseMessage(lpsz, message)) << lpsz;
}

TEST(MqttPayload, AValueIsTextOrANumberOrDeleted) {
    setPayload set;
    for (const auto& pair : {std::pair<const char*, const char*>{R"({"value":"a b"})", "a b"},
                             {R"({"value":-1.5})", "-1.5"},
                             {R"({"value":true})", "1"},
                             {R"({"data":"/w=="})", "\xff"}}) {
        EXPECT_EQ(payloadState::good, parseSet(pair.first, set));
        EXPECT_EQ(pair.second, set.strValue);
    }
    EXPECT_EQ(payloadState::good, parseSet(R"({"value":null})", set));
    EXPECT_TRUE(set.bDelete);
    for (const char* lpsz :
         {"{}", R"({"value":[1]})", R"({"value":"a","x":1})", R"({"value":"a\u0000b"})", R"({"data":"YWIA"})", ""})
        EXPECT_EQ(payloadState::malformed, parseSet(lpsz, set)) << lpsz;
    EXPECT_EQ(payloadState::tooLong, parseSet("{\"value\":\"" + std::string(1025, 'x') + "\"}", set));
}

TEST(MqttRules, OnlyWhatARuleNamesIsAllowed) {
    allowList allow;
    std::string strReason;
    for (const char* lpsz : {"post a%20b 0x100,0x200-0x2ff", "send dev* *", "out mqtt * raw", "read net Display",
                             "write net display Level", "acc births", "state *"})
        EXPECT_TRUE(allow.add(lpsz, strReason)) << strReason;
    EXPECT_NE(nullptr, allow.findMessage(direction::post, "a b", 0x2ff));
    EXPECT_EQ(nullptr, allow.findMessage(direction::post, "a b", 0x300));
    EXPECT_EQ(nullptr, allow.findMessage(direction::send, "a b", 0x100));
    EXPECT_NE(nullptr, allow.findMessage(direction::send, "device.x", 0x100));
    EXPECT_TRUE(allow.findMessage(direction::out, "mqtt", 0x100)->bRaw);
    for (const uint32_t uMsg :
         {0u, 1u, 2u, 15u, 0x8001u, 0x8002u, 0x8113u, 0x8121u, 0x9001u, wakeId, 0x70001u, 0xa0006u})
        EXPECT_EQ(nullptr, allow.findMessage(direction::send, "device", uMsg));
    EXPECT_TRUE(allow.allowsKey(direction::read, "net", "display", "any"));
    EXPECT_FALSE(allow.allowsKey(direction::read, "Net", "display", "any"));
    EXPECT_TRUE(allow.allowsKey(direction::write, "net", "DISPLAY", "level"));
    EXPECT_FALSE(allow.allowsKey(direction::write, "net", "display", "levels"));
    EXPECT_TRUE(allow.allowsName(direction::state, "anything"));
    EXPECT_FALSE(allow.allowsName(direction::counter, "anything"));
    EXPECT_FALSE(allow.allows(direction::trace));
    for (const char* lpsz : {"", "post", "post a", "post a x", "post a 2-1", "read", "read a b c d", "trace x",
                             "give a", "post a%0 1", "post a 1 2"})
        EXPECT_FALSE(allow.add(lpsz, strReason)) << lpsz;
}

outMessage messageOf(const std::string& strPayload) {
    outMessage message;
    message.strTopic = "t";
    message.strPayload = strPayload;
    return message;
}

TEST(MqttOutbox, TheOldestIsDroppedWhenThereIsNoRoom) {
    counters count;
    outbox out(count);
    outboxLimits limits;
    limits.nMessages = 3;
    limits.nBytes = 100;
    out.setLimits(limits);
    for (const char* lpsz : {"a", "b", "c", "d"})
        EXPECT_TRUE(out.put(messageOf(lpsz)));
    EXPECT_FALSE(out.put(messageOf(std::string(100, 'x'))));
    EXPECT_EQ(3u, out.messageCount());
    EXPECT_EQ(2u, count.get(countDroppedOut));
    EXPECT_TRUE(out.put(messageOf(std::string(98, 'x'))));  // all others make room
    EXPECT_EQ(1u, out.messageCount());
    EXPECT_EQ(99u, out.byteCount());
    EXPECT_EQ(5u, count.get(countDroppedOut));
}

TEST(MqttOutbox, WhatWasUnderWayWhenTheConnectionWasLostIsTheNextAgainInItsOrder) {
    counters count;
    outbox out(count);
    for (const char* lpsz : {"a", "b", "c"})
        out.put(messageOf(lpsz));
    outMessage first, second, message;
    ASSERT_TRUE(out.take(first) && out.take(second));
    out.finish(first);
    out.giveBack({second});
    std::string strRest;
    while (out.take(message))
        strRest += message.strPayload;
    EXPECT_EQ("bc", strRest);
}

TEST(MqttOutbox, AStateWaitsOnceWithItsLastValueAndDoneWaitsForAllOfThem) {
    counters count;
    outbox out(count);
    for (int i = 0; i < 1000; ++i)
        out.setState("a", std::to_string(i));
    out.setState("b", "1");
    out.clearState("b");
    EXPECT_TRUE(out.putAfterStates(messageOf("done")));
    std::string strAll;
    outMessage message;
    std::vector<outMessage> taken;
    while (out.take(message)) {
        strAll += message.strTopic + "=" + message.strPayload + " ";
        taken.push_back(message);
    }
    EXPECT_EQ("a=999 b= t=done ", strAll);
    EXPECT_FALSE(out.hasState("b"));
    // The connection is lost meanwhile, and "a" has changed.
    out.setState("a", "new");
    out.giveBack(taken);
    strAll.clear();
    while (out.take(message))
        strAll += message.strTopic + "=" + message.strPayload + " ";
    EXPECT_NE(std::string::npos, strAll.find("a=new "));
    EXPECT_NE(std::string::npos, strAll.find("b= "));
    EXPECT_EQ(std::string::npos, strAll.find("999"));
}

TEST(MqttOutbox, StatesAreBoundedAndTooOldMessagesAreNotPublished) {
    counters count;
    outbox out(count);
    outboxLimits limits;
    limits.nStates = 2;
    out.setLimits(limits);
    for (const char* lpsz : {"a", "b", "c"})
        out.setState(lpsz, "1");
    EXPECT_EQ(1u, count.get(countDroppedStates));
    outMessage old = messageOf("old"), message;
    old.bExpires = true;
    old.tExpires = steadyClock::now();
    out.put(old);
    std::string strAll;
    while (out.take(message))
        strAll += message.strTopic;
    EXPECT_EQ("ab", strAll);
    EXPECT_EQ(1u, count.get(countExpiredOut));
}

TEST(MqttOutbox, AStateIsClearedAlsoWhenTheLimitIsLowerNow) {
    counters count;
    outbox out(count);
    out.setState("a", std::string(5000, 'x'));
    out.setState("b", std::string(5000, 'x'));
    outMessage message;
    while (out.take(message))
        ;
    outboxLimits limits;
    limits.nStateBytes = 4096;
    out.setLimits(limits);
    out.setState("b", std::string(5001, 'y'));
    EXPECT_FALSE(out.take(message));
    EXPECT_EQ(1u, count.get(countDroppedStates));
    out.clearState("a");
    ASSERT_TRUE(out.take(message));
    EXPECT_EQ("a", message.strTopic);
    EXPECT_EQ("", message.strPayload);
    EXPECT_FALSE(out.hasState("a"));
}

}  // namespace
