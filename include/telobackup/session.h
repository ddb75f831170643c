// Sessions: private working directories that one process creates and others find again by a
// short id. A local session is a directory "sess.XXXXXX" in the session area
// /tmp/telobackup/session (mode 0700); a volume session is a directory "seln.XXXXXX" on the
// volume a filter chooses, with a symbolic link of the same form in the session area.
// Directories outlive the objects: only destroy() or destroyById() removes them.
//
// Every call is synchronous on the caller's thread and takes no in-process lock; naming a link
// after a name clash is serialised between processes by flock on "__sess__.lock" in the session
// area. Diagnostics go to the system log as "(pid) [err] session:line ...".
#ifndef TELOBACKUP_SESSION_H
#define TELOBACKUP_SESSION_H

#include <memory>
#include <string>

#include "telobackup/export.h"
#include "telobackup/temp_manager/volume_path_manager.h"

namespace TELO {
namespace Backup {

class TELO_EXPORT Session {
  public:
    Session();
    // Frees the object; the session directory stays.
    ~Session();
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;
    // Hands the binding over (the directory is untouched); the moved-from object is unbound and
    // usable, as a new one. Assignment drops this object's binding without removing anything.
    //     Session makeWorkArea() { Session s; s.create(); return s; }
    Session(Session &&other) noexcept;
    Session &operator=(Session &&other) noexcept;

    // Creates a local session and binds the object to it. Failure: false (the object stays
    // unbound, nothing is left on disk), after logging one of "session has already
    // existed[%s][%s]" (already bound), "failed to create temp directory [%s]" (the session area
    // cannot be made, see Path::createIpcTempPath) or "ScopedTempFolder failed[%s]".
    bool create();

    // Creates a session in the directory `filter` selects (VolumePathManager). A directory that
    // does not begin with "/tmp" gets a volume session: "seln.XXXXXX" there and a link in the
    // session area; one under /tmp a local session. When the link's name is taken, a fresh
    // "seln.XXXXXX" name is chosen under the lock and becomes the id. When no directory can be
    // chosen, "failed to getVolumePath()" is logged and the session is made relative to the
    // current directory ("seln.XXXXXX" there). Other failures log as create() does, or
    // "failed to create symlink[%s][%s]", "failed to create_sesslink[%s]", "ScopedTempFile
    // failed[%s]", "failed to open file[%s]", "failed to flock[%s]", "failed to unlock
    // flock[%s]".
    bool create(std::shared_ptr<FilterVolume> filter);

    // Binds the object to the existing session `id` and sets its access and modification times
    // to now. Failure: false, after logging "session has been loaded[%s][%s]" (already bound),
    // "failed to lstat session[%s]" (missing, or not a directory), "failed to access
    // session[%s]" (not writable and searchable) or "failed to touch session[%s]"; an empty id
    // gives false silently and a malformed one is refused as getPathById describes.
    bool load(const std::string &id);

    // Removes the bound session's directory tree and, for a volume session, its link (a link
    // already gone is no failure), then unbinds the object, also after a failure. An unbound
    // object gives true. Failure: false after "failed to remove session[%s]" or "failed to
    // unlink session link[%s]".
    bool destroy();

    // destroy() for a session given by id, without an object. An empty id logs "invalid
    // parameter, empty session id" and gives false.
    static bool destroyById(const std::string &id);

    // The directory of session `id`: session-area/id for a local id (not checked for
    // existence), the target of the link for an id beginning with "seln". "" when the link
    // cannot be read (logged as "failed to read link[%s]" unless it does not exist), for an
    // empty id ("invalid parameter, empty session id") and for an id that is not a plain name
    // ("/" inside, "." or ".."; logged as "invalid session id[%s]", errno EINVAL), so that no id
    // can reach outside the session area.
    static std::string getPathById(const std::string &id);

    // The bound session's id and real directory; "" when unbound.
    std::string getId() const;
    std::string getPath() const;

  private:
    struct Impl;
    Impl &record();
    std::unique_ptr<Impl> d_;
};

}  // namespace Backup
}  // namespace TELO

#endif
