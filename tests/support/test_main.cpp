// Entry point of every test binary: a helper mode when asked for one, else the tests.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <iostream>
#include <map>

#include "support/helpers.h"

namespace testsupport {

namespace {
std::map<std::string, HelperFunction> &helperRegistry() {
    static auto *registry = new std::map<std::string, HelperFunction>;
    return *registry;
}
constexpr char kHelperSwitch[] = "--telo-helper=";
}  // namespace

bool registerHelper(const char *name, HelperFunction fn) {
    helperRegistry()[name] = fn;
    return true;
}

std::string selfPath() {
    char buffer[4096] = {};
    if (readlink("/proc/self/exe", buffer, sizeof(buffer) - 1) < 0) return std::string();
    return buffer;
}

std::vector<std::string> helperCommand(const std::string &name,
                                       const std::vector<std::string> &args) {
    std::vector<std::string> command{selfPath(), kHelperSwitch + name};
    command.insert(command.end(), args.begin(), args.end());
    return command;
}

}  // namespace testsupport

int main(int argc, char **argv) {
    size_t switchLength = strlen(testsupport::kHelperSwitch);
    if (argc >= 2 && strncmp(argv[1], testsupport::kHelperSwitch, switchLength) == 0) {
        std::string name = argv[1] + switchLength;
        auto it = testsupport::helperRegistry().find(name);
        if (it == testsupport::helperRegistry().end()) {
            std::cerr << "unknown helper " << name << "\n";
            return 125;
        }
        return it->second(std::vector<std::string>(argv + 2, argv + argc));
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
