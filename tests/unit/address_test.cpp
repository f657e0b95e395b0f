// Addresses and their texts, hosts and interfaces.
#include <sys/mount.h>
#include <sys/stat.h>

#include <fstream>
#include <list>

#include "support/socket_peer.h"
#include "support/text.h"
#include "support/fatal.h"

using namespace QOR_SocketHelper;
using namespace qorTest;

namespace {

typedef QOR_ListHelper::chObjList_dynamic<QOR_StringHelper::chReferenceStringT<char>, 16> textList;

TEST(Address, ANewOneIsOfTheFamilyAndElseZero) {
    const chSocketAddr addr;
    EXPECT_EQ(AF_INET, addr.sin_family);
    EXPECT_EQ(0, addr.sin_port);
    EXPECT_EQ(0u, addr.sin_addr.s_addr);
    EXPECT_EQ("0.0.0.0", narrow(addr.GetIPv4(FALSE)));
}

TEST(Address, TextAndPortAreStoredInNetworkOrder) {
    chSocketAddr addr;
    EXPECT_EQ(1, addr.CreateSocketAddr("10.1.2.3", 0x1234));
    EXPECT_EQ(AF_INET, addr.sin_family);
    EXPECT_EQ(htons(0x1234), addr.sin_port);
    EXPECT_EQ(htonl(0x0A010203), addr.sin_addr.s_addr);
    EXPECT_EQ(0x1234, addr.GetPort());
    for (unsigned char ch : addr.sin_zero)
        EXPECT_EQ(0, ch);
}

TEST(Address, ItIsMadeOfEachOfTheThreeForms) {
    in_addr some;
    some.s_addr = htonl(0x0A000001);
    EXPECT_EQ("10.0.0.1:80", narrow(chSocketAddr(some, 80).GetIPv4(1)));
    EXPECT_EQ("10.0.0.1:80", narrow(chSocketAddr("10.0.0.1", 80).GetIPv4(1)));
    EXPECT_EQ("10.0.0.1:80", narrow(chSocketAddr("10.0.0.1:80").GetIPv4(1)));
}

TEST(Address, ItsTextComesWithAndWithoutThePort) {
    const chSocketAddr addr("255.254.253.252", 65535);
    EXPECT_EQ("255.254.253.252", narrow(addr.GetIPv4(0)));
    EXPECT_EQ("255.254.253.252:65535", narrow(addr.GetIPv4(1)));
}

TEST(Address, TheBroadcastAddressIsRefused) {
    chSocketAddr addr;
    EXPECT_EQ(0, addr.CreateSocketAddr("255.255.255.255", 80));
    in_addr all;
    all.s_addr = 0xFFFFFFFFu;
    EXPECT_EQ(0, addr.CreateSocketAddr(all, 80));
    EXPECT_EQ(0, addr.CreateSocketAddr("255.255.255.255:80"));
}

TEST(Address, APortMustBeOneTo65535) {
    chSocketAddr addr;
    in_addr some;
    some.s_addr = htonl(0x0A000001);
    for (int nPort : {0, -1, 65536, 0x10050}) {
        EXPECT_EQ(0, addr.CreateSocketAddr("10.0.0.1", nPort)) << nPort;
        EXPECT_EQ(0, addr.CreateSocketAddr(some, nPort)) << nPort;
    }
    EXPECT_EQ(1, addr.CreateSocketAddr(some, 1));
    EXPECT_EQ(1, addr.CreateSocketAddr("10.0.0.1", 65535));
    EXPECT_EQ("10.0.0.1:65535", narrow(addr.GetIPv4(1)));
}

TEST(Address, ATextThatIsNoAddressIsRefused) {
    chSocketAddr addr;
    for (const char* lpsz : {"", "ten", "1.2.3.256", "1.2.3.4.5", "10.0.0.1x"})
        EXPECT_EQ(0, addr.CreateSocketAddr(lpsz, 80)) << lpsz;
}

TEST(Address, ThreeSeparatorsMakeTheSameAddress) {
    const chSocketAddr addr("10.0.0.1:80"), addrAt("10.0.0.1@80"), addrHash("10.0.0.1#80");
    EXPECT_EQ("10.0.0.1:80", narrow(addr.GetIPv4(1)));
    EXPECT_TRUE(addr == addrAt);
    EXPECT_TRUE(addr == addrHash);
    EXPECT_TRUE(addr == chSocketAddr("10.0.0.1", 80));
}

TEST(Address, TheFirstSeparatorCuts) {
    chSocketAddr addr;
    EXPECT_EQ(1, addr.CreateSocketAddr("10.0.0.1#80:90"));
    EXPECT_EQ(80, addr.GetPort());
}

TEST(Address, ATextNeedsASeparatorAndAPort) {
    chSocketAddr addr("10.0.0.1", 80);
    EXPECT_EQ(0, addr.CreateSocketAddr("192.168.1.2"));
    EXPECT_TRUE(addr == chSocketAddr());
    for (const char* lpsz : {"192.168.1.2:0", "192.168.1.2:", "192.168.1.2:http", "192.168.1.2:65536", "192.168.1.2:-1",
                             "192.168.1.2:4294967376", "192.168.1.2:99999999999999999999", ":80", "", "@"})
        EXPECT_EQ(0, addr.CreateSocketAddr(lpsz)) << lpsz;
    EXPECT_EQ(0, addr.CreateSocketAddr(static_cast<const char*>(nullptr)));
    for (const char* lpsz : {"192.168.1.2:1", "192.168.1.2:65535"}) {
        EXPECT_EQ(1, addr.CreateSocketAddr(lpsz)) << lpsz;
        EXPECT_EQ(lpsz, narrow(addr.GetIPv4(1)));
    }
}

TEST(Address, EqualityIsOfFamilyPortAndAddress) {
    const chSocketAddr addr("10.0.0.1", 80);
    chSocketAddr other = addr;
    memset(other.sin_zero, 7, sizeof(other.sin_zero));
    EXPECT_TRUE(addr == other);
    EXPECT_FALSE(addr == chSocketAddr("10.0.0.1", 81));
    EXPECT_TRUE(addr != chSocketAddr("10.0.0.2", 80));
    other.sin_family = AF_UNIX;
    EXPECT_FALSE(addr == other);
}

TEST(Address, ANullTextIsFatal) {
    chSocketAddr addr;
    EXPECT_FATAL("QORSocket", addr.CreateSocketAddr(nullptr, 80), "lpszIPv4 != NULL");
    EXPECT_FATAL("QORSocket", sockIsValidIPv4(nullptr), "lpszIPv4 != NULL");
}

TEST(Address, FourNumbersWithDotsAreValid) {
    for (const char* lpsz : {"0.0.0.0", "1.2.3.4", "255.255.255.255", "001.02.3.000"})
        EXPECT_EQ(1, sockIsValidIPv4(lpsz)) << lpsz;
    // What follows the fourth number is only looked at for its characters.
    EXPECT_EQ(1, sockIsValidIPv4("1.2.3.4.5"));
    EXPECT_EQ(1, sockIsValidIPv4("1.2.3.4."));
}

TEST(Address, AnythingElseIsNot) {
    for (const char* lpsz : {"", ".", "1.2.3", "1.2.3.", "1..2.3", ".1.2.3", "1.2.3.256", "256.1.1.1", "1.2.3.4 ",
                             " 1.2.3.4", "1.2.3.-4", "1.2.3.a", "1.2.3.4294967297", "99999999999999999999.1.1.1"})
        EXPECT_EQ(0, sockIsValidIPv4(lpsz)) << lpsz;
}

std::list<std::string> addressesOf(const char* lpszHost, int& nCount) {
    textList list;
    list.push_back(QOR_StringHelper::chReferenceStringT<char>("first", -1));
    nCount = sockGetHostIPs(lpszHost, list);
    std::list<std::string> listText;
    for (auto it = list.begin(); it != list.end(); ++it)
        listText.push_back(narrow(*it));
    return listText;
}

// Names are looked up in a hosts file of the test's own and nowhere else, whatever the machine has in /etc.
class Hosts : public testing::Test {
protected:
    void SetUp() override {
        mkdir("/tmp/etc", 0755);
        std::ofstream("/tmp/etc/nsswitch.conf") << "hosts: files\n";
        std::ofstream("/tmp/etc/host.conf") << "multi on\n";
        std::ofstream("/tmp/etc/hosts") << "192.0.2.7 panel.test\n192.0.2.9 panel.test\n";
        ASSERT_EQ(0, mount("/tmp/etc", "/etc", nullptr, MS_BIND, nullptr)) << strerror(errno);
    }
    void TearDown() override { umount("/etc"); }
};

TEST_F(Hosts, ADottedTextIsItsOwnAddress) {
    int nCount = 0;
    EXPECT_EQ((std::list<std::string>{"first", "10.20.30.40"}), addressesOf("10.20.30.40", nCount));
    EXPECT_EQ(1, nCount);
}

TEST_F(Hosts, AllAddressesOfAKnownHostAreAppended) {
    int nCount = 0;
    EXPECT_EQ((std::list<std::string>{"first", "192.0.2.7", "192.0.2.9"}), addressesOf("panel.test", nCount));
    EXPECT_EQ(2, nCount);
}

TEST_F(Hosts, AnUnknownHostHasNone) {
    int nCount = -1;
    EXPECT_EQ(1u, addressesOf("no such host", nCount).size());
    EXPECT_EQ(0, nCount);
    EXPECT_EQ(1u, addressesOf(nullptr, nCount).size());
    EXPECT_EQ(0, nCount);
}

TEST(Interfaces, TheLoopbackInterfaceHasItsAddress) { EXPECT_EQ("127.0.0.1", narrow(sockGetLocalIPAddress("lo"))); }

TEST(Interfaces, AnInterfaceThatIsNotThereHasNone) {
    EXPECT_EQ("", narrow(sockGetLocalIPAddress("none0")));
    EXPECT_EQ("", narrow(sockGetLocalIPAddress("aNameThatIsLongerThanNamesAre")));
    EXPECT_EQ("", narrow(sockGetLocalIPAddress("")));
    EXPECT_EQ("", narrow(sockGetLocalIPAddress(nullptr)));
}

}  // namespace
