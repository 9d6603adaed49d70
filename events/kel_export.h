// Symbol visibility of the kel library: only what is marked KEL_API is
// exported from libkel.so; everything else stays inside it.
#ifndef KEL_EVENTS_KEL_EXPORT_H
#define KEL_EVENTS_KEL_EXPORT_H

#define KEL_API __attribute__((visibility("default")))

#endif
