// Apart from the counters themselves, for qorctl.
#include "counters.h"

namespace qormqtt {

const counterName& nameOfCounter(size_t iCounter) {
    static const counterName arrName[countKinds] = {
        {"posted", "Messages from the network that were posted to a thread."},
        {"answered", "Sends from the network that a thread has answered."},
        {"timed_out", "Sends from the network without an answer in time."},
        {"set", "Registry keys that the network has changed."},
        {"refused_rule", "Input that no rule allows."},
        {"refused_malformed", "Input that cannot be read."},
        {"refused_long", "Input that is too long."},
        {"ignored_retained", "Retained input, which is ignored."},
        {"no_thread", "Messages from the network for a thread that does not exist."},
        {"dropped_hung", "Messages from the network for a thread that does not read its queue."},
        {"dropped_busy", "Sends, changes and requests from the network when too many were open."},
        {"published", "Messages of the device that the broker has taken."},
        {"refused_out", "Messages of the device that no rule allows to leave it."},
        {"dropped_out", "Messages of the device that found the queue to the network full."},
        {"expired_out", "Messages of the device that became too old in the queue to the network."},
        {"published_states", "States of the device that the broker has taken."},
        {"dropped_states", "States of the device for which there was no room."},
        {"connected", "Connections to the broker."},
        {"lost", "Connections to the broker that were lost."},
    };
    return arrName[iCounter];
}

}  // namespace qormqtt
