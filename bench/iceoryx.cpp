// Messages over iceoryx: chunks of memory that its daemon hands out, one topic for each direction. Both sides wait on a
// wait set.
#include "support.h"

#ifdef QOR_BENCH_ICEORYX
#include <grp.h>
#include <iceoryx_hoofs/log/logmanager.hpp>
#include <iceoryx_posh/mepoo/chunk_header.hpp>
#include <iceoryx_posh/popo/untyped_publisher.hpp>
#include <iceoryx_posh/popo/untyped_subscriber.hpp>
#include <iceoryx_posh/popo/wait_set.hpp>
#include <iceoryx_posh/runtime/posh_runtime.hpp>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

namespace bench {

namespace {

const char szConfig[] = "/tmp/qor_bench.roudi";

// The daemon of all measurements, with memory for what they need.
class daemon {
public:
    daemon() {
        FILE* const pFile = fopen(szConfig, "w");
        if (pFile == NULL)
            abort();
        fprintf(pFile, "[general]\nversion = 1\n[[segment]]\n[[segment.mempool]]\nsize = %d\ncount = 4096\n", maxSize);
        fclose(pFile);
        fflush(NULL);
        m_id = fork();
        if (m_id == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            (void)!freopen("/dev/null", "w", stdout);
            (void)!freopen("/dev/null", "w", stderr);
            execlp("iox-roudi", "iox-roudi", "--monitoring-mode", "off", "--config-file", szConfig,
                   static_cast<char*>(NULL));
            _exit(1);
        }
    }
    // It does not end well when its clients were killed, and then leaves its memory behind.
    ~daemon() {
        kill(m_id, SIGKILL);
        waitpid(m_id, NULL, 0);
        shm_unlink("/iceoryx_mgmt");
        if (const group* const pGroup = getgrgid(getegid()))
            shm_unlink((std::string("/") + pGroup->gr_name).c_str());
        unlink(szConfig);
    }

private:
    pid_t m_id;
};

// Each measurement has names of its own, since its peers are killed and not told from living ones.
class chunkTransport : public pairTransport {
public:
    chunkTransport() {
        static int s_nMade = 0;
        m_strNumber = std::to_string(++s_nMade);
    }
    const char* name() const override { return "iceoryx"; }
    void openServer() override { open("server", "ToClient", "ToServer"); }
    void openClient() override { open("client", "ToServer", "ToClient"); }

protected:
    void sendToServer(int nSize) override { put(nSize); }
    int receiveFromClient() override { return get(); }
    void sendToClient(int nSize) override { put(nSize); }
    int receiveFromServer() override { return get(); }

private:
    static iox::capro::IdString_t text(const std::string& str) {
        return iox::capro::IdString_t(iox::cxx::TruncateToCapacity, str.c_str());
    }
    void open(const std::string& strOwn, const std::string& strTo, const std::string& strFrom) {
        iox::log::LogManager::GetLogManager().SetDefaultLogLevel(iox::log::LogLevel::kOff,
                                                                 iox::log::LogLevelOutput::kHideLogLevel);
        iox::runtime::PoshRuntime::initRuntime(text("qor_bench_" + strOwn + m_strNumber));
        m_pPublisher.reset(new iox::popo::UntypedPublisher({"qor", text(m_strNumber), text(strTo)}));
        iox::popo::SubscriberOptions options;
        options.queueCapacity = window * 2;
        m_pSubscriber.reset(new iox::popo::UntypedSubscriber({"qor", text(m_strNumber), text(strFrom)}, options));
        m_pWaitSet.reset(new iox::popo::WaitSet<>);
        m_pWaitSet->attachState(*m_pSubscriber, iox::popo::SubscriberState::HAS_DATA).or_else([](auto&) { abort(); });
        while (!m_pPublisher->hasSubscribers() ||
               m_pSubscriber->getSubscriptionState() != iox::SubscribeState::SUBSCRIBED)
            usleep(1000);
    }
    void put(int nSize) {
        m_pPublisher->loan(static_cast<uint32_t>(nSize > 0 ? nSize : 1))
            .and_then([&](auto& pChunk) {
                memcpy(pChunk, m_aData, static_cast<size_t>(nSize));
                m_pPublisher->publish(pChunk);
            })
            .or_else([](auto&) { abort(); });
    }
    int get() {
        int nSize = -1;
        while (nSize == -1) {
            m_pSubscriber->take().and_then([&](const void* pChunk) {
                nSize = static_cast<int>(iox::mepoo::ChunkHeader::fromUserPayload(pChunk)->userPayloadSize());
                memcpy(m_aData, pChunk, static_cast<size_t>(nSize));
                m_pSubscriber->release(pChunk);
            });
            if (nSize == -1)
                m_pWaitSet->wait();
        }
        return nSize;
    }

    std::string m_strNumber;
    std::unique_ptr<iox::popo::UntypedPublisher> m_pPublisher;
    std::unique_ptr<iox::popo::UntypedSubscriber> m_pSubscriber;
    std::unique_ptr<iox::popo::WaitSet<>> m_pWaitSet;  // after the subscriber: it lets go of it first
};

}  // namespace

std::vector<transportMaker> chunkTransports() {
    static const daemon s_daemon;
    return {[]() { return std::unique_ptr<transport>(new chunkTransport); }};
}

}  // namespace bench

#else

namespace bench {

std::vector<transportMaker> chunkTransports() { return {}; }

}  // namespace bench

#endif
