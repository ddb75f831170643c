/*
 * Storage-server platform interfaces used by libtelobackup-util.
 *
 * libtelobackup-platform implements them for a generic Linux server; on the storage server the
 * vendor libraries provide the same names. Every call is synchronous on the caller's thread.
 * A failing call sets the calling thread's last platform error (code, source file, line), read
 * back with TLIBCErrGet, TLIBCErrorGetFile and TLIBCErrorGetLine; a successful call leaves it as
 * it was. Unless a contract says otherwise, errno is left as the failing system call set it.
 *
 * Files the generic implementation reads, each overridable by an environment variable (tests
 * point them at fixtures):
 *   TELO_SHARES_CONF      shares defined by the administrator, default /etc/telobackup/shares.conf
 *   TELO_SMB_CONF         Samba configuration, default /etc/samba/smb.conf
 *   TELO_MOUNTINFO        mount table, default /proc/self/mountinfo
 *   TELO_SECRET_KEY_FILE  key of the string encryption, default /etc/telobackup/secret.key
 */
#ifndef TELO_PLATFORM_H
#define TELO_PLATFORM_H

#include <stddef.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define TELO_PLATFORM_API __attribute__((visibility("default")))
#else
#define TELO_PLATFORM_API
#endif

/* ---- Last platform error ------------------------------------------------------------------ */

/* Codes of the last platform error (TLIBCErrGet).
 *   0x0000 TELO_ERR_NONE           no platform call of this thread has failed yet
 *   0x0001 TELO_ERR_INVALID_PARAM  a null pointer, an empty string or a bad size was passed
 *   0x0002 TELO_ERR_NOT_FOUND      the path, share, volume or mount entry does not exist
 *   0x0003 TELO_ERR_NOT_SUPPORTED  the generic server has no such facility (platform ACLs)
 *   0x0004 TELO_ERR_SYSTEM         a system call failed; errno holds its error
 *   0x0005 TELO_ERR_BUFFER_SMALL   the caller's buffer cannot hold the result
 *   0x0006 TELO_ERR_NO_MEMORY      an allocation failed
 *   0x0007 TELO_ERR_BAD_CONFIG     a configuration or table file is malformed, refused (as Samba
 *                                  would refuse it), not a regular file (errno EINVAL or EISDIR)
 *                                  or too large (errno EFBIG)
 *   0x0008 TELO_ERR_CRYPTO         a ciphertext is malformed or failed authentication
 *   0x0009 TELO_ERR_KEY            the secret key cannot be made or read, or is of the wrong size
 *   0x000A TELO_ERR_LOOKUP         a host name could not be resolved
 *   0x000B TELO_ERR_NO_KEY         there is no secret key (decryption never makes one)
 *   0x000C TELO_ERR_KEY_NOT_FILE   the key is a symbolic link or not a regular file
 *   0x000D TELO_ERR_KEY_OWNER      the key belongs to a user other than the caller or root
 *   0x000E TELO_ERR_KEY_MODE       the key may be read or written by its group or others */
enum {
    TELO_ERR_NONE = 0x0000,
    TELO_ERR_INVALID_PARAM = 0x0001,
    TELO_ERR_NOT_FOUND = 0x0002,
    TELO_ERR_NOT_SUPPORTED = 0x0003,
    TELO_ERR_SYSTEM = 0x0004,
    TELO_ERR_BUFFER_SMALL = 0x0005,
    TELO_ERR_NO_MEMORY = 0x0006,
    TELO_ERR_BAD_CONFIG = 0x0007,
    TELO_ERR_CRYPTO = 0x0008,
    TELO_ERR_KEY = 0x0009,
    TELO_ERR_LOOKUP = 0x000A,
    TELO_ERR_NO_KEY = 0x000B,
    TELO_ERR_KEY_NOT_FILE = 0x000C,
    TELO_ERR_KEY_OWNER = 0x000D,
    TELO_ERR_KEY_MODE = 0x000E
};

/* Code of the calling thread's last platform error (table above); TELO_ERR_NONE when none. */
TELO_PLATFORM_API unsigned int TLIBCErrGet(void);

/* Platform source file that recorded the last error, relative to the platform's source root
 * (for example "src/fs_type.cpp"); "" when none. The text is static and never freed. */
TELO_PLATFORM_API const char *TLIBCErrorGetFile(void);

/* Source line that recorded the last error; 0 when none. */
TELO_PLATFORM_API int TLIBCErrorGetLine(void);

/* What the last error is about, in words an administrator can act on, when the failing call
 * knows more than its code: the file and the reason ("Samba configuration /etc/samba/smb.conf:12:
 * include /dev/zero: not a regular file"); "" otherwise. An addition of the generic layer (the
 * vendor libraries lack it). The text belongs to the thread and lasts until its next failure. */
TELO_PLATFORM_API const char *TLIBCErrorGetDetail(void);

/* ---- ACLs and file systems ---------------------------------------------------------------- */

/* File-system type codes of TELOGetFSType. */
enum {
    TELO_FS_FAT = 0,     /* vfat, msdos */
    TELO_FS_EXT3 = 1,    /* ext2, ext3 */
    TELO_FS_EXT4 = 2,    /* ext4 */
    TELO_FS_BTRFS = 3,   /* btrfs */
    TELO_FS_XFS = 4,     /* xfs */
    TELO_FS_FOREIGN = 5, /* exfat, ntfs, ntfs3, fuseblk (both refuse chmod) */
    TELO_FS_NETWORK = 6, /* nfs, nfs4, cifs, smb3 */
    TELO_FS_OTHER = 7    /* anything else: tmpfs, overlay, zfs, ... */
};

/* Type code of the file system holding `path`: the visible mount-table entry (one no later mount
 * hides) whose mount point is the longest component-wise prefix of the path's real path.
 * `flags` is reserved and must be 0.
 * Failure: -1 with TELO_ERR_INVALID_PARAM (null or empty path), TELO_ERR_NOT_FOUND (the path
 * cannot be resolved; errno from realpath), TELO_ERR_SYSTEM (mount table unreadable; errno set)
 * or TELO_ERR_BAD_CONFIG (the table is not a regular file or too large, or no entry covers the
 * path; errno EINVAL, EFBIG or ENOENT). */
TELO_PLATFORM_API int TELOGetFSType(const char *path, int flags);

/* Non-zero when the file system at `path` (or the open descriptor `fd` when path is null)
 * carries platform ACLs. A generic Linux server has none: always 0, nothing recorded. */
TELO_PLATFORM_API int TELOACLIsSupport(const char *path, int fd, int flags);

/* Copies the platform ACL of `from` onto `to`. 0 on success, negative on failure. Generic
 * server: always -1 with TELO_ERR_NOT_SUPPORTED and errno ENOTSUP. */
TELO_PLATFORM_API int TELOACLCopy(const char *from, const char *to);

/* Copies the platform archive attributes of `from` onto `to`. 0 on success, negative on
 * failure. Generic server: always -1 with TELO_ERR_NOT_SUPPORTED and errno ENOTSUP. */
TELO_PLATFORM_API int TELOACLArchiveCopy(const char *from, const char *to);

/* Makes the ACL of `path` inherit from its parent again. 0 on success, non-zero on failure.
 * Generic server: always -1 with TELO_ERR_NOT_SUPPORTED and errno ENOTSUP. */
TELO_PLATFORM_API int TELOACLResetInherit(const char *path);

/* ---- Shares ------------------------------------------------------------------------------- */

/* Finds the share holding `path`. The path is made absolute (from the working directory) and
 * resolved: the longest existing leading part through realpath, the rest with "." and ".."
 * applied as text, so "/srv/photos/../docs/x" is never in a share at /srv/photos and a symbolic
 * link into a share is in it. Share paths are resolved the same way. The share is the one whose
 * resolved path is the longest component-wise prefix (the first so configured among equals).
 *
 * Shares come from TELO_SHARES_CONF, the administrator's file (the section config format:
 * "[name]" then path="/srv/name" as a JSON string, or plainly path = /srv/name; "#" comments),
 * and when that file does not exist or defines no section, from TELO_SMB_CONF read as Samba's
 * testparm reads it: every section but [global], [homes] and [printers] that is available, not
 * printable (printable, print ok) and has a path (path, directory), the [global] values in force
 * when the section starts filling what it leaves out, "copy" and "include" followed, lines
 * continued by a backslash, runs of blanks in a line read as one. Samba's %-macros depend on the
 * connecting client: a share path holding "%" is left out of the matching, and an include whose
 * name holds one is not read. A configuration Samba would refuse is refused (a section header
 * without "]", a parameter without a name, a bad boolean for available or printable, a copy of
 * a missing section or of itself, includes nested deeper than 100: the mark of an include loop).
 * Every file is read only when it is a regular file of at most 4 MiB, and at most 16 MiB in 1000
 * files for one lookup.
 *
 * Writes the share's name and its resolved path into `name` and `sharePath` (each
 * NUL-terminated) and returns 0. Failure: -1 with TELO_ERR_INVALID_PARAM (errno EINVAL, or
 * ENAMETOOLONG for a path of PATH_MAX bytes or more), TELO_ERR_NOT_FOUND (no share holds the
 * path; errno ENOENT), TELO_ERR_BUFFER_SMALL (errno ERANGE), TELO_ERR_SYSTEM (a file cannot be
 * read, or neither configuration exists: errno ENOENT) or TELO_ERR_BAD_CONFIG (a file is not a
 * regular file or too large, or the configuration is refused: errno EINVAL, EISDIR, EFBIG or
 * ELOOP); TLIBCErrorGetDetail then names the file and the reason. */
TELO_PLATFORM_API int TELOShareNamePathGet(const char *path, char *name, int nameSize,
                                           char *sharePath, int sharePathSize);

/* Directory for temporary data on the volume mounted at `volPath`: "<volPath>/.telobackup-tmp".
 * When it is missing and the volume root is writable by the caller it is created, world-writable
 * and sticky (mode 01777, like /tmp). A symbolic link or a non-directory at that name is never
 * used. Writes the path into `buf` and returns 0. Failure: -1 with TELO_ERR_INVALID_PARAM (null,
 * relative path, no buffer), TELO_ERR_BUFFER_SMALL (errno ENAMETOOLONG) or TELO_ERR_SYSTEM (the
 * directory is missing and cannot be created, or the name is taken: errno ELOOP, ENOTDIR or the
 * failing call's). */
TELO_PLATFORM_API int TELOShareTmpPathGet(const char *volPath, char *buf, int size);

/* ---- Volumes ------------------------------------------------------------------------------ */

/* One mounted volume. Records of an enumeration are chained through `next`.
 * A volume of the generic server is a mounted disk file system, from the mount table
 * (TELO_MOUNTINFO: a regular file or a /proc file of at most 16 MiB, in the mountinfo form or
 * that of /proc/mounts, read through libmount):
 *   - a known disk type (TELOGetFSType codes 0 to 5), zfs, or a block-device source; not a
 *     pseudo or network file system, a read-only image (squashfs, iso9660, ...), a loop-backed
 *     image of any type, or an EFI system partition (FAT mounted at /boot/efi or /efi);
 *   - visible: not hidden by a later mount on the same point or on a parent of it;
 *   - mounted on a directory (bind mounts of single files are not volumes);
 *   - one per file system: of bind mounts and btrfs subvolumes of one device, the mount of the
 *     file system's root, else the shortest mount point, else the first in the table. */
typedef struct TELOVOLInfo {
    char volPath[4096];           /* mount point of the volume, "" when unknown */
    int fsType;                   /* TELOGetFSType code */
    unsigned long long freeBytes; /* space available to the caller (statvfs f_bavail x f_frsize) */
    int mounted;                  /* status: non-zero when mounted (always, for listed volumes) */
    int usable;                   /* status: non-zero when mounted read-write and statvfs works */
    struct TELOVOLInfo *next;     /* next record of an enumeration, NULL at the end */
} TELOVOLInfo;

/* The only volume location of a generic server: its local disks. */
#define TELO_VOL_LOCATION_DISK 1

/* Location code of the volumes that can hold application data: TELO_VOL_LOCATION_DISK when the
 * mount table lists at least one volume; 0 when it lists none or cannot be read (then with
 * TELO_ERR_SYSTEM or TELO_ERR_BAD_CONFIG recorded). */
TELO_PLATFORM_API int TELOVolumeSupportLocGet(void);

/* Every volume of `location` as a list of records in the order of the mount table (free it with
 * TELOMountVolInfoFree); `flags` is reserved (0) and `mode` is accepted for compatibility (free
 * space is always filled in). Failure or no volume: NULL with TELO_ERR_NOT_FOUND (a location
 * other than TELO_VOL_LOCATION_DISK, or no volume), TELO_ERR_SYSTEM or TELO_ERR_BAD_CONFIG (the
 * mount table cannot be read, as for TELOGetFSType) or TELO_ERR_NO_MEMORY. */
TELO_PLATFORM_API TELOVOLInfo *TELOMountVolAllEnum(int flags, int location, int mode);

/* Fills `info` with the volume of the file system holding `path` (the visible mount whose
 * mount point is the longest component-wise prefix of the path's real path, or the volume chosen
 * for its file system when that mount is a bind mount or a subvolume); info->next is set to NULL.
 * 0 on success; -1 with TELO_ERR_INVALID_PARAM, TELO_ERR_NOT_FOUND (the path does not resolve, or
 * lies on a file system that is not a volume, such as a tmpfs), TELO_ERR_SYSTEM or
 * TELO_ERR_BAD_CONFIG (the mount table cannot be read, as for TELOGetFSType). */
TELO_PLATFORM_API int TELOMountVolInfoGet(const char *path, TELOVOLInfo *info);

/* Frees a list returned by TELOMountVolAllEnum; NULL is ignored. */
TELO_PLATFORM_API void TELOMountVolInfoFree(TELOVOLInfo *list);

/* ---- Processes and network ---------------------------------------------------------------- */

/* fork(2): the child's pid in the parent, 0 in the child; -1 with TELO_ERR_SYSTEM (errno set). */
TELO_PLATFORM_API pid_t TLIBCProcFork(void);

/* Size of one text address of TELONetLookupIP, terminator included. */
#define TELO_IP_TEXT_SIZE 52

/* Resolves `host` with getaddrinfo into at most `capacity` text addresses, duplicates removed
 * and the resolver's order kept; `flags` is reserved (0). Returns their number. Failure: 0 or
 * less with TELO_ERR_INVALID_PARAM or TELO_ERR_LOOKUP. */
TELO_PLATFORM_API int TELONetLookupIP(const char *host, char (*entries)[TELO_IP_TEXT_SIZE],
                                      int capacity, int flags);

/* 1 when `addr` is an IPv4 literal, 2 when it is an IPv6 literal, 0 otherwise (NULL included).
 * Records nothing. */
TELO_PLATFORM_API int BlTLIBIsIpAddr(const char *addr);

/* Non-zero when `addr` is a valid IPv6 literal (inet_pton), 0 otherwise. Records nothing. */
TELO_PLATFORM_API int BlTLIBIsv6IpAddrValid(const char *addr);

/* ---- String encryption -------------------------------------------------------------------- */

/* Key: 32 bytes in TELO_SECRET_KEY_FILE (default /etc/telobackup/secret.key). Only encryption
 * makes a key, when there is none: it creates the file (and its directory, mode 0700) with
 * random bytes and mode 0600, without overwriting: of two processes starting at once, both end
 * up with the same key, and the one that made it writes "created a new secret key %s: ..." to
 * the system log at LOG_WARNING. Decryption without a key fails with TELO_ERR_NO_KEY (errno
 * ENOENT). The key is opened without following a link at its name and without blocking, and
 * is refused unless it is a regular file (TELO_ERR_KEY_NOT_FILE; errno ELOOP for a link,
 * EINVAL otherwise) of the caller or root (TELO_ERR_KEY_OWNER, errno EPERM) that its group and
 * others may neither read nor write (TELO_ERR_KEY_MODE, errno EPERM). A key that cannot be
 * made or read, or that is not exactly 32 bytes, fails with TELO_ERR_KEY (errno from the
 * failing call; EINVAL for a wrong size).
 *
 * Ciphertext: base64url text (A-Z a-z 0-9 - _) of at most 2 * strlen(plain) + 3 characters.
 * Any change to it makes decryption fail, except with the chance of a forged authenticator,
 * whose size is all the size rule leaves room for: for a plain text of L bytes the
 * authenticator has min(16 + 8 * (L / 2), 128) bits (integer division): 16 bits for 0-1 bytes,
 * 32 for 4-5, 64 for 12-13, 96 for 20-21, the full 128 from 28 bytes on. Texts shorter than
 * 30 bytes are encrypted deterministically (equal texts give equal ciphertexts, which shows
 * that they are equal); from 30 bytes on, random salt is added (16 bytes from 60 bytes on). */

/* Encrypts the NUL-terminated `plain` into printable, NUL-terminated text in `out`, which must
 * hold (strlen(plain) + 2) * 2 bytes. Non-zero on success; 0 with TELO_ERR_INVALID_PARAM
 * (null pointer; errno EINVAL), TELO_ERR_BUFFER_SMALL (errno ERANGE), one of the key errors
 * above, or TELO_ERR_SYSTEM. */
TELO_PLATFORM_API int TLIBCCryptSzEncrypt(const char *plain, char *out, size_t outSize);

/* Decrypts text made by TLIBCCryptSzEncrypt into `out`, which must hold
 * max(strlen(cipher), 10) bytes (the plain text and its NUL always fit there). Non-zero on
 * success; 0 with TELO_ERR_INVALID_PARAM (errno EINVAL), TELO_ERR_BUFFER_SMALL (errno ERANGE),
 * one of the key errors above (TELO_ERR_NO_KEY when there is none) or TELO_ERR_CRYPTO
 * (malformed or tampered text, or another key; errno EBADMSG), `out` then untouched. */
TELO_PLATFORM_API int TLIBCCryptSzDecrypt(const char *cipher, char *out, size_t outSize);

#ifdef __cplusplus
}
#endif

#endif /* TELO_PLATFORM_H */
