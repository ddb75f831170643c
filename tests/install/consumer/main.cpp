// A program outside the repository, built against the installed library.
#include <telobackup/util.h>

#include <cstdio>

int main() {
    using namespace TELO::Backup;
    Json::Value vars;
    vars["name"] = "consumer";
    std::string text = replaceMustache("{{name}} at " + Path::join("/a/", "/b"), vars, false);
    std::string line = stringf("%s %d", text.c_str(), 42);
    if (line != "consumer at /a/b 42") {
        fprintf(stderr, "unexpected: %s\n", line.c_str());
        return 1;
    }
    printf("%s\n", line.c_str());
    return 0;
}
