// Paths on the storage server: which share holds a file-system path, and whether a path lies
// in one of the platform's extended-attribute folders ("@eaDir").
//
// Every call is synchronous on the caller's thread and takes no lock. The functions are static
// members of Path (declared in path_util.h, which C++ cannot split); ConfigPath, the string
// rules for share-rooted paths, is declared there too.
//
//   static std::string Path::getShareName(const std::string &path)
//     Asks the platform (TELOShareNamePathGet) which share holds `path` and returns the share's
//     name; the share's own path is not returned. The path is taken as given, not resolved.
//     Failure: "" after logging, at LOG_ERR from "path/path_telo",
//       "Error: getting share path of [<path>] failed[0x<code> <file>:<line>]"
//     with the platform error (TLIBCErrGet, TLIBCErrorGetFile, TLIBCErrorGetLine); errno is
//     what the platform left.
//
//   static bool Path::isInTeloEaDir(const std::string &path)
//     True when a component of `path` is exactly "@eaDir": "/s/@eaDir/f", "@eaDir" and
//     "/s/@eaDir" are inside; "/s/x@eaDir/f" and "/s/@eaDirX" are not;
//     "/s/@eaDir@eaDir/@eaDir" is (its last component). Pure: no logging, errno unchanged.
#ifndef TELOBACKUP_PATH_PATH_TELO_H
#define TELOBACKUP_PATH_PATH_TELO_H

#include "telobackup/path/path_util.h"

#endif
