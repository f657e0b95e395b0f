// Fatal preconditions that the public headers name: those that the tests of the single modules do not call. A row is
// one call and the assertion that it ends the process with.
#include <sys/mman.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "qor/qor.h"
#include "support/message_thread.h"
#include "support/socket_peer.h"
#include "support/text.h"
#include "support/fatal.h"

namespace {

struct fatalCall {
    const char* lpszCall;
    const char* lpszModule;
    const char* lpszText;
    std::function<void()> fnCall;
};

void expectFatal(const std::vector<fatalCall>& listCall) {
    for (const fatalCall& call : listCall) {
        SCOPED_TRACE(call.lpszCall);
        EXPECT_EXIT(call.fnCall(), testing::KilledBySignal(SIGABRT), qorTest::reportOf(call.lpszModule, call.lpszText));
    }
}

// A null that the compiler does not see.
template <class T = const char>
T* none() {
    T* volatile p = NULL;
    return p;
}

TEST(Precondition, PathsAreNotNull) {
    using namespace QOR_MiscHelper;
    static const char szPath[] = "lpszPath != NULL";
    expectFatal({
        {"pathGetFileExtensionPos", "_chMisc", szPath, [] { pathGetFileExtensionPos(none<const char>()); }},
        {"pathGetFileExtensionPos, writable", "_chMisc", szPath, [] { pathGetFileExtensionPos(none<char>()); }},
        {"pathGetFileNamePos, writable", "_chMisc", szPath, [] { pathGetFileNamePos(none<char>()); }},
        {"pathGetShortNamePos, writable", "_chMisc", szPath, [] { pathGetShortNamePos(none<char>()); }},
        {"pathStripPath", "_chMisc", szPath, [] { pathStripPath(none<char>()); }},
        {"pathRemoveFileSpec", "_chMisc", szPath, [] { pathRemoveFileSpec(none<char>()); }},
        {"pathRenameExtension", "_chMisc", szPath, [] { pathRenameExtension(none<char>(), ".c"); }},
        {"pathAppend", "_chMisc", "lpszPath != NULL && lpszMore != NULL", [] { pathAppend(none<char>(), "c"); }},
        {"pathGetRelativePath", "_chMisc", szPath, [] { pathGetRelativePath(none(), "/"); }},
    });
}

TEST(Precondition, PathNamesAreMadeOfTexts) {
    using QOR_FileHelper::chPathNameA;
    expectFatal({
        {"chPathNameA(directory, null)", "QORFile", "lpszName != NULL", [] { chPathNameA path("/a", none()); }},
        {"ReplaceExternOnly(null)", "_chMisc", "lpszNewExtern != NULL && *lpszNewExtern == '.'",
         [] { chPathNameA("/a").ReplaceExternOnly(none()); }},
    });
}

// A text of at least nSize digits. It consists of the same ones again and again, and so takes no memory.
class repeatedText {
public:
    explicit repeatedText(size_t nSize)
        : m_nSize((nSize + sizePiece - 1) / sizePiece * sizePiece + sizePiece),
          m_pBegin(mmap(NULL, m_nSize, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0)) {
        const int fd = memfd_create("digits", 0);
        const std::string strDigits(sizePiece, 'A');
        m_bComplete = m_pBegin != MAP_FAILED && write(fd, strDigits.data(), sizePiece) == ssize_t{sizePiece};
        for (size_t n = 0; m_bComplete && n < m_nSize - sizePiece; n += sizePiece)
            m_bComplete = mmap(static_cast<char*>(m_pBegin) + n, sizePiece, PROT_READ, MAP_SHARED | MAP_FIXED, fd, 0) !=
                          MAP_FAILED;
        close(fd);
    }
    ~repeatedText() { munmap(m_pBegin, m_nSize); }
    repeatedText(const repeatedText&) = delete;
    repeatedText& operator=(const repeatedText&) = delete;

    // Null: the system does not allow it.
    const char* begin() const { return m_bComplete ? static_cast<const char*>(m_pBegin) : NULL; }

private:
    static constexpr size_t sizePiece = 1 << 20;

    const size_t m_nSize;
    void* const m_pBegin;
    bool m_bComplete;
};

TEST(Precondition, EncodersTakeBytesAndDecodersAtMost128Megabytes) {
    using namespace QOR_MiscHelper;
    static const char szBytes[] = "(pData != NULL || nCount == 0) && nCount >= 0 && nCount <= maxEncodedSize";
    expectFatal({
        {"qorBin2Text(null)", "_chMisc", szBytes, [] { qorBin2Text(NULL, 1); }},
        {"qorBin2Base64(null)", "_chMisc", szBytes, [] { qorBin2Base64(NULL, 1); }},
    });
    const repeatedText text(static_cast<size_t>(maxEncodedSize) + 1);
    const char* const lpszText = text.begin();
    ASSERT_NE(nullptr, lpszText);
    expectFatal({
        {"qorBase162Bin", "_chMisc", "nLength <= maxEncodedSize", [lpszText] { qorBase162Bin(lpszText); }},
        {"qorText2Bin", "_chMisc", "nLength <= maxEncodedSize", [lpszText] { qorText2Bin(lpszText); }},
        {"qorBase642Bin", "_chMisc", "nLength <= maxEncodedSize", [lpszText] { qorBase642Bin(lpszText); }},
    });
}

#if UINTPTR_MAX > 0xFFFFFFFFu && !defined(__SANITIZE_THREAD__)  // which keeps notes of each byte
TEST(Precondition, ALengthIsAtMostTheLargestInt) {
    const repeatedText text(size_t{1} << 31);
    const char* const lpszText = text.begin();
    ASSERT_NE(nullptr, lpszText);
    EXPECT_EQ(0x7FFFFFFF, QOR_StringHelper::chStrlen(lpszText));
    expectFatal({{"chReferenceStringT", "_chString", "nLength < maxLength",
                  [lpszText] { QOR_StringHelper::chReferenceStringT<char> str(lpszText); }}});
}
#endif

TEST(Precondition, TextPrimitivesTakeTexts) {
    typedef QOR_StringHelper::uCTextHelper<char, false> text;
    expectFatal({
        {"chFind", "_chString", "lpszText != NULL && lpszFind != NULL", [] { text::chFind(none(), "a"); }},
        {"chFindOneOf", "_chString", "lpszText != NULL && lpszSet != NULL", [] { text::chFindOneOf("a", none()); }},
        {"chSkipOneOf", "_chString", "lpszText != NULL && lpszSet != NULL", [] { text::chSkipOneOf(none(), "a"); }},
        {"chIsBeginText", "_chString", "lpszText != NULL && lpszBegin != NULL",
         [] { text::chIsBeginText("a", none()); }},
        {"reIsBeginWith", "_chString", "lpszText != NULL && lpszBegin != NULL",
         [] { QOR_RegularExpressHelper::reIsBeginWith(none(), "a"); }},
        {"reIsBeginWith, prefix", "_chString", "lpszText != NULL && lpszBegin != NULL",
         [] { QOR_RegularExpressHelper::reIsBeginWith("a", none()); }},
    });
}

TEST(Precondition, FilesHaveNames) {
    static const char szName[] = "m_pFile == NULL && !textEMPTY(lpszFileName)";
    using QOR_FileHelper::chFileStdio;
    expectFatal({
        {"chFileStdio(null)", "QORFile", szName, [] { chFileStdio file(none(), QOR_FileHelper::openRead); }},
        {"chFileStdio(empty)", "QORFile", szName, [] { chFileStdio file("", QOR_FileHelper::openRead); }},
        {"LoadCodePageFile(null)", "QORFile", szName,
         [] { QOR_CodePage::chCodePage("/dev/null").LoadCodePageFile(none()); }},
        {"LoadCodePageFile(empty)", "QORFile", szName,
         [] { QOR_CodePage::chCodePage("/dev/null").LoadCodePageFile(""); }},
        {"QOR_SubClass::qorGetProfileString(null)", "QORFile", "!textEMPTY(lpszFileName)",
         [] { QOR_SubClass::qorGetProfileString(none(), "s", "k", ""); }},
        {"LockDocument(null)", "QORRegistry", "!textEMPTY(lpszFileName)",
         [] { QOR_RegistryHelper::uCRegistryHelpergetGlobalObject()->LockDocument(none()); }},
        {"LockDocument(empty)", "QORRegistry", "!textEMPTY(lpszFileName)",
         [] { QOR_RegistryHelper::uCRegistryHelpergetGlobalObject()->LockDocument(""); }},
    });
}

TEST(Precondition, ANullTextIsNotWritten) {
    QOR_FileHelper::chFileStdio file("/tmp/precondition", QOR_FileHelper::openWrite | QOR_FileHelper::openCreate);
    expectFatal({{"file << null", "_chString", "lpszText != NULL", [&file] { file << none(); }}});
}

TEST(Precondition, TracesHaveFormats) {
    using namespace QOR_TraceHelper;
    static const char szFormat[] = "lpszFormat != NULL";
    expectFatal({
        {"simpTRACE", "QORTrace", szFormat, [] { simpTRACE(none(), 1); }},
        {"qorTrace", "QORTrace", szFormat, [] { qorTrace(1, none(), 1); }},
        {"WriteTraceString", "QORTrace", szFormat,
         [] { uCTraceHelpergetGlobalObject()->WriteTraceString(1, none(), 1); }},
        {"qorOutputDebugString", "QORTrace", szFormat, [] { qorOutputDebugString(none(), 1); }},
        {"qorOutputWarningString", "QORTrace", szFormat, [] { qorOutputWarningString(none(), 1); }},
    });
}

TEST(Precondition, SocketsAreMadeOnce) {
    using namespace QOR_SocketHelper;
    static const char szOnce[] = "m_hSocket == INVALID_SOCKET";
    static const chSocketAddr addr("127.0.0.1", 0);
    chSocketTCP tcp;
    chSocketUDP udp;
    ASSERT_TRUE(tcp.CreateSocket() && udp.CreateSocket());
    expectFatal({
        {"chSocketTCP::CreateSocket(address)", "QORSocket", szOnce, [&tcp] { tcp.CreateSocket(addr); }},
        {"chSocketTCP::CreateSocket(text)", "QORSocket", szOnce, [&tcp] { tcp.CreateSocket("127.0.0.1", 0); }},
        {"chSocketTCP::CreateSocket(null)", "QORSocket", "lpszIPv4 != NULL",
         [] { chSocketTCP().CreateSocket(none(), 0); }},
        {"chSocketTCP::ConnectTo(null)", "QORSocket", "lpszIPv4 != NULL", [&tcp] { tcp.ConnectTo(none(), 80, 0); }},
        {"chSocketUDP::CreateSocket()", "QORSocket", szOnce, [&udp] { udp.CreateSocket(); }},
        {"chSocketUDP::CreateSocket(address)", "QORSocket", szOnce, [&udp] { udp.CreateSocket(addr); }},
        {"chSocketUDP::CreateSocket(text)", "QORSocket", szOnce, [&udp] { udp.CreateSocket("127.0.0.1", 0); }},
    });
}

TEST(Precondition, ReceiveTakesWholeItems) {
    static const char szSize[] = "iOffset >= 0 && nPacketSize > 0";
    QOR_SocketHelper::chSocketTCP socket;
    expectFatal({
        {"Receive, no items", "QORSocket", szSize, [&socket] { socket.Receive(NULL, 1, 0, 0); }},
        {"Receive, a negative count", "QORSocket", szSize, [&socket] { socket.Receive(NULL, 1, -1, 0); }},
        {"ReceivePacket, a negative size", "QORSocket", szSize, [&socket] { socket.ReceivePacket(NULL, -1, 0); }},
    });
}

TEST(Precondition, SelectAndReceiveLooksAtItsSizeOnlyWhenThereIsSomethingToRead) {
    QOR_SocketHelper::chSocketTCP socket;
    qorTest::plainPeer other;
    qorTest::join(socket, other);
    EXPECT_EQ(0, socket.SelectAndReceive(0, 0));
    EXPECT_EQ(0, socket.SelectAndReceive(-2, 1));
    ASSERT_TRUE(other.say("a"));
    ASSERT_EQ(1, socket.socketSelect(-1));
    expectFatal({
        {"SelectAndReceive(0)", "QORSocket", "nReceiveSize > 0 || nReceiveSize == -1",
         [&socket] { socket.SelectAndReceive(0, 0); }},
        {"SelectAndReceive(-2)", "QORSocket", "nReceiveSize > 0 || nReceiveSize == -1",
         [&socket] { socket.SelectAndReceive(-2, 0); }},
        {"socketReceive(-2)", "QORSocket", "nReceiveSize > 0 || nReceiveSize == -1",
         [&socket] { socket.socketReceive(-2); }},
    });
}

TEST(Precondition, ObjectsOfSharedMemoryAreOpen) {
    using namespace QOR_BaseHelper;
    expectFatal({
        {"IsSemaphoreAlive", "xInc/xBaseClass", "m_fdSemaphore != -1", [] { xSemaphore().IsSemaphoreAlive(); }},
        {"~chMapFile_Local", "_chBaseClass", "m_pMapData == NULL", [] { chMapFile_Local().OpenMapFile("x", 1); }},
    });
}

TEST(Precondition, NamedBlocksHaveNames) {
    expectFatal(
        {{"FindNamedObject(null)", "QORMsgSystem", "lpszName != NULL", [] {
              QOR_MsgQueueHelper::uCSystemNamedObjectHelpergetGlobalObject()->getObject()->m_objManager.FindNamedObject(
                  none());
          }}});
}

// A thread belongs to the process that registered it, so the process that dies registers it itself.
TEST(Precondition, AThreadNeitherSendsNorDeliversToItselfAsToAnother) {
    using namespace QOR_MsgQueueHelper;
    static const char szSelf[] = "!IsCalledByThisThread()";
    typedef qorTest::currentThread thread;
    expectFatal({
        {"SendThreadMsgEx", "QORMsgSystem", szSelf,
         [] { thread("self").chThreadBase::SendThreadMsgEx(0x100, 0, 0, 0, NULL, -1, NULL); }},
        {"DeliverThreadMsgEx", "QORMsgSystem", szSelf,
         [] { thread("self").chThreadBase::DeliverThreadMsgEx(0x100, 0, 0, 0, NULL, -1); }},
        {"Dogsleep, a negative time", "QORMsgSystem", "nTime > 0", [] { thread("self").Dogsleep(-1); }},
        {"CreateRemoteThread(empty)", "QORMsgSystem", "!textEMPTY(lpszThreadName)",
         [] { chThreadRemote().CreateRemoteThread(""); }},
    });
}

}  // namespace
