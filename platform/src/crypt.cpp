// Authenticated string encryption under the machine's secret key.
//
// Ciphertext = base64url(tag | salt | XChaCha20(plain)) without padding. The tag is a keyed
// BLAKE2b of (length, salt, plain) cut to what the size rule leaves room for, and the stream
// nonce is derived from (tag, salt, length): a synthetic IV, so that the tag authenticates and
// short texts need no room for a separate nonce. Room goes to the tag first (up to 16 bytes),
// then to random salt (up to 16 bytes).
#include <fcntl.h>
#include <sodium.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "internal/errno_saver.h"
#include "internal/unique_fd.h"
#include "platform_error.h"
#include "telo/platform.h"

namespace {

using TELO::Backup::internal::ErrnoSaver;
using TELO::Backup::internal::UniqueFd;

constexpr char kPlatformFile[] = "src/crypt.cpp";
constexpr char kDefaultKeyFile[] = "/etc/telobackup/secret.key";
constexpr char kKdfContext[] = "telosecr";
constexpr size_t kKeyBytes = 32;
constexpr size_t kMaxTag = 16;
constexpr size_t kMaxSalt = 16;
constexpr size_t kNonceBytes = crypto_stream_xchacha20_NONCEBYTES;
constexpr int kBase64 = sodium_base64_VARIANT_URLSAFE_NO_PADDING;

struct Layout {
    size_t plain, tag, salt;
    size_t total() const { return plain + tag + salt; }
};

// Bytes that fit in (plain + 2) * 2 - 1 base64 characters, less the plain text.
Layout layoutFor(size_t plain) {
    size_t room = (2 * plain + 9) / 4;
    Layout layout{plain, room < kMaxTag ? room : kMaxTag, 0};
    size_t left = room - layout.tag;
    layout.salt = left < kMaxSalt ? left : kMaxSalt;
    return layout;
}

// Sub-keys of the machine key, wiped when done.
struct Keys {
    unsigned char encrypt[crypto_stream_xchacha20_KEYBYTES];
    unsigned char mac[crypto_generichash_KEYBYTES];
    unsigned char nonce[crypto_generichash_KEYBYTES];
    ~Keys() { sodium_memzero(this, sizeof(*this)); }
};

std::string keyFilePath() {
    const char *configured = getenv("TELO_SECRET_KEY_FILE");
    return configured != nullptr && *configured != '\0' ? configured : kDefaultKeyFile;
}

// Fills `data` from the kernel's random source. Unlike the crypto library's own call, which
// aborts the process when the source fails, this one fails with errno set.
bool fillRandom(unsigned char *data, size_t size) {
    while (size > 0) {
        ssize_t n = getrandom(data, size, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            if (n == 0) errno = EIO;
            return false;
        }
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

bool writeAll(int fd, const unsigned char *data, size_t size) {
    while (size > 0) {
        ssize_t n = write(fd, data, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

// Places a new random key at `path` without ever overwriting one: it is written under a
// temporary name and linked into place, so of two processes starting at once one key wins and
// both read it. The one that placed it says so in the system log. False with errno set.
bool createKey(const std::string &path) {
    std::string dir = path.substr(0, path.rfind('/') == std::string::npos ? 0 : path.rfind('/'));
    if (!dir.empty() && mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) return false;
    std::vector<char> temp(path.begin(), path.end());
    const char suffix[] = ".XXXXXX";
    temp.insert(temp.end(), suffix, suffix + sizeof(suffix));
    UniqueFd fd(mkostemp(temp.data(), O_CLOEXEC));
    if (!fd) return false;
    unsigned char key[kKeyBytes];
    bool ok = fillRandom(key, sizeof(key)) && fchmod(fd.get(), 0600) == 0 &&
              writeAll(fd.get(), key, sizeof(key)) && fsync(fd.get()) == 0;
    sodium_memzero(key, sizeof(key));
    bool placed = ok && link(temp.data(), path.c_str()) == 0;
    if (ok && !placed && errno != EEXIST) {
        // File systems without hard links still offer an exclusive rename.
        placed = (errno == EPERM || errno == EOPNOTSUPP) &&
                 renameat2(AT_FDCWD, temp.data(), AT_FDCWD, path.c_str(), RENAME_NOREPLACE) == 0;
        ok = placed || errno == EEXIST;
    }
    ErrnoSaver keep;
    unlink(temp.data());
    if (placed) {
        syslog(LOG_WARNING,
               "created a new secret key %s: secrets encrypted under an earlier key cannot be "
               "decrypted with it",
               path.c_str());
    }
    return ok;
}

// Opens the key for reading: a link at its name is not followed and a FIFO does not block.
// Only a regular file of the caller or root that no one else may read or write is accepted;
// otherwise -1 with the reason recorded (errno ENOENT, when there is no key, is left to the
// caller to record).
int openKey(const std::string &path) {
    int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        if (errno == ELOOP) {
            TELO_PLATFORM_FAIL(TELO_ERR_KEY_NOT_FILE);
        } else if (errno != ENOENT) {
            TELO_PLATFORM_FAIL(TELO_ERR_KEY);
        }
        return -1;
    }
    UniqueFd owner(fd);
    struct stat st;
    unsigned int refusal = TELO_ERR_NONE;
    if (fstat(fd, &st) != 0) {
        refusal = TELO_ERR_KEY;
    } else if (!S_ISREG(st.st_mode)) {
        errno = EINVAL;
        refusal = TELO_ERR_KEY_NOT_FILE;
    } else if (st.st_uid != 0 && st.st_uid != geteuid()) {
        errno = EPERM;
        refusal = TELO_ERR_KEY_OWNER;
    } else if ((st.st_mode & 077) != 0) {
        errno = EPERM;
        refusal = TELO_ERR_KEY_MODE;
    }
    if (refusal != TELO_ERR_NONE) {
        TELO_PLATFORM_FAIL(refusal);
        return -1;
    }
    return owner.release();
}

// Reads the machine key and derives the sub-keys. Only encryption (`mayCreate`) makes a key
// when there is none; decryption then fails with TELO_ERR_NO_KEY.
bool loadKeys(Keys &keys, bool mayCreate) {
    std::string path = keyFilePath();
    int fd = openKey(path);
    if (fd < 0 && errno == ENOENT) {
        if (!mayCreate) {
            TELO_PLATFORM_FAIL(TELO_ERR_NO_KEY);
            return false;
        }
        if (!createKey(path)) {
            TELO_PLATFORM_FAIL(TELO_ERR_KEY);
            return false;
        }
        fd = openKey(path);
        if (fd < 0 && errno == ENOENT) TELO_PLATFORM_FAIL(TELO_ERR_NO_KEY);
    }
    if (fd < 0) return false;
    UniqueFd owner(fd);
    unsigned char master[kKeyBytes + 1];
    size_t got = 0;
    while (got < sizeof(master)) {
        ssize_t n = read(fd, master + got, sizeof(master) - got);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            sodium_memzero(master, sizeof(master));
            TELO_PLATFORM_FAIL(TELO_ERR_KEY);
            return false;
        }
        if (n == 0) break;
        got += static_cast<size_t>(n);
    }
    bool ok = got == kKeyBytes;
    if (ok) {
        crypto_kdf_derive_from_key(keys.encrypt, sizeof(keys.encrypt), 1, kKdfContext, master);
        crypto_kdf_derive_from_key(keys.mac, sizeof(keys.mac), 2, kKdfContext, master);
        crypto_kdf_derive_from_key(keys.nonce, sizeof(keys.nonce), 3, kKdfContext, master);
    }
    sodium_memzero(master, sizeof(master));
    if (!ok) {
        errno = EINVAL;
        TELO_PLATFORM_FAIL(TELO_ERR_KEY);
    }
    return ok;
}

// The plain length as 8 little-endian bytes, bound into both the tag and the nonce.
void encodeLength(size_t plain, unsigned char *length) {
    for (int i = 0; i < 8; ++i) length[i] = static_cast<unsigned char>(plain >> (8 * i));
}

void computeTag(const Keys &keys, const Layout &layout, const unsigned char *salt,
                const unsigned char *plain, unsigned char *tag) {
    unsigned char length[8];
    encodeLength(layout.plain, length);
    unsigned char full[crypto_generichash_BYTES];
    crypto_generichash_state state;
    crypto_generichash_init(&state, keys.mac, sizeof(keys.mac), sizeof(full));
    crypto_generichash_update(&state, length, sizeof(length));
    crypto_generichash_update(&state, salt, layout.salt);
    crypto_generichash_update(&state, plain, layout.plain);
    crypto_generichash_final(&state, full, sizeof(full));
    memcpy(tag, full, layout.tag);
}

// Applies the keystream selected by (tag, salt, length) to `in`, writing `out`.
void applyStream(const Keys &keys, const Layout &layout, const unsigned char *tagAndSalt,
                 const unsigned char *in, unsigned char *out) {
    unsigned char length[8];
    encodeLength(layout.plain, length);
    unsigned char nonce[kNonceBytes];
    crypto_generichash_state state;
    crypto_generichash_init(&state, keys.nonce, sizeof(keys.nonce), sizeof(nonce));
    crypto_generichash_update(&state, tagAndSalt, layout.tag + layout.salt);
    crypto_generichash_update(&state, length, sizeof(length));
    crypto_generichash_final(&state, nonce, sizeof(nonce));
    crypto_stream_xchacha20_xor(out, in, layout.plain, nonce, keys.encrypt);
}

// The crypto library's random source, replaced before its start-up, since its own aborts the
// process when the kernel's source fails. This code draws its keys and salt through fillRandom;
// the library draws only at its start-up (a canary for memory this code does not use). A
// failed draw is remembered: the process then never encrypts.
std::atomic<bool> libraryDrawFailed{false};

void libraryFill(void *const data, const size_t size) {
    if (!fillRandom(static_cast<unsigned char *>(data), size)) {
        memset(data, 0, size);
        libraryDrawFailed = true;
    }
}

uint32_t libraryWord() {
    uint32_t word = 0;
    libraryFill(&word, sizeof(word));
    return word;
}

const char *libraryRandomName() {
    return "getrandom, checked";
}

randombytes_implementation checkedRandom = {libraryRandomName, libraryWord, nullptr,
                                            nullptr,           libraryFill, nullptr};

bool ready() {
    static const bool replaced = randombytes_set_implementation(&checkedRandom) == 0;
    if (replaced && sodium_init() >= 0 && !libraryDrawFailed) return true;
    errno = EIO;
    TELO_PLATFORM_FAIL(TELO_ERR_SYSTEM);
    return false;
}

}  // namespace

extern "C" int TLIBCCryptSzEncrypt(const char *plain, char *out, size_t outSize) {
    if (plain == nullptr || out == nullptr) {
        errno = EINVAL;
        TELO_PLATFORM_FAIL(TELO_ERR_INVALID_PARAM);
        return 0;
    }
    size_t length = strlen(plain);
    if (length > (SIZE_MAX / 2) - 2 || outSize < (length + 2) * 2) {
        errno = ERANGE;
        TELO_PLATFORM_FAIL(TELO_ERR_BUFFER_SMALL);
        return 0;
    }
    Keys keys;
    if (!ready() || !loadKeys(keys, true)) return 0;
    Layout layout = layoutFor(length);
    std::vector<unsigned char> sealed(layout.total());
    unsigned char *tag = sealed.data();
    unsigned char *salt = tag + layout.tag;
    unsigned char *body = salt + layout.salt;
    const unsigned char *text = reinterpret_cast<const unsigned char *>(plain);
    if (!fillRandom(salt, layout.salt)) {
        TELO_PLATFORM_FAIL(TELO_ERR_SYSTEM);
        return 0;
    }
    computeTag(keys, layout, salt, text, tag);
    applyStream(keys, layout, tag, text, body);
    sodium_bin2base64(out, outSize, sealed.data(), sealed.size(), kBase64);
    return 1;
}

extern "C" int TLIBCCryptSzDecrypt(const char *cipher, char *out, size_t outSize) {
    if (cipher == nullptr || out == nullptr || outSize == 0) {
        errno = EINVAL;
        TELO_PLATFORM_FAIL(TELO_ERR_INVALID_PARAM);
        return 0;
    }
    if (!ready()) return 0;
    size_t length = strlen(cipher);
    // One byte more than any decoding needs, so that the buffer is never null, even for "".
    std::vector<unsigned char> sealed(length + 1);
    size_t decoded = 0;
    const char *end = nullptr;
    if (sodium_base642bin(sealed.data(), sealed.size(), cipher, length, nullptr, &decoded, &end,
                          kBase64) != 0 ||
        end != cipher + length || decoded < 2) {
        errno = EBADMSG;
        TELO_PLATFORM_FAIL(TELO_ERR_CRYPTO);
        return 0;
    }
    // The plain length is the one whose layout has exactly this size.
    Layout layout{0, 0, 0};
    bool matched = false;
    for (size_t plain = decoded > kMaxTag + kMaxSalt ? decoded - kMaxTag - kMaxSalt : 0;
         plain <= decoded && !matched; ++plain) {
        layout = layoutFor(plain);
        matched = layout.total() == decoded;
    }
    if (!matched) {
        errno = EBADMSG;
        TELO_PLATFORM_FAIL(TELO_ERR_CRYPTO);
        return 0;
    }
    if (outSize < layout.plain + 1) {
        errno = ERANGE;
        TELO_PLATFORM_FAIL(TELO_ERR_BUFFER_SMALL);
        return 0;
    }
    Keys keys;
    if (!loadKeys(keys, false)) return 0;
    const unsigned char *tag = sealed.data();
    const unsigned char *salt = tag + layout.tag;
    std::vector<unsigned char> plain(layout.plain + 1, 0);
    applyStream(keys, layout, tag, salt + layout.salt, plain.data());
    unsigned char expected[kMaxTag];
    computeTag(keys, layout, salt, plain.data(), expected);
    bool authentic = sodium_memcmp(expected, tag, layout.tag) == 0 &&
                     memchr(plain.data(), '\0', layout.plain) == nullptr;
    if (authentic) memcpy(out, plain.data(), layout.plain + 1);
    sodium_memzero(plain.data(), plain.size());
    if (!authentic) {
        errno = EBADMSG;
        TELO_PLATFORM_FAIL(TELO_ERR_CRYPTO);
        return 0;
    }
    return 1;
}
