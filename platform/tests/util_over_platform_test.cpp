// The util library and the platform over the machine's resolver: from a private hosts file, read
// by a resolver that reads only files (nothing leaves the machine), the addresses of a name.
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <set>

#include "support/child.h"
#include "support/temp_dir.h"
#include "telo/platform.h"
#include "telobackup/network/network.h"

using namespace testsupport;

TEST(UtilOverPlatform, AddressLookup) {
    TempDir dir;
    writeFile(dir.file("hosts"), "127.0.0.1 dual.test\n::1 dual.test\n127.0.0.1 dual.test\n");
    writeFile(dir.file("nsswitch.conf"), "hosts: files\n");
    EXPECT_CHILD_OK(ChildOptions{.privateMounts = true}, [&] {
        if (mount(dir.file("hosts").c_str(), "/etc/hosts", nullptr, MS_BIND, nullptr) != 0 ||
            mount(dir.file("nsswitch.conf").c_str(), "/etc/nsswitch.conf", nullptr, MS_BIND,
                  nullptr) != 0) {
            return std::string("cannot bind the resolver fixtures");
        }
        char entries[4][TELO_IP_TEXT_SIZE];
        CHILD_CHECK_EQ(2, TELONetLookupIP("dual.test", entries, 4, 0));  // the repeated one once
        CHILD_CHECK((std::set<std::string>{entries[0], entries[1]} ==
                     std::set<std::string>{"127.0.0.1", "::1"}));
        CHILD_CHECK_EQ(-1, TELONetLookupIP("missing.test", entries, 4, 0));
        CHILD_CHECK_EQ(unsigned(TELO_ERR_LOOKUP), TLIBCErrGet());
        CHILD_CHECK_EQ(std::string("127.0.0.1"), TELO::Backup::Net::getIpFromAddr("dual.test"));
        return std::string();
    });
}
