// What the bridge counts. The counters lie in a named block of the device, "qor-mqtt", so that qorctl metrics shows
// them; they go on when the bridge is started again, until the device is.
//
// The block's layout, in words of 32 bits: 0x71746d31, how many counters follow, and these in the order of
// counterNames(). A later version adds counters at the end.
#ifndef QOR_MQTT_COUNTERS_H
#define QOR_MQTT_COUNTERS_H

#include <stdint.h>

#include <atomic>
#include <map>
#include <string>

namespace qormqtt {

enum counterKind {
    countPosted,            // messages from the network that were posted
    countAnswered,          // sends from the network that were answered
    countTimedOut,          // sends from the network without an answer in time
    countSet,               // registry keys that the network has changed
    countRefusedRule,       // input that no rule allows
    countRefusedMalformed,  // input that cannot be read
    countRefusedLong,       // input that is too long
    countIgnoredRetained,   // retained input
    countNoThread,          // messages for a thread that does not exist
    countDroppedHung,       // messages for a thread that does not read its queue
    countDroppedBusy,       // sends, changes and requests when too many were open
    countPublished,         // messages that the broker has taken
    countRefusedOut,        // posted to the bridge without a rule for it
    countDroppedOut,        // messages to the network that found the queue full
    countExpiredOut,        // messages to the network that became too old in the queue
    countPublishedStates,   // states (values, threads, counters) that the broker has taken
    countDroppedStates,     // states for which there was no room
    countConnected,         // connections to the broker
    countLost,              // connections that were lost
    countKinds
};

// What a counter is called, in qor/DEV/bridge and, with "qor_mqtt_" in front and "_total" after it, in qorctl metrics.
struct counterName {
    const char* lpszName;
    const char* lpszHelp;
};
const counterName& nameOfCounter(size_t iCounter);

constexpr char szCounterBlock[] = "qor-mqtt";
constexpr uint32_t counterMagic = 0x71746d31;

struct counterBlock {
    std::atomic<uint32_t> uMagic;
    std::atomic<uint32_t> uCount;
    std::atomic<uint32_t> aCount[countKinds];
};

// Any thread counts.
class counters {
public:
    // In memory of its own until the block is found.
    counters();
    // Takes the block of the device. False when another version made a smaller one: then they stay where they are.
    bool useBlock();
    void add(counterKind kind, uint32_t uMore = 1);
    uint32_t get(counterKind kind) const;
    std::map<std::string, uint32_t> all() const;

private:
    counterBlock m_own;
    counterBlock* m_pBlock;
};

}  // namespace qormqtt

#endif
