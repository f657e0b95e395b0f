// metrics: the device's figures as OpenMetrics text.
#include <string.h>

#include <CLI/CLI.hpp>

#include "../mqtt/counters.h"
#include "device.h"
#include "qor/MsgQueueHelper/Message.h"
#include "table.h"

namespace qorctl {

namespace {

// A label's value: backslash, quote and line feed are escaped.
std::string labelValue(const std::string& strText) {
    std::string str;
    for (const char ch : printable(strText))
        str += ch == '\\' ? "\\\\" : ch == '"' ? "\\\"" : std::string(1, ch);
    return "\"" + str + "\"";
}

void putFamily(const char* lpszName, const char* lpszHelp, const char* lpszType = "gauge") {
    put(std::string("# TYPE ") + lpszName + " " + lpszType + "\n# HELP " + lpszName + " " + lpszHelp + "\n");
}

void putSample(const char* lpszName, const std::string& strLabels, int64_t nValue) {
    put(lpszName + (strLabels.empty() ? "" : "{" + strLabels + "}") + " " + std::to_string(nValue) + "\n");
}

void putValue(const char* lpszName, const char* lpszHelp, int64_t nValue) {
    putFamily(lpszName, lpszHelp);
    putSample(lpszName, "", nValue);
}

void putThreads(const device& dev) {
    const std::vector<queueView>& queues = dev.share().queues;
    int64_t nGhosts = 0;
    for (const queueView& queue : queues)
        nGhosts += !dev.image().isAlive(queue.idTask);
    putValue("qor_threads", "Registered threads, ghosts included.", static_cast<int64_t>(queues.size()));
    putValue("qor_ghosts", "Registered threads whose task has ended.", nGhosts);
    putValue("qor_blocked_senders", "Senders that wait for an answer.", static_cast<int64_t>(dev.edges().size()));
    putValue("qor_send_rings", "Rings of senders that wait for each other.", static_cast<int64_t>(dev.rings().size()));
    putFamily("qor_queue_messages", "Messages that wait in a thread's queue.");
    for (const queueView& queue : queues)
        if (queue.state == viewSound)
            putSample("qor_queue_messages", "thread=" + labelValue(queue.strName),
                      queue.count(QOR_MsgQueueHelper::MT_EMITTED));
    putFamily("qor_queue_bytes", "Bytes of the pool that a thread's queue takes.");
    for (const queueView& queue : queues)
        if (queue.state == viewSound)
            putSample("qor_queue_bytes", "thread=" + labelValue(queue.strName), queue.uBytes);
    putFamily("qor_messages_handled", "Messages that a thread has handled since it registered, modulo 2^32.",
              "counter");
    for (const queueView& queue : queues)
        if (queue.bNoted)
            putSample("qor_messages_handled_total", "thread=" + labelValue(queue.strName), queue.uHandled);
}

struct poolFigure {
    const char* lpszName;
    const char* lpszHelp;
    uint32_t poolView::*pValue;
};

void putPools(const device& dev) {
    static const poolFigure arrFigure[] = {
        {"qor_pool_size_bytes", "Size of a segment's pool.", &poolView::uSize},
        {"qor_pool_used_bytes", "Bytes in use of a segment's pool.", &poolView::uUsed},
        {"qor_pool_largest_free_bytes", "The largest block that a pool could give.", &poolView::uLargestFree},
        {"qor_pool_leaked_bytes", "Bytes in use that nothing leads to.", &poolView::uLeaked},
    };
    for (const poolFigure& figure : arrFigure) {
        putFamily(figure.lpszName, figure.lpszHelp);
        for (int i = 0; i < countSegmentKind; ++i) {
            const segmentKind kind = static_cast<segmentKind>(i);
            const segmentView view = readSegment(dev.segment(kind), kind);
            if (view.bBuilt && view.pool.state == viewSound)
                putSample(figure.lpszName, "segment=" + labelValue(segmentTypeOf(kind).lpszName),
                          view.pool.*figure.pValue);
        }
    }
}

void putSegments(const device& dev) {
    putFamily("qor_segment_damaged", "1 when a segment is damaged.");
    for (int i = 0; i < countSegmentKind; ++i) {
        const segmentKind kind = static_cast<segmentKind>(i);
        if (dev.segment(kind).bFound && dev.segment(kind).strError.empty())
            putSample("qor_segment_damaged", "segment=" + labelValue(segmentTypeOf(kind).lpszName),
                      readSegment(dev.segment(kind), kind).state == viewDamaged);
    }
    putFamily("qor_lock_waiters", "Tasks that wait for a segment's lock.");
    for (int i = 0; i < countSegmentKind; ++i) {
        const segmentKind kind = static_cast<segmentKind>(i);
        if (dev.segment(kind).lock.bFound)
            putSample("qor_lock_waiters", "segment=" + labelValue(segmentTypeOf(kind).lpszName),
                      dev.segment(kind).lock.nWaiters);
    }
}

void putCounters(const device& dev) {
    putFamily("qor_accumulator", "The value of a persistent counter.");
    for (const counterView& counter : readCounters(readNamed(dev.segment(segmentStorage), segmentStorage)))
        putSample("qor_accumulator", "name=" + labelValue(counter.strName), counter.uValue);
    putFamily("qor_registry_unsaved", "Changes of a document that its file does not hold.");
    for (const documentView& document : readRegistry(dev.segment(segmentRegistry)).documents)
        putSample("qor_registry_unsaved", "document=" + labelValue(document.strFile), document.nChanges);
}

// The bridge to MQTT keeps its counters in a named block, which is there when it has ever run.
void putBridge(const device& dev) {
    for (const namedView& block : readNamed(dev.segment(segmentNamed), segmentNamed).blocks) {
        uint32_t arrHead[2] = {};
        if (block.strName != qormqtt::szCounterBlock || block.bytes.size() < sizeof(arrHead))
            continue;
        memcpy(arrHead, block.bytes.data(), sizeof(arrHead));
        if (arrHead[0] != qormqtt::counterMagic)
            return;
        for (size_t i = 0; i < arrHead[1] && i < qormqtt::countKinds; ++i) {
            const size_t nAt = sizeof(arrHead) + i * sizeof(uint32_t);
            if (nAt + sizeof(uint32_t) > block.bytes.size())
                return;
            uint32_t uValue = 0;
            memcpy(&uValue, block.bytes.data() + nAt, sizeof(uValue));
            const qormqtt::counterName& name = qormqtt::nameOfCounter(i);
            const std::string strFamily = std::string("qor_mqtt_") + name.lpszName;
            putFamily(strFamily.c_str(), name.lpszHelp, "counter");
            putSample((strFamily + "_total").c_str(), "", uValue);
        }
        return;
    }
}

void runMetrics(program& prog) {
    device dev;
    if (!dev.open(prog))
        return;
    putThreads(dev);
    putPools(dev);
    putSegments(dev);
    putCounters(dev);
    putBridge(dev);
    put("# EOF\n");
}

}  // namespace

void addMetricsCommand(CLI::App& app, program& prog) {
    addCommand(app, "metrics", "The device's figures as OpenMetrics text, for monitoring",
               "  qorctl metrics >/var/lib/node_exporter/qor.prom")
        ->callback([&prog] { runMetrics(prog); });
}

}  // namespace qorctl
