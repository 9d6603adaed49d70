// What a watched file descriptor is watched for, and what is ready on it:
// shared by KelLoop::watchFd and dispatch::Queue::watchFd.
#ifndef KEL_EVENTS_KEL_FD_H
#define KEL_EVENTS_KEL_FD_H

// Interest is KEL_FD_IN and/or KEL_FD_OUT; errors and hang-ups are always
// reported (KEL_FD_ERR and KEL_FD_HUP in an interest are ignored).
enum : unsigned { KEL_FD_IN = 1, KEL_FD_OUT = 2, KEL_FD_ERR = 4, KEL_FD_HUP = 8 };

// Called on the watching loop's thread with the descriptor and the KEL_FD_*
// bits that are ready, and the argument given at registration.
typedef void (*KelFdHandler)(int fd, unsigned ready, void* arg);

#endif
