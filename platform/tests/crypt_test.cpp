// String encryption under a key file in a temporary directory.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/attacker.h"
#include "support/child.h"
#include "support/process.h"
#include "support/syslog_capture.h"
#include "support/temp_dir.h"
#include "telo/platform.h"

using namespace testsupport;

namespace {

class Crypt : public ::testing::Test {
  protected:
    void SetUp() override { setenv("TELO_SECRET_KEY_FILE", key.c_str(), 1); }
    void TearDown() override { unsetenv("TELO_SECRET_KEY_FILE"); }

    // Ciphertext (plain text) in a buffer of exactly the documented size, or
    // "error <code> <errno text>".
    static std::string encrypt(const std::string &plain) {
        std::vector<char> out((plain.size() + 2) * 2);
        if (TLIBCCryptSzEncrypt(plain.c_str(), out.data(), out.size()) != 0) return out.data();
        return failure();
    }
    static std::string decrypt(const std::string &cipher) {
        std::vector<char> out(std::max<size_t>(cipher.size(), 10));
        if (TLIBCCryptSzDecrypt(cipher.c_str(), out.data(), out.size()) != 0) return out.data();
        return failure();
    }
    static std::string failure() {
        return "error " + std::to_string(TLIBCErrGet()) + " " + strerror(errno);
    }

    TempDir dir;
    std::string key = dir.file("keys/secret.key");
};

}  // namespace

// The first encryption makes the key, private, and says so once in the system log. Decryption
// with the key gone fails with "no key" and makes none, so secrets written later are not sealed
// under a key that the old one would then replace.
TEST_F(Crypt, RoundTripsUnderAKeyOnlyEncryptionMakes) {
    SyslogCapture log;
    const std::string plain = "pass\x01\xff word";
    std::string cipher = encrypt(plain);
    EXPECT_EQ(std::string::npos,
              cipher.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
                                       "0123456789-_"));
    EXPECT_EQ(1, log.count(LOG_WARNING, "created a new secret key " + key + ": <any>"));
    EXPECT_EQ(0700, fileMode(dir.file("keys")));
    EXPECT_EQ(0600, fileMode(key));
    EXPECT_EQ(std::vector<std::string>{"secret.key"}, listDir(dir.file("keys")));
    ASSERT_EQ(0, rename(key.c_str(), dir.file("away").c_str()));
    EXPECT_EQ("error 11 No such file or directory", decrypt(cipher));
    EXPECT_FALSE(exists(key));
    ASSERT_EQ(0, rename(dir.file("away").c_str(), key.c_str()));
    EXPECT_EQ(plain, decrypt(cipher));
    // Short texts are deterministic; long ones carry random salt.
    EXPECT_EQ(encrypt("same"), encrypt("same"));
    EXPECT_NE(encrypt(std::string(64, 's')), encrypt(std::string(64, 's')));
    EXPECT_EQ(1u, log.size()) << log.dump();
}

// Any change to a ciphertext, or another key, fails authentication; a key of the wrong size is
// refused.
TEST_F(Crypt, AnyChangeOrAnotherKeyFailsAuthentication) {
    const std::string tampered = "error 8 Bad message";
    EXPECT_EQ(tampered, decrypt(""));  // nothing to decode
    std::string cipher = encrypt(std::string(40, 'x'));
    EXPECT_EQ(tampered, decrypt(cipher + "A"));
    for (size_t i = 0; i < cipher.size(); ++i) {
        std::string forged = cipher;
        forged[i] = forged[i] == 'A' ? 'B' : 'A';
        EXPECT_EQ(tampered, decrypt(forged)) << i;
    }
    writeFile(key, std::string(32, 'k'), 0600);
    EXPECT_EQ(tampered, decrypt(cipher));
    writeFile(key, std::string(31, 'k'), 0600);
    EXPECT_EQ("error 9 Invalid argument", encrypt("x"));
}

// A failing random source fails what needs it, never aborting the process: a new key is not
// made (nor a part of one left), a text long enough for salt is not encrypted; a short text,
// sealed without salt, still is.
TEST_F(Crypt, FailingRandomSourceFailsInsteadOfAborting) {
    const std::string keyFile = key, keys = dir.file("keys");
    EXPECT_CHILD_OK([&] {
        if (!failSystemCall(__NR_getrandom, EIO)) return std::string("no seccomp filter here");
        CHILD_CHECK_EQ(std::string("error 9 Input/output error"), encrypt("secret"));
        CHILD_CHECK(listDir(keys).empty());
        writeFile(keyFile, std::string(32, 'k'), 0600);
        CHILD_CHECK_EQ(std::string("error 4 Input/output error"), encrypt(std::string(60, 'x')));
        CHILD_CHECK_EQ(std::string("short"), decrypt(encrypt("short")));
        return std::string();
    });
}

// A user who can write the key's directory plants their own key (whose bytes they know), then a
// link to a root-only file of the right size, then a FIFO; root's own key readable by others is
// refused as well. Each is refused with its own error before a byte is read, nothing hangs, and
// neither the planted file nor the link's target changes.
TEST_F(Crypt, ForeignOrExposedKeysAreRefused) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to be offered another user's key";
    ASSERT_EQ(0, chmod(dir.path().c_str(), 0755));
    makeDir(dir.file("keys"), 0755);
    ASSERT_EQ(0, chown(dir.file("keys").c_str(), 65534, 65534));
    makeDir(dir.file("root"), 0700);
    writeFile(dir.file("root/other.key"), std::string(32, 'r'), 0600);
    std::string keyPath = key;
    Attacker attacker({
        [keyPath] {
            writeFile(keyPath, std::string(32, 'u'), 0600);
            return true;
        },
        [keyPath, this] {
            return unlink(keyPath.c_str()) == 0 &&
                   symlink(dir.file("root/other.key").c_str(), keyPath.c_str()) == 0;
        },
        [keyPath] { return unlink(keyPath.c_str()) == 0 && mkfifo(keyPath.c_str(), 0600) == 0; },
    });
    const char *refusals[] = {"error 13 Operation not permitted",  // another owner
                              "error 12 Too many levels of symbolic links",
                              "error 12 Invalid argument"};  // a FIFO
    for (size_t step = 0; step < 3; ++step) {
        SCOPED_TRACE(refusals[step]);
        ASSERT_TRUE(attacker.perform(step));
        const std::string planted = describeTree(dir.path());
        EXPECT_EQ(refusals[step], encrypt("secret"));
        EXPECT_EQ(refusals[step], decrypt("AAAAAAAAAAAA"));  // well-formed: the key is read next
        EXPECT_EQ(planted, describeTree(dir.path()));
    }
    ASSERT_EQ(0, unlink(key.c_str()));
    writeFile(key, std::string(32, 'k'), 0604);
    EXPECT_EQ("error 14 Operation not permitted", encrypt("secret"));
}

// Processes that start at once and all find no key end up with one key between them.
TEST_F(Crypt, ConcurrentFirstUseMakesOneKey) {
    for (int round = 0; round < 5; ++round) {
        setenv("TELO_SECRET_KEY_FILE", dir.file("race" + std::to_string(round)).c_str(), 1);
        int fds[2];
        ASSERT_EQ(0, pipe(fds));
        for (int p = 0; p < 6; ++p) {
            if (fork() == 0) {
                char out[64];
                int ok = TLIBCCryptSzEncrypt("shared", out, sizeof(out));
                _exit(ok && write(fds[1], out, sizeof(out)) == sizeof(out) ? 0 : 1);
            }
        }
        close(fds[1]);
        char cipher[64];
        for (int p = 0; p < 6; ++p) {
            ASSERT_EQ(static_cast<ssize_t>(sizeof(cipher)), read(fds[0], cipher, sizeof(cipher)));
            EXPECT_EQ("shared", decrypt(cipher));
            wait(nullptr);
        }
        close(fds[0]);
        EXPECT_EQ(static_cast<size_t>(round + 1), listDir(dir.path()).size());
    }
}
