// ps and queue.
#include <CLI/CLI.hpp>

#include <algorithm>

#include "qor/MsgQueueHelper/Message.h"
#include "views.h"

namespace qorctl {

namespace {

std::string stateText(const device& dev, const threadState& state) {
    std::string strText = state.lpszState;
    if (state.lpszReason != nullptr)
        strText += " on " + dev.nameOf(state.idOn);
    else if (strText == "handling")
        strText += " " + hexNumber(state.pHandling->uMsg);
    return strText + (state.nSinceMs >= 0 ? " for " + durationText(state.nSinceMs) : "");
}

json threadRow(const device& dev, const queueView& queue) {
    const taskImage* pTask = dev.findTask(queue.idTask);
    const threadState state = dev.stateOf(queue);
    const bool bProcess = pTask != nullptr && pTask->idProcess != 0;
    json row;
    row["name"] = queue.strName;
    row["task"] = queue.idTask;
    row["process"] = bProcess ? json(pTask->idProcess) : json();
    row["program"] = bProcess ? json(pTask->strProgram) : json();
    row["alive"] = pTask != nullptr && pTask->bAlive;
    row["state"] = state.lpszState != nullptr ? json(state.lpszState) : json();
    row["stateText"] = state.lpszState != nullptr ? json(stateText(dev, state)) : json();
    row["on"] = state.lpszReason != nullptr ? json(dev.nameOf(state.idOn)) : json();
    row["handling"] = state.pHandling != nullptr ? json(state.pHandling->uMsg) : json();
    row["sinceMs"] = state.nSinceMs >= 0 ? json(state.nSinceMs) : json();
    row["queued"] = queue.count(QOR_MsgQueueHelper::MT_EMITTED);
    row["handled"] = queue.bNoted ? json(queue.uHandled) : json();
    row["bytes"] = queue.uBytes;
    row["reading"] = queue.state == viewSound ? "sound" : queue.state == viewChanging ? "changing" : "damaged";
    // Numbers that may be wrong are not shown.
    if (queue.state != viewSound)
        row["queued"] = row["bytes"] = json();
    return row;
}

rowStyle threadStyle(const threadState& state) {
    return state.lpszReason != nullptr ? styleBad : state.lpszState == std::string("ghost") ? styleWarn : styleNone;
}

void runPs(program& prog) {
    device dev;
    if (dev.open(prog, segmentShare))
        threadTable(dev).print(prog);
}

json messageRow(const device& dev, const messageView& message, size_t iPlace) {
    const char* lpszStatus = statusName(message.nStatus);
    json row;
    row["place"] = iPlace;
    row["id"] = message.uMsg;
    row["priority"] = message.nPriority;
    row["wParam"] = message.wParam;
    row["lParam"] = message.lParam;
    row["sender"] = dev.nameOf(message.idSender);
    row["senderTask"] = message.idSender;
    row["kind"] = message.bWaiting ? "send" : "post";
    row["waitedMs"] = message.wait.bKnown ? json(message.wait.uMs) : json();
    row["limitMs"] = message.wait.bKnown ? json(message.wait.nLimit) : json();
    row["status"] = lpszStatus != nullptr ? json(lpszStatus) : json(message.nStatus);
    row["size"] = message.extra.size();
    row["hex"] = hexBytes(message.extra);
    row["text"] = asciiBytes(message.extra);
    return row;
}

void runQueue(program& prog, const std::string& strName) {
    device dev;
    if (!dev.open(prog, segmentShare))
        return;
    const queueView* pQueue = dev.findQueue(strName);
    if (pQueue == nullptr) {
        prog.fail(exitNotFound, "there is no thread \"" + strName + "\"");
        return;
    }
    table tab({{"place", "#", true},
               {"id", "ID", true, false, formatHex},
               {"priority", "PRIO", true},
               {"wParam", "WPARAM", true},
               {"lParam", "LPARAM", true},
               {"sender", "SENDER", false, true},
               {"kind", "KIND"},
               {"status", "STATUS"},
               {"size", "SIZE", true}});
    for (size_t i = 0; i < pQueue->messages.size(); ++i)
        tab.add(messageRow(dev, pQueue->messages[i], i));
    tab.print(prog);
    for (size_t i = 0; i < pQueue->messages.size() && !prog.bJson; ++i)
        if (!pQueue->messages[i].extra.empty())
            put("\n#" + std::to_string(i) + "\n" + dumpBytes(pQueue->messages[i].extra, "  "));
}

}  // namespace

table threadTable(const device& dev) {
    table tab({{"name", "NAME", false, true},
               {"task", "TASK", true},
               {"process", "PID", true},
               {"program", "PROGRAM", false, true},
               {"stateText", "STATE", false, true},
               {"queued", "QUEUED", true},
               {"handled", "HANDLED", true},
               {"bytes", "BYTES", true}});
    const std::vector<queueView>& queues = dev.share().queues;
    for (auto it = queues.rbegin(); it != queues.rend(); ++it) {
        const threadState state = dev.stateOf(*it);
        tab.add(threadRow(dev, *it), state.lpszState != nullptr ? threadStyle(state) : styleNone);
    }
    return tab;
}

void addThreadCommands(CLI::App& app, program& prog) {
    addCommand(app, "ps", "The threads of the device and what they do",
               "  qorctl ps\n  qorctl ps --json | jq '.[] | select(.alive == false) | .name'")
        ->callback([&prog] { runPs(prog); });
    CLI::App* pQueue = addCommand(app, "queue", "The messages in a thread's queue, in order, with their extra data",
                                  "  qorctl queue sampler");
    static std::string s_strName;
    pQueue->add_option("NAME", s_strName, "A thread")->required();
    pQueue->callback([&prog] { runQueue(prog, s_strName); });
}

}  // namespace qorctl
