// The extended attributes that say who may read a file and that its users set on it: the POSIX
// access ACL and the user.* attributes, read from one file and written to another through their
// descriptors, so that a rewrite keeps them.
#ifndef TELO_SRC_INTERNAL_ACCESS_ATTRIBUTES_H
#define TELO_SRC_INTERNAL_ACCESS_ATTRIBUTES_H

#include <string>
#include <vector>

namespace TELO {
namespace Backup {
namespace internal {

struct ExtendedAttribute {
    std::string name;
    std::string value;
};

struct AccessAttributes {
    std::vector<ExtendedAttribute> user;  // user.*
    bool hasAcl = false;                  // system.posix_acl_access
    std::string acl;
};

// Reads the attributes of what `fd` holds (an O_PATH descriptor too, through /proc). A file
// system without extended attributes has none. False with errno when they cannot be read.
bool readAccessAttributes(int fd, AccessAttributes &out);

// Sets the user.* attributes of `attributes` on what `fd` holds. False with errno.
bool writeUserAttributes(int fd, const AccessAttributes &attributes);

// Gives what `fd` holds the access ACL of `attributes`, or none when it has none (an ACL
// inherited from a default ACL of the directory is removed). False with errno.
bool writeAcl(int fd, const AccessAttributes &attributes);

}  // namespace internal
}  // namespace Backup
}  // namespace TELO

#endif
