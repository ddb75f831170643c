// The administrator's shares file on arbitrary contents. Invariants: every share has a name and
// an absolute path without NUL bytes, names are distinct; the file "defines shares" exactly when
// it has a section header; through the platform call (the file as TELO_SHARES_CONF, no Samba
// configuration), a path below a share's path is found in a share of the file, and nothing else
// makes the lookup fail.
#include <climits>
#include <cstdint>
#include <set>

#include "scratch_dir.h"
#include "share_config.h"
#include "telo/platform.h"

using fuzzsupport::check;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string content(reinterpret_cast<const char *>(data), size);
    std::vector<telo_platform::Share> shares;
    bool defined = telo_platform::parseSharesFile(content, shares);
    std::set<std::string> names;
    for (const telo_platform::Share &share : shares) {
        check(!share.name.empty() && names.insert(share.name).second, "distinct names");
        check(!share.path.empty() && share.path[0] == '/', "absolute path");
        check(share.path.find('\0') == std::string::npos, "no NUL in a path");
    }
    check(defined || shares.empty(), "shares only from sections");

    std::string file = fuzzsupport::scratchDir() + "/shares.conf";
    fuzzsupport::writeText(file, content);
    setenv("TELO_SHARES_CONF", file.c_str(), 1);
    setenv("TELO_SMB_CONF", (fuzzsupport::scratchDir() + "/none.conf").c_str(), 1);
    for (const telo_platform::Share &share : shares) {
        std::string below = share.path + "/x";
        if (below.size() >= PATH_MAX - 1) continue;
        char name[4096], path[PATH_MAX];
        int rc = TELOShareNamePathGet(below.c_str(), name, sizeof(name), path, sizeof(path));
        check(rc == 0 || TLIBCErrGet() == TELO_ERR_NOT_FOUND ||
                  TLIBCErrGet() == TELO_ERR_BUFFER_SMALL,
              "a lookup below a share fails only as 'in no share' (links resolved elsewhere)");
        check(rc != 0 || names.count(name) == 1, "found in a share of the file");
    }
    return 0;
}
