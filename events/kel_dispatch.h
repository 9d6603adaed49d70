// Serial work queues and the rendezvous of two threads, as C entry points.
//
// A queue runs the functions handed to it one at a time, in the order they
// were queued, on a pooled thread (see daemon_thread.h) that it borrows only
// while it has work: an idle queue costs no thread, so an application may
// hold many. Consecutive works may run on different pooled threads, but
// never overlap. Works of different queues run in parallel.
//
// Thread rules: every entry point may be called from any thread, also from a
// work (of the same queue or another one), concurrently on the same queue.
// Works run with no lock of the framework held; they may queue further
// works and take or drop references.
//
// Lifetime of a queue: a handle is counted. kel_dispatch_queue_create gives
// one reference, kel_dispatch_queue_ref adds one, and each
// kel_dispatch_queue_destory drops one. While the queue has queued or running
// work it holds one more reference of its own, which the pass that empties
// the queue drops when it is completely done with the object. Dropping the
// last handle is therefore safe at any time, also right after queuing work:
// the queued works still run, and the queue is freed after the last of them.
// A work must not use a handle after dropping it.
//
// Limits:
// - `func` must not be null and must not throw.
// - A work that blocks holds up every later work of its queue and keeps its
//   pooled thread.
// - If no pooled thread can be created (see DaemonThread::start), the work
//   stays queued and the queue, with its work, is never freed.
// - If binding a pooled thread runs out of memory, std::bad_alloc reaches
//   the caller of kel_dispatch_async_t, but the work stays queued: the next
//   call on that queue binds a thread again and the work runs then. A
//   failure of the node's own allocation queues nothing.
// - fork(): in the child every queue accepts and runs new work. Work that
//   was queued or running at the fork is the parent's: the child drops it
//   (it never runs there, its nodes are reused), except that a work which
//   itself called fork() returns into its pass in the child, which then
//   ends as the queue is empty.
// - Work queued without a queue (null) goes to the process's default queue.
//   It is made on first use, at library load at the latest, so static
//   initializers may queue work too; the thread pool is made before it and
//   destroyed after it. At process exit its handle is dropped; work still queued then runs only
//   as long as the process lives, and null-queue work queued after main()
//   has returned is dropped with a warning.
#ifndef KEL_EVENTS_KEL_DISPATCH_H
#define KEL_EVENTS_KEL_DISPATCH_H

#include <stddef.h>
#include <stdint.h>

#include "kel_export.h"

extern "C" {

typedef void (*DispatchFunc)(void*);
// Opaque handle of a serial work queue.
typedef void DispathQueue;

// A new queue with one reference and no thread.
KEL_API DispathQueue* kel_dispatch_queue_create();
// Drops one reference; the last one frees the queue once its work is done.
// A null queue is ignored.
KEL_API void kel_dispatch_queue_destory(DispathQueue* queue);
// Adds one reference. `queue` must not be null.
KEL_API void kel_dispatch_queue_ref(DispathQueue* queue);
// Queues `func(ctx)` on `queue` (the default queue if null) and returns
// without waiting for it.
KEL_API void kel_dispatch_async_t(DispathQueue* queue, DispatchFunc func, void* ctx);

// Waits until every work queued on `queue` (the default queue if null)
// before the call has run, or was dropped by kel_dispatch_queue_cancel, and
// returns 0. Returns at once on an idle queue. From a work of the same queue
// it would wait for itself: it returns -1 at once and logs "flush from a
// work of its own queue refused" (LOG_WARN). Work queued during the wait is
// not waited for. The queue stays alive for the length of the call. A queue
// whose work cannot start (no pooled thread, see Limits) keeps it waiting.
KEL_API int kel_dispatch_queue_flush(DispathQueue* queue);
// Drops the works queued on `queue` (the default queue if null: everybody's)
// that have not started, and returns how many. A work already running
// finishes; from inside a work it drops the works behind the caller.
// Dropped works never run; their `ctx` stays the caller's to free.
KEL_API size_t kel_dispatch_queue_cancel(DispathQueue* queue);

// Meets another thread at `tag` and swaps one word with it: the first caller
// with a tag blocks; the next caller with the same tag gives it `value`,
// takes the first caller's value, and both return what the other passed.
// Pairs of one tag form in order of arrival. Any tag is allowed, null
// included; tags are compared, never dereferenced. No time-out: a caller
// without a partner blocks until one comes. Allocates nothing.
KEL_API intptr_t kel_rendezvous(void* tag, intptr_t value);
}

#endif
