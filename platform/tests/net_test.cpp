#include <gtest/gtest.h>
#include <sys/mount.h>

#include <set>

#include "support/child.h"
#include "support/temp_dir.h"
#include "telo/platform.h"

using namespace testsupport;

namespace {

// The addresses TELONetLookupIP gives for `host`, or "error <code>".
std::vector<std::string> lookup(const char *host, int capacity = 20) {
    char entries[20][TELO_IP_TEXT_SIZE];
    int count = TELONetLookupIP(host, entries, capacity, 0);
    if (count < 1) return {"error " + std::to_string(TLIBCErrGet())};
    return std::vector<std::string>(entries, entries + count);
}

}  // namespace

TEST(NetLookup, LiteralsAndBadParameters) {
    EXPECT_EQ(1, BlTLIBIsIpAddr("10.0.0.1"));
    EXPECT_EQ(2, BlTLIBIsIpAddr("::ffff:1.2.3.4"));
    EXPECT_EQ(0, BlTLIBIsIpAddr("010.0.0.1"));
    EXPECT_EQ(0, BlTLIBIsIpAddr(nullptr));
    EXPECT_EQ(1, BlTLIBIsv6IpAddrValid("::1"));
    EXPECT_EQ(0, BlTLIBIsv6IpAddrValid("10.0.0.1"));
    EXPECT_EQ(std::vector<std::string>{"::1"}, lookup("::1"));
    EXPECT_EQ(std::vector<std::string>{"error 1"}, lookup(""));
    EXPECT_EQ(std::vector<std::string>{"error 1"}, lookup("127.0.0.1", 0));
}

// A private hosts file, and a resolver that reads only files, so nothing leaves the machine.
TEST(NetLookup, NamesFromAHostsFile) {
    TempDir dir;
    writeFile(dir.file("hosts"), "127.0.0.1 dual.test\n::1 dual.test\n127.0.0.1 dual.test\n");
    writeFile(dir.file("nsswitch.conf"), "hosts: files\n");
    EXPECT_CHILD_OK(ChildOptions{.privateMounts = true}, [&] {
        if (mount(dir.file("hosts").c_str(), "/etc/hosts", nullptr, MS_BIND, nullptr) != 0 ||
            mount(dir.file("nsswitch.conf").c_str(), "/etc/nsswitch.conf", nullptr, MS_BIND,
                  nullptr) != 0) {
            return std::string("cannot bind the resolver fixtures");
        }
        std::vector<std::string> both = lookup("dual.test");
        CHILD_CHECK((std::set<std::string>(both.begin(), both.end()) ==
                     std::set<std::string>{"127.0.0.1", "::1"}));
        CHILD_CHECK_EQ(2u, both.size());  // the repeated address once
        CHILD_CHECK_EQ(1u, lookup("dual.test", 1).size());
        CHILD_CHECK_EQ(std::string("error 10"), lookup("missing.test")[0]);
        return std::string();
    });
}
