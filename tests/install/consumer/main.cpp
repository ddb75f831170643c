// A program outside the repository, built against the installed library (and through it,
// jsoncpp).
#include <telobackup/util.h>

int main() {
    using namespace TELO::Backup;
    Json::Value vars;
    vars["name"] = "consumer";
    std::string text = replaceMustache("{{name}} at " + Path::join("/a/", "/b"), vars, false);
    return stringf("%s %d", text.c_str(), 42) == "consumer at /a/b 42" ? 0 : 1;
}
