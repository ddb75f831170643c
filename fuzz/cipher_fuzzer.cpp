// The ciphertext decoder on arbitrary text under a fixed key: it never writes past the buffer
// it is given (every buffer is a heap block of exactly its size), leaves the buffer untouched
// when it fails, and what it accepts is NUL-terminated plain text that encrypts and decrypts
// back to itself. The input is also taken as plain text for a round trip, and decrypted into a
// buffer one byte too small for it.
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "telo/platform.h"

namespace {

void check(bool condition) {
    if (!condition) abort();
}

std::string keyDir;

void removeKey() {
    unlink((keyDir + "/secret.key").c_str());
    rmdir(keyDir.c_str());
}

// Decrypts `cipher` into a buffer of `size` bytes; "" with `ok` false when it fails.
std::string decrypt(const std::string &cipher, size_t size, bool &ok) {
    std::unique_ptr<char[]> out(new char[size]);
    memset(out.get(), 0xA5, size);
    ok = TLIBCCryptSzDecrypt(cipher.c_str(), out.get(), size) != 0;
    if (!ok) {
        for (size_t i = 0; i < size; ++i) check(static_cast<unsigned char>(out[i]) == 0xA5);
        return std::string();
    }
    check(memchr(out.get(), '\0', size) != nullptr);
    return std::string(out.get());
}

std::string encrypt(const std::string &plain) {
    size_t size = (plain.size() + 2) * 2;
    std::unique_ptr<char[]> out(new char[size]);
    check(TLIBCCryptSzEncrypt(plain.c_str(), out.get(), size) != 0);
    check(memchr(out.get(), '\0', size) != nullptr);
    return std::string(out.get());
}

size_t decryptSize(const std::string &cipher) {
    return cipher.size() > 10 ? cipher.size() : 10;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    std::string base = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    keyDir = base + "/telo-cipher-fuzz.XXXXXX";
    check(mkdtemp(&keyDir[0]) != nullptr);
    std::string key = keyDir + "/secret.key";
    FILE *f = fopen(key.c_str(), "we");
    check(f != nullptr);
    for (int i = 0; i < 32; ++i) fputc(i * 7 + 3, f);
    check(fclose(f) == 0 && chmod(key.c_str(), 0600) == 0);
    setenv("TELO_SECRET_KEY_FILE", key.c_str(), 1);
    atexit(removeKey);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string text(reinterpret_cast<const char *>(data), size);
    text.resize(strlen(text.c_str()));

    bool ok;
    std::string plain = decrypt(text, decryptSize(text), ok);
    if (ok) {
        std::string again = encrypt(plain);
        check(decrypt(again, decryptSize(again), ok) == plain && ok);
    }

    std::string cipher = encrypt(text);
    check(decrypt(cipher, decryptSize(cipher), ok) == text && ok);
    if (!text.empty()) {
        std::string cut = decrypt(cipher, text.size(), ok);
        check(!ok || cut == text);
    }
    return 0;
}
