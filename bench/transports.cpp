// The floor and the alternatives: each passes the same bytes with the same credits, and waits by blocking.
#include <fcntl.h>
#include <mqueue.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support.h"

#ifdef QOR_BENCH_ZMQ
#include <zmq.h>
#endif
#ifdef QOR_BENCH_NNG
#include <nng/nng.h>
#include <nng/protocol/pair0/pair.h>
#endif
#ifdef QOR_BENCH_BOOST
#include <boost/interprocess/ipc/message_queue.hpp>
#endif

namespace bench {

namespace {

// Two bare semaphores: nothing but the two wake-ups.
class semaphorePair : public pairTransport {
public:
    semaphorePair() : m_id(semget(IPC_PRIVATE, 2, 0600)) {}
    ~semaphorePair() override { semctl(m_id, 0, IPC_RMID); }
    const char* name() const override { return "two semaphores"; }

protected:
    void sendToServer(int) override { step(0, 1); }
    int receiveFromClient() override { return step(0, -1); }
    void sendToClient(int) override { step(1, 1); }
    int receiveFromServer() override { return step(1, -1); }

private:
    int step(unsigned short iSemaphore, short nDelta) {
        sembuf op = {iSemaphore, nDelta, 0};
        while (semop(m_id, &op, 1) != 0) {
        }
        return 1;
    }
    int m_id;
};

class systemQueue : public pairTransport {
public:
    systemQueue() : m_idTo(msgget(IPC_PRIVATE, 0600)), m_idFrom(msgget(IPC_PRIVATE, 0600)) {}
    ~systemQueue() override {
        msgctl(m_idTo, IPC_RMID, NULL);
        msgctl(m_idFrom, IPC_RMID, NULL);
    }
    const char* name() const override { return "System V queue"; }

protected:
    void sendToServer(int nSize) override { put(m_idTo, nSize); }
    int receiveFromClient() override { return get(m_idTo); }
    void sendToClient(int nSize) override { put(m_idFrom, nSize); }
    int receiveFromServer() override { return get(m_idFrom); }

private:
    struct record {
        long nType;
        char aData[maxSize + 8];
    };
    void put(int id, int nSize) {
        m_record.nType = 1;
        memcpy(m_record.aData, m_aData, static_cast<size_t>(nSize));
        while (msgsnd(id, &m_record, static_cast<size_t>(nSize), 0) != 0) {
        }
    }
    int get(int id) {
        ssize_t n;
        while ((n = msgrcv(id, &m_record, sizeof(m_record.aData), 0, 0)) < 0) {
        }
        return static_cast<int>(n);
    }
    int m_idTo, m_idFrom;
    record m_record;
};

class posixQueue : public pairTransport {
public:
    posixQueue() : m_to(open("/qor_bench_to")), m_from(open("/qor_bench_from")) {}
    ~posixQueue() override {
        mq_close(m_to);
        mq_close(m_from);
    }
    const char* name() const override { return "POSIX queue"; }

protected:
    void sendToServer(int nSize) override { mq_send(m_to, m_aData, static_cast<size_t>(nSize), 0); }
    int receiveFromClient() override { return static_cast<int>(mq_receive(m_to, m_aData, sizeof(m_aData), NULL)); }
    void sendToClient(int nSize) override { mq_send(m_from, m_aData, static_cast<size_t>(nSize), 0); }
    int receiveFromServer() override { return static_cast<int>(mq_receive(m_from, m_aData, sizeof(m_aData), NULL)); }

private:
    static mqd_t open(const char* lpszName) {
        mq_attr attr = {};
        attr.mq_maxmsg = 10;
        attr.mq_msgsize = maxSize;
        mq_unlink(lpszName);
        const mqd_t queue = mq_open(lpszName, O_RDWR | O_CREAT, 0600, &attr);
        mq_unlink(lpszName);
        return queue;
    }
    mqd_t m_to, m_from;
};

class socketPair : public pairTransport {
public:
    socketPair() {
        if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, m_aSocket) != 0)
            abort();
    }
    ~socketPair() override {
        close(m_aSocket[0]);
        close(m_aSocket[1]);
    }
    const char* name() const override { return "packet socket"; }

protected:
    void sendToServer(int nSize) override { put(0, nSize); }
    int receiveFromClient() override { return get(1); }
    void sendToClient(int nSize) override { put(1, nSize); }
    int receiveFromServer() override { return get(0); }

private:
    // An empty packet would look like the end: one byte stands for none.
    void put(int i, int nSize) { (void)!send(m_aSocket[i], m_aData, static_cast<size_t>(nSize > 0 ? nSize : 1), 0); }
    int get(int i) { return static_cast<int>(recv(m_aSocket[i], m_aData, sizeof(m_aData), 0)); }
    int m_aSocket[2];
};

#ifdef QOR_BENCH_ZMQ
class zeroQueue : public pairTransport {
public:
    // A path of its own: a client would reach for the dead server of an earlier measurement.
    zeroQueue() {
        static int s_nMade = 0;
        m_strPath = "ipc:///tmp/qor_bench.zmq" + std::to_string(++s_nMade);
    }
    const char* name() const override { return "ZeroMQ ipc"; }
    void openServer() override { open(false); }
    void openClient() override { open(true); }

protected:
    void sendToServer(int nSize) override { zmq_send(m_pSocket, m_aData, static_cast<size_t>(nSize), 0); }
    int receiveFromClient() override { return zmq_recv(m_pSocket, m_aData, sizeof(m_aData), 0); }
    void sendToClient(int nSize) override { zmq_send(m_pSocket, m_aData, static_cast<size_t>(nSize), 0); }
    int receiveFromServer() override { return zmq_recv(m_pSocket, m_aData, sizeof(m_aData), 0); }

private:
    void open(bool bClient) {
        m_pSocket = zmq_socket(zmq_ctx_new(), ZMQ_PAIR);
        if (bClient)
            zmq_connect(m_pSocket, m_strPath.c_str());
        else
            zmq_bind(m_pSocket, m_strPath.c_str());
    }
    void* m_pSocket = NULL;
    std::string m_strPath;
};
#endif

#ifdef QOR_BENCH_NNG
class nngPair : public pairTransport {
public:
    // A path of its own, as above.
    nngPair() {
        static int s_nMade = 0;
        m_strPath = "ipc:///tmp/qor_bench.nng" + std::to_string(++s_nMade);
    }
    const char* name() const override { return "nng ipc"; }
    void openServer() override {
        nng_pair0_open(&m_socket);
        nng_listen(m_socket, m_strPath.c_str(), NULL, 0);
    }
    // The server may not listen yet.
    void openClient() override {
        nng_pair0_open(&m_socket);
        nng_dial(m_socket, m_strPath.c_str(), NULL, NNG_FLAG_NONBLOCK);
    }

protected:
    void sendToServer(int nSize) override { put(nSize); }
    int receiveFromClient() override { return get(); }
    void sendToClient(int nSize) override { put(nSize); }
    int receiveFromServer() override { return get(); }

private:
    void put(int nSize) {
        if (nng_send(m_socket, m_aData, static_cast<size_t>(nSize), 0) != 0)
            abort();
    }
    int get() {
        size_t nSize = sizeof(m_aData);
        if (nng_recv(m_socket, m_aData, &nSize, 0) != 0)
            abort();
        return static_cast<int>(nSize);
    }
    nng_socket m_socket = NNG_SOCKET_INITIALIZER;
    std::string m_strPath;
};
#endif

#ifdef QOR_BENCH_BOOST
class boostQueue : public pairTransport {
public:
    boostQueue() {
        for (const char* lpszName : {"qor_bench_to", "qor_bench_from"}) {
            boost::interprocess::message_queue::remove(lpszName);
            boost::interprocess::message_queue(boost::interprocess::create_only, lpszName, window * 2, maxSize);
        }
    }
    ~boostQueue() override {
        boost::interprocess::message_queue::remove("qor_bench_to");
        boost::interprocess::message_queue::remove("qor_bench_from");
    }
    const char* name() const override { return "Boost queue"; }
    void openServer() override { open(); }
    void openClient() override { open(); }

protected:
    void sendToServer(int nSize) override { m_pTo->send(m_aData, static_cast<size_t>(nSize), 0); }
    int receiveFromClient() override { return get(*m_pTo); }
    void sendToClient(int nSize) override { m_pFrom->send(m_aData, static_cast<size_t>(nSize), 0); }
    int receiveFromServer() override { return get(*m_pFrom); }

private:
    typedef boost::interprocess::message_queue queue;
    void open() {
        m_pTo.reset(new queue(boost::interprocess::open_only, "qor_bench_to"));
        m_pFrom.reset(new queue(boost::interprocess::open_only, "qor_bench_from"));
    }
    int get(queue& q) {
        queue::size_type nSize = 0;
        unsigned nPriority = 0;
        q.receive(m_aData, sizeof(m_aData), nSize, nPriority);
        return static_cast<int>(nSize);
    }
    std::unique_ptr<queue> m_pTo, m_pFrom;
};
#endif

template <class T>
transportMaker maker() {
    return []() { return std::unique_ptr<transport>(new T); };
}

}  // namespace

std::vector<transportMaker> allTransports() {
    std::vector<transportMaker> listTransport = {
        maker<semaphorePair>(), libraryTransport(),  polledLibraryTransport(),
        maker<systemQueue>(),   maker<posixQueue>(), maker<socketPair>(),
#ifdef QOR_BENCH_ZMQ
        maker<zeroQueue>(),
#endif
#ifdef QOR_BENCH_NNG
        maker<nngPair>(),
#endif
#ifdef QOR_BENCH_BOOST
        maker<boostQueue>(),
#endif
    };
    for (const auto& listMore : {chunkTransports(), busTransports()})
        listTransport.insert(listTransport.end(), listMore.begin(), listMore.end());
    return listTransport;
}

std::vector<std::string> missingTransports() {
    return {
#ifndef QOR_BENCH_ZMQ
        "ZeroMQ (package libzmq3-dev)",
#endif
#ifndef QOR_BENCH_NNG
        "nng (package libnng-dev)",
#endif
#ifndef QOR_BENCH_BOOST
        "Boost (package libboost-dev)",
#endif
#ifndef QOR_BENCH_ICEORYX
        "iceoryx (packages iceoryx and libiceoryx-posh-dev)",
#endif
#ifndef QOR_BENCH_DBUS
        "D-Bus (packages libdbus-1-dev, dbus-daemon and pkg-config)",
#endif
    };
}

}  // namespace bench
