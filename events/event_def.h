// Event records and signal numbers of the main loop.
//
// Every event begins with a QEvt header. Events live in blocks of the fixed
// pools (see kel_pool.h), travel through the loop's KelQueue and go home
// through Kel::gc when their last reference ends (see kel_port.h).
//
// Ownership: an event belongs to whoever allocated it until it is posted; the
// queue's reference then passes to the thread that takes it out.
#ifndef KEL_EVENTS_EVENT_DEF_H
#define KEL_EVENTS_EVENT_DEF_H

#include <stdint.h>

typedef uint16_t QSignal;
typedef uint32_t QMPoolSize;
typedef uint32_t QMPoolCtr;
typedef uint_fast32_t QEQueueCtr;

// Signal numbers. 1 to 7 are handled by the loop itself; everything above
// SIG_INNER_PROC belongs to the application and goes to procSubMsg.
enum {
    SIG_INVALID = 0,
    SIG_TIMER_ADD = 1,
    SIG_STATE_DELAY_EVENT = 2,
    SIG_SYSTEM_POWEROFF = 3,
    SIG_SYS_SIGNAL_INT = 4,
    SIG_SYS_ERROR_OCCUR = 5,
    SIG_SYS_USER_SIGNAL = 6,
    SIG_EVENT_LOOP_EXIT = 7,
    SIG_INNER_PROC = 8,
    SIG_IPC_NOTIFY_HANDLER_ATTACH = 9,
    SIG_IPC_CONNECT_SERVICE_FAILED = 10,
    SIG_IPC_CLIENT_CMD_CALL_FAILED = 11,
    SIG_IPC_CLIENT_CMD_CALL_TIMEOUT = 12,
    SIG_IPC_CLIENT_NEW_ATTACH = 13,
    SIG_INNER_MAX = 14,
};

// Header of every event.
struct QEvt {
    QSignal sig;      // signal number
    uint8_t poolId_;  // 0: from no pool; otherwise 1 + index of its pool in Kel::Kel_pool_
    uint8_t refCtr_;  // references; 0 from allocation until the first post

    QEvt() : sig(0), poolId_(0), refCtr_(0) {}
    // A record of the application's own (a static or stack event): it comes
    // from no pool, so posting it counts no reference and Kel::gc refuses it.
    explicit QEvt(QSignal s) : sig(s), poolId_(0), refCtr_(0) {}
};

// Commands and application events.
struct GeneralQEvt : QEvt {
    long message;   // application's message; the OS signal for SIG_SYS_USER_SIGNAL
    long wParam;    // first argument of KelLoop::broadcast
    long lParam;    // second argument of KelLoop::broadcast
    void* pHander;  // application's pointer; never read by the framework

    GeneralQEvt() : message(0), wParam(0), lParam(0), pHander(nullptr) {}
};

// Events that drive the state machine.
struct StateQEvt : QEvt {
    long stateMsg;  // message number the states look at; key of held-back events
    long msgId;
    long wParam;
    long lParam;
    void* pHander;

    StateQEvt() : stateMsg(0), msgId(0), wParam(0), lParam(0), pHander(nullptr) {}
};

static_assert(sizeof(GeneralQEvt) < sizeof(StateQEvt),
              "a general event must fit a smaller block than a state event");
#if defined(__arm__)
static_assert(sizeof(long) == 4 && sizeof(void*) == 4, "the ARM target is a 32-bit platform");
static_assert(sizeof(GeneralQEvt) == 20 && sizeof(StateQEvt) == 24, "event layout on the target");
#endif

#endif
