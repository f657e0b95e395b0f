// What the examples of the public headers take as given.
#ifndef QOR_TESTS_SUPPORT_EXAMPLE_H
#define QOR_TESTS_SUPPORT_EXAMPLE_H

#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "qor/InspectHelper.h"
#include "qor/qor.h"

// What a program does with what it has got.
template <class... Args>
void use(const Args&...);
template <class... Args>
void show(const Args&...);
template <class... Args>
void set(const Args&...);
template <class... Args>
void parse(const Args&...);
template <class... Args>
void store(const Args&...);
template <class... Args>
void forget(const Args&...);
template <class... Args>
int refuse(const Args&...);
void help();
bool isReady();

// What it has.
extern const char* lpszText;
extern const char* lpszLine;
extern const char* lpszName;
extern const char* lpszPattern;
extern int fd;
extern int fdSocket;
extern int idTask;
extern int nCount;
extern int nClient;
extern QOR_StringHelper::chReferenceStringT<char> strLine;
extern QOR_InspectHelper::deviceImage device;
extern QOR_InspectHelper::shareView share;

struct record {
    int32_t m_iFirst;
    char szName[32];
    QOR_StringHelper::chShareStringA strName;
};
extern record* pRecord;
extern record* pHead;
extern int32_t iRecord;
extern size_t nLength;
extern QOR_AllocHelper::baseStaticPoolAlloc* pPool;

// What an application keeps in a segment of its own.
struct segment {
    QOR_ChainHelper::list_chain_offset vRoot;
    QOR_ChainHelper::list_chain_offset aNode[8];
};
extern segment* pSegment;

static int onMessage(simpMSG* pMsg);

class myProcesser : public QOR_MsgQueueHelper::chMsgProcesser {
public:
    int OnLevel(QOR_MsgQueueHelper::msgObject& objMessage);
    int OnNetChanged(QOR_MsgQueueHelper::msgObject& objMessage);

    int m_nLevel;
    QOR_RegistryHelper::chRegistryMonitor m_objMonitor;
};

#endif
