// String encryption under a key file in a temporary directory.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "support/child.h"
#include "support/temp_dir.h"
#include "telo/platform.h"

using namespace testsupport;

namespace {

class Crypt : public ::testing::Test {
  protected:
    void SetUp() override { setenv("TELO_SECRET_KEY_FILE", key.c_str(), 1); }
    void TearDown() override { unsetenv("TELO_SECRET_KEY_FILE"); }

    // The ciphertext of `plain` in a buffer of exactly the documented size, or "" on failure.
    static std::string encrypt(const std::string &plain) {
        std::vector<char> out((plain.size() + 2) * 2, '\x7f');
        if (TLIBCCryptSzEncrypt(plain.c_str(), out.data(), out.size()) == 0) return "";
        EXPECT_NE(out.end(), std::find(out.begin(), out.end(), '\0'));
        return out.data();
    }
    static bool decrypt(const std::string &cipher, std::string &plain) {
        std::vector<char> out(std::max<size_t>(cipher.size(), 10));
        if (TLIBCCryptSzDecrypt(cipher.c_str(), out.data(), out.size()) == 0) return false;
        plain = out.data();
        return true;
    }

    TempDir dir;
    std::string key = dir.file("keys/secret.key");
};

}  // namespace

TEST_F(Crypt, RoundTripsEveryLengthAndByte) {
    std::mt19937 rng(7);
    std::string plain, back;
    for (size_t length = 0; length <= 4096; ++length) {
        std::string cipher = encrypt(plain);
        ASSERT_FALSE(cipher.empty()) << length;
        ASSERT_EQ(std::string::npos,
                  cipher.find_first_not_of(
                      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_"));
        ASSERT_TRUE(decrypt(cipher, back)) << length;
        ASSERT_EQ(plain, back);
        plain += static_cast<char>(1 + rng() % 255);
    }
    EXPECT_EQ(0600, fileMode(key));
    EXPECT_EQ(std::vector<std::string>{"secret.key"}, listDir(dir.file("keys")));
}

TEST_F(Crypt, AnyChangeFailsAuthentication) {
    std::string back;
    for (const std::string &plain : std::vector<std::string>{
             "", "ab", "password-12345678901234567890", std::string(100, 'x')}) {
        std::string cipher = encrypt(plain);
        int accepted = 0;
        for (size_t i = 0; i < cipher.size(); ++i) {
            for (char c : {'A', 'z', '0', '_'}) {
                if (cipher[i] == c) continue;
                std::string forged = cipher;
                forged[i] = c;
                accepted += decrypt(forged, back);
            }
        }
        accepted += decrypt(cipher + "A", back) + decrypt(cipher.substr(1), back);
        // A 16-bit authenticator may let one in a few thousand through; longer ones none.
        EXPECT_LE(accepted, plain.size() < 4 ? 1 : 0) << plain;
        EXPECT_EQ(TELO_ERR_CRYPTO, TLIBCErrGet());
    }
    EXPECT_FALSE(decrypt("not base64!", back));
    EXPECT_STREQ("src/crypt.cpp", TLIBCErrorGetFile());
    // Short texts are deterministic; long ones carry random salt.
    EXPECT_EQ(encrypt("same"), encrypt("same"));
    EXPECT_NE(encrypt(std::string(64, 's')), encrypt(std::string(64, 's')));
}

TEST_F(Crypt, KeyAndBufferFailures) {
    std::string cipher = encrypt("secret"), back;
    char buffer[16];
    EXPECT_EQ(0, TLIBCCryptSzEncrypt("secret", buffer, 15));  // needs (6 + 2) * 2
    EXPECT_EQ(TELO_ERR_BUFFER_SMALL, TLIBCErrGet());
    EXPECT_EQ(0, TLIBCCryptSzDecrypt(cipher.c_str(), buffer, 6));
    EXPECT_EQ(TELO_ERR_BUFFER_SMALL, TLIBCErrGet());
    // Another key cannot read it; a key of the wrong size or a missing one that cannot be made
    // fails with the key error.
    writeFile(key, std::string(32, 'k'), 0600);
    EXPECT_FALSE(decrypt(cipher, back));
    EXPECT_EQ(TELO_ERR_CRYPTO, TLIBCErrGet());
    writeFile(key, std::string(31, 'k'), 0600);
    EXPECT_EQ("", encrypt("x"));
    EXPECT_EQ(TELO_ERR_KEY, TLIBCErrGet());
    setenv("TELO_SECRET_KEY_FILE", dir.file("missing/dir/secret.key").c_str(), 1);
    EXPECT_EQ("", encrypt("x"));
    EXPECT_EQ(TELO_ERR_KEY, TLIBCErrGet());
    EXPECT_EQ(ENOENT, errno);
}

// Processes that start at once and all find no key end up with one key between them.
TEST_F(Crypt, ConcurrentFirstUseMakesOneKey) {
    std::vector<std::string> ciphers;
    for (int round = 0; round < 5; ++round) {
        std::string roundKey = dir.file("race" + std::to_string(round));
        setenv("TELO_SECRET_KEY_FILE", roundKey.c_str(), 1);
        std::vector<int> readers;
        std::vector<pid_t> pids;
        for (int p = 0; p < 6; ++p) {
            int fds[2];
            ASSERT_EQ(0, pipe(fds));
            pid_t pid = fork();
            if (pid == 0) {
                std::vector<char> out(64);
                int ok = TLIBCCryptSzEncrypt("shared", out.data(), out.size());
                ssize_t written = write(fds[1], out.data(), ok != 0 ? strlen(out.data()) : 0);
                _exit(written > 0 ? 0 : 1);
            }
            close(fds[1]);
            readers.push_back(fds[0]);
            pids.push_back(pid);
        }
        for (size_t p = 0; p < pids.size(); ++p) {
            char buffer[64] = {};
            ASSERT_GT(read(readers[p], buffer, sizeof(buffer) - 1), 0);
            close(readers[p]);
            int status;
            waitpid(pids[p], &status, 0);
            std::string back;
            EXPECT_TRUE(decrypt(buffer, back));
            EXPECT_EQ("shared", back);
        }
        EXPECT_EQ(static_cast<size_t>(round + 1), listDir(dir.path()).size());
    }
}
