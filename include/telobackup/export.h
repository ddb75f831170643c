// Symbol visibility of the library's interface: everything else is hidden.
#ifndef TELOBACKUP_EXPORT_H
#define TELOBACKUP_EXPORT_H

#if defined(__GNUC__)
#define TELO_EXPORT __attribute__((visibility("default")))
#else
#define TELO_EXPORT
#endif

#endif
