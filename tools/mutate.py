#!/usr/bin/env python3
"""Mutation check: does the suite notice a plausible fault in the library?

Each mutant is one small fault: (name, file, exact original text, replacement).
The tool copies the tracked tree to a scratch directory, builds it once
(Release, tests only), then for each mutant puts the fault in, rebuilds
incrementally, runs ctest (without the soak cases) and restores the file.

  killed          a test failed (or timed out, marked so): the suite caught
                  the fault
  survived        every test passed: a missing test or an equivalent mutant
  build-failed    the mutant does not compile; not counted either way (a
                  test binary that fails to list its cases at build time
                  counts as killed)
  not-found       the original text is no longer in the file (the library
                  changed under the mutant); not counted either way

Usage: tools/mutate.py [--only NAME[,NAME...]] [-j N] [--timeout S]
                       [--scratch DIR] [--list]
"""
import argparse
import os
import re
import shutil
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))

# (name, file, original, replacement). The original must occur exactly once.
MUTANTS = [
    # util/
    ("node-add-order", "util/list_node.h",
     "        next->prev = item;\n        next = item;",
     "        next = item;\n        next->prev = item;"),
    ("node-empty-test", "util/list_node.h",
     "bool isEmpty() const { return next == this; }",
     "bool isEmpty() const { return next == prev; }"),
    ("table-pop-oldest", "util/list_table.h",
     "ListNode* n = mRoot.getLast();", "ListNode* n = mRoot.prev;"),
    # log/
    ("log-level-inclusive", "log/msg_logger.cpp",
     "if (level < _g_level.load(std::memory_order_relaxed)) return;",
     "if (level <= _g_level.load(std::memory_order_relaxed)) return;"),
    ("log-conf-value", "log/msg_logger.cpp",
     "setLevelFrom(\"level=\", p + 1);", "setLevelFrom(\"level=\", p);"),
    ("log-zero-pad-precision", "log/msg_logger.cpp",
     "if (sp.zero && !sp.left && sp.prec < 0 && sp.width > len)",
     "if (sp.zero && !sp.left && sp.width > len)"),
    # events/kel_evt_pool_queue.cpp
    ("pool-get-margin", "events/kel_evt_pool_queue.cpp",
     "if (nFree > margin) {\n        QFreeBlock*", "if (nFree >= margin) {\n        QFreeBlock*"),
    ("pool-put-overfull", "events/kel_evt_pool_queue.cpp",
     "KEL_ASSERT(nFree < m_nTot);", "KEL_ASSERT(nFree <= m_nTot);"),
    ("queue-post-no-ref", "events/kel_evt_pool_queue.cpp",
     "    if (ev->poolId_ != 0) ++ev->refCtr_;\n    setFreeLower(nFree - 1);",
     "    static_cast<void>(ev);\n    setFreeLower(nFree - 1);"),
    ("queue-head-wrap", "events/kel_evt_pool_queue.cpp",
     "if (head == 0) head = m_end;", "if (head == 0) head = m_end - 1;"),
    ("queue-lifo-victim", "events/kel_evt_pool_queue.cpp",
     "for (QEQueueCtr k = entries; k-- > 0;) {", "for (QEQueueCtr k = 0; k < entries; ++k) {"),
    ("queue-lifo-victim-command", "events/kel_evt_pool_queue.cpp",
     "        if (victim->sig <= SIG_INNER_PROC) continue;\n", ""),
    ("queue-post-after-end", "events/kel_evt_pool_queue.cpp",
     "        if (closedLocked()) return false;\n        QEQueueCtr nFree = m_nFree.load(std::memory_order_relaxed);\n"
     "        if (nFree > margin) {",
     "        QEQueueCtr nFree = m_nFree.load(std::memory_order_relaxed);\n        if (nFree > margin) {"),
    ("queue-get-ring-bound", "events/kel_evt_pool_queue.cpp",
     "if (nFree <= m_end) {", "if (nFree < m_end) {"),
    ("queue-post-margin", "events/kel_evt_pool_queue.cpp",
     "if (nFree > margin) {\n            postLocked", "if (nFree >= margin) {\n            postLocked"),
    ("queue-lifo-victim-kept", "events/kel_evt_pool_queue.cpp",
     "if (victim->poolId_ != 0) Kel::gc(victim);", ""),
    # events/kel_port.cpp
    ("gc-frees-shared", "events/kel_port.cpp", "if (ev->refCtr_ > 1) {", "if (ev->refCtr_ > 2) {"),
    ("newref-no-count", "events/kel_port.cpp",
     "if (e->poolId_ != 0) ++const_cast<QEvt*>(e)->refCtr_;", ""),
    ("newx-stale-ref", "events/kel_port.cpp", "        e->refCtr_ = 0;\n", ""),
    ("spare-mutex-no-recheck", "events/kel_port.cpp",
     "        if (!_g_alive.v.load(std::memory_order_seq_cst)) {\n            // Holders",
     "        {\n            // Holders"),
    ("signal-pending-inverted", "events/kel_port.cpp",
     "if (how == kAwake) return;  // already being woken",
     "if (how != kAwake) return;  // already being woken"),
    # events/kel_timer.cpp, app_timer.cpp
    ("timer-tie-first", "events/kel_timer.cpp",
     "return before(armed.time, listed.time);", "return !before(listed.time, armed.time);"),
    ("timer-restart-once", "events/kel_timer.cpp",
     "if (proc->isRepeat() || proc->isReStart()) {", "if (proc->isRepeat()) {"),
    ("timer-node-not-freed", "events/kel_timer.cpp",
     "            proc->setRunning(false);\n            Kel::gc(timeout);",
     "            proc->setRunning(false);"),
    ("timer-pending-not-joined", "events/kel_timer.cpp",
     "        while (!t->pending.isEmpty()) {\n            NodeTimer* n = t->pending.next;\n"
     "            n->del();\n            t->insert(n);\n        }\n", ""),
    ("timer-cancel-keeps-node", "events/kel_timer.cpp",
     "    takeOff(proc);\n    // A firing", "    // A firing"),
    ("atimer-restart-order", "events/kel_timer.cpp",
     "    takeOff(timer->proc, timer);\n    _addTimer(timer);",
     "    _addTimer(timer);\n    takeOff(timer->proc, timer);"),
    ("atimer-exec-stopped", "events/app_timer.cpp",
     "if (isRunning() && mHandler != nullptr)", "if (mHandler != nullptr)"),
    # events/kel_loop.cpp
    ("loop-post-no-wake", "events/kel_loop.cpp",
     "    bool ret = queue->post(e, 0);\n    // The loop's own thread looks at the queue again before it sleeps.\n"
     "    if (!isLooping()) Kel::signal();\n",
     "    bool ret = queue->post(e, 0);\n"),
    ("loop-refused-cmd-kept", "events/kel_loop.cpp", "if (!ret) Kel::gc(e);", ""),
    ("loop-state-fifo", "events/kel_loop.cpp",
     "    bool posted = queue->postLIFO(batch + first, n);",
     "    bool posted = true;\n"
     "    for (uint_fast16_t i = 0; i < n; ++i) posted = queue->post(batch[first + i], 0) && posted;"),
    ("loop-timer-no-ref", "events/kel_loop.cpp",
     "            Kel::newRef_(evt);  // the list keeps the node after this turn's gc\n", ""),
    ("loop-recycle-skipped", "events/kel_loop.cpp",
     "void KelLoop::recycleEvent(const QEvt* evt) { Kel::gc(evt); }",
     "void KelLoop::recycleEvent(const QEvt* evt) { static_cast<void>(evt); }"),
    ("signal-user-value", "events/kel_signal.cpp", "                e->lParam = r.value;\n", ""),
    # events/state_list.cpp, state_mache.cpp, kel_state.cpp
    ("statelist-dedupe-last", "events/state_list.cpp",
     "for (int i = 0; i < ref; ++i) {", "for (int i = 0; i < ref - 1; ++i) {"),
    ("history-move-to-top", "events/state_mache.cpp",
     "for (int j = i; j < mRef; ++j) mStList[j] = mStList[j + 1];",
     "for (int j = i; j < mRef - 1; ++j) mStList[j] = mStList[j + 1];"),
    ("machine-switch-no-history", "events/state_mache.cpp",
     "        mSts->push(st);\n        mCurState = st;\n    } else {", "        mCurState = st;\n    } else {"),
    ("machine-exit-retry", "events/state_mache.cpp",
     "if (curExitState != 0) {\n                KEL_LOG", "if (curExitState == 0) {\n                KEL_LOG"),
    ("machine-fallback-no-entry", "events/state_mache.cpp",
     "    mStates[mInitState].state->entry(evt);\n    mCurState = mInitState;",
     "    mCurState = mInitState;"),
    ("machine-heldback-lost", "events/state_mache.cpp",
     "    mIsInit = true;\n    mEvents->process();", "    mIsInit = true;"),
    ("state-default-entry-refuses", "events/kel_state.cpp",
     "\"Default:KelState::entry\");\n    return 0;", "\"Default:KelState::entry\");\n    return 1;"),
    # events/kel_set.cpp
    ("set-bit-shift", "events/kel_set.cpp", "uint32_t{1} << (n - 1)", "uint32_t{1} << (n & 31)"),
    ("set-remove-toggles", "events/kel_set.cpp", "m_bits & ~bitOf(n)", "m_bits ^ bitOf(n)"),
    # events/kel_dispatch.cpp
    ("work-no-start", "events/kel_dispatch.cpp", "    if (wasEmpty || mStartOwed) startPass();",
     "    static_cast<void>(wasEmpty);\n    if (mStartOwed) startPass();"),
    ("work-owed-start-dropped", "events/kel_dispatch.cpp", "if (wasEmpty || mStartOwed) startPass();",
     "if (wasEmpty) startPass();"),
    ("work-tail-stale", "events/kel_dispatch.cpp", "if (head == nullptr) tail = &head;", ""),
    ("work-unref-leak", "events/kel_dispatch.cpp", "return --mRefs <= 0;", "return --mRefs < 0;"),
    ("rendezvous-one-way", "events/kel_dispatch.cpp", "            *other->value = value;\n", ""),
    # events/daemon_thread.cpp
    ("pool-free-bound", "events/daemon_thread.cpp",
     "if (th->mFree || th->mParent.load(std::memory_order_relaxed) != nullptr) return;",
     "if (th->mFree) return;"),
    ("pool-keeps-binding", "events/daemon_thread.cpp",
     "            if (dPtr != nullptr) dPtr->setParent(nullptr);\n            dPtr = nullptr;\n        }\n"
     "        mChildRunning",
     "            dPtr = nullptr;\n        }\n        mChildRunning"),
    ("pool-no-recreate", "events/daemon_thread.cpp",
     "        thread->checkThread();\n    }\n    thread->start();", "    }\n    thread->start();"),
    # events/kel_thread.cpp, kel_mutex.cpp, kel_atomic.h, common_log.cpp
    ("thread-join-detached", "events/kel_thread.cpp",
     "        mJoin = true;\n        pthread_mutex_unlock(&mMutex);",
     "        pthread_mutex_unlock(&mMutex);"),
    ("mutex-no-unlock", "events/kel_mutex.cpp",
     "void KelMutex::unlock() { pthread_mutex_unlock(&mMutex); }", "void KelMutex::unlock() {}"),
    ("atomic-dec-old-value", "events/kel_atomic.h",
     "T dec() { return __atomic_sub_fetch(&value, 1, __ATOMIC_SEQ_CST); }",
     "T dec() { return __atomic_fetch_sub(&value, 1, __ATOMIC_SEQ_CST); }"),
    ("assert-text-path", "events/common_log.cpp", "basename(path), line", "file, line"),
    # events/dispatch_*.{h,cpp}
    ("dq-timer-tie-first", "events/dispatch_private.h",
     "return listed.tiggerTime <= armed.tiggerTime;", "return listed.tiggerTime < armed.tiggerTime;"),
    ("dq-firing-head-passed", "events/dispatch_timer.cpp",
     "    if (timerProc && p != nullptr) {\n        prev = p;\n        p = nextTimer(p);\n    }\n"
     "    while (p != nullptr && firesBefore",
     "    while (p != nullptr && firesBefore"),
    ("dq-cancel-no-recycle", "events/dispatch_process.cpp",
     "            if (p->asynchronous) {\n                recycle(p);\n", "            if (p->asynchronous) {\n"),
    ("dq-autofree-leak", "events/dispatch_process.cpp",
     "    if (del) {\n        delete data;\n", "    if (del) {\n"),
    ("dq-item-node-leak", "events/dispatch_process.cpp", "        if (async) recycle(item);\n", ""),
    ("dq-merge-any-data", "events/dispatch_process.cpp",
     "if (p->mergeable && p->fn == fn && p->fn_data == fn_data) return;",
     "if (p->mergeable && p->fn == fn) return;"),
    ("dq-cache-count", "events/dispatch_nodes.cpp", "            ++mCount;\n", ""),
    ("nodes-no-reuse", "events/dispatch_nodes.cpp", "        if (mPools.empty()) {\n            Node blank;",
     "        {\n            Node blank;"),
    ("nodes-recycle-wrong-count", "events/dispatch_nodes.cpp", "        --mUsed;\n", "        --mCount;\n"),
    ("dq-loop-recycle-skipped", "events/dispatch_process.cpp",
     "            d->recycle(item);\n            OwnedMutex::Unlock unlocked(d->mtx);\n",
     "            OwnedMutex::Unlock unlocked(d->mtx);\n"),
    # watched descriptors, work-queue flush and cancel, statistics
    ("watch-removed-delivered", "events/kel_watch.cpp",
     "if (!s.used || s.serial != serial) continue;", "if (s.serial != serial) continue;"),
    ("watch-remove-no-wait", "events/kel_watch.cpp",
     "while (mRunning == slot && mRunningSerial == serial) pthread_cond_wait(&mDone, &mMutex);",
     "static_cast<void>(serial);"),
    ("loop-fd-wake-lost", "events/kel_port.cpp",
     "if (write(_g_wake_fd.load(std::memory_order_relaxed), &one, sizeof one) < 0) {",
     "if (one == 0) {"),
    ("dq-fd-wake-lost", "events/dispatch_private.h",
     "        if (s && fdSleep) {\n            watch->kick();",
     "        if (s && fdSleep) {\n            static_cast<void>(watch);"),
    ("work-flush-early", "events/kel_dispatch.cpp",
     "while ((mCurrent != nullptr ? mCurrentSeq : mLeft) < target)",
     "while (mLeft < target)"),
    ("work-cancel-uncounted", "events/kel_dispatch.cpp",
     "    mLeft += dropped;\n    wakeFlushers();", "    wakeFlushers();"),
    ("stats-pool-low-kept", "events/kel_evt_pool_queue.cpp",
     "if (nFree - 1 < m_nLow.load(std::memory_order_relaxed))",
     "if (nFree < m_nLow.load(std::memory_order_relaxed))"),
]


def sh(cmd, cwd, log=None, timeout=None):
    with open(log, "a") if log else open(os.devnull, "w") as out:
        return subprocess.run(cmd, cwd=cwd, stdout=out, stderr=subprocess.STDOUT, timeout=timeout).returncode


def copy_tree(scratch):
    src = os.path.join(scratch, "src")
    files = subprocess.run(["git", "ls-files", "-z"], cwd=ROOT, check=True,
                           stdout=subprocess.PIPE).stdout.decode().split("\0")
    for f in filter(None, files):
        s, d = os.path.join(ROOT, f), os.path.join(src, f)
        if not os.path.isfile(s):
            continue
        os.makedirs(os.path.dirname(d), exist_ok=True)
        # Unchanged files keep their time stamps, so the build stays incremental.
        if not os.path.exists(d) or open(s, "rb").read() != open(d, "rb").read():
            shutil.copy2(s, d)
    return src


def run_suite(cmd, build, log):
    """ctest's status and the first failing test ("name" or "name (timeout)")."""
    p = subprocess.run(cmd, cwd=build, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                       universal_newlines=True)
    with open(log, "a") as f:
        f.write(p.stdout)
    m = re.search(r"Test +#\d+: (\S+) \.*[^*\n]*\*\*\*(\w+)", p.stdout)
    by = "?" if not m else m.group(1) + (" (timeout)" if m.group(2) == "Timeout" else "")
    return p.returncode, by


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--only", help="comma-separated mutant names")
    ap.add_argument("-j", type=int, default=2, help="ctest parallelism")
    ap.add_argument("--timeout", type=int, default=60, help="per-test limit in seconds")
    ap.add_argument("--scratch", default="/tmp/kel-mutants-%d" % os.getuid())
    ap.add_argument("--list", action="store_true", help="print the mutants and exit")
    args = ap.parse_args()

    mutants = MUTANTS
    if args.only:
        want = set(args.only.split(","))
        unknown = want - {m[0] for m in MUTANTS}
        if unknown:
            sys.exit("unknown mutant: " + ", ".join(sorted(unknown)))
        mutants = [m for m in MUTANTS if m[0] in want]
    if args.list:
        for name, path, _, _ in mutants:
            print("%-28s %s" % (name, path))
        return 0

    os.makedirs(args.scratch, exist_ok=True)
    src = copy_tree(args.scratch)
    build = os.path.join(args.scratch, "build")
    log = os.path.join(args.scratch, "mutate.log")
    open(log, "w").close()
    jobs = str(args.j)
    build_cmd = ["cmake", "--build", build, "-j", jobs]
    ctest = ["ctest", "-LE", "soak", "-j", jobs, "--timeout", str(args.timeout), "--stop-on-failure"]

    print("scratch tree %s, log %s" % (src, log), flush=True)
    if sh(["cmake", "-S", src, "-B", build, "-DCMAKE_BUILD_TYPE=Release", "-DKEL_BUILD_BENCH=OFF",
           "-DKEL_BUILD_EXAMPLES=OFF"], src, log) != 0 or sh(build_cmd, src, log) != 0:
        sys.exit("the unmutated tree does not build; see " + log)
    rc, by = run_suite(ctest, build, log)
    if rc != 0:
        sys.exit("the unmutated suite fails (%s); see %s" % (by, log))

    results = []
    for name, path, orig, repl in mutants:
        target = os.path.join(src, path)
        text = open(target).read()
        n = text.count(orig)
        start = time.time()
        if n != 1:
            results.append((name, path, "not-found" if n == 0 else "ambiguous", "", 0))
            print("%-28s %s" % (name, results[-1][2]), flush=True)
            continue
        try:
            with open(target, "w") as f:
                f.write(text.replace(orig, repl))
            with open(log, "a") as f:
                f.write("\n===== mutant %s (%s)\n" % (name, path))
            mark = os.path.getsize(log)
            if sh(build_cmd, src, log) != 0:
                # Test binaries list their cases at build time: one that
                # cannot (it hangs or dies before main) is caught, not broken.
                with open(log) as f:
                    f.seek(mark)
                    out = f.read()
                m = "Error running test executable" in out and re.search(
                    r"\[tests/CMakeFiles/(\S+)\.dir/build\.make:\d+: tests/\S+\] Error", out)
                status, by = ("killed", m.group(1) + " (listing its cases)") if m else ("build-failed", "")
            else:
                rc, by = run_suite(ctest, build, log)
                status, by = ("killed", by) if rc != 0 else ("survived", "")
        finally:
            with open(target, "w") as f:
                f.write(text)
        results.append((name, path, status, by, time.time() - start))
        print("%-28s %-12s %s" % (name, status, by), flush=True)
    # Leave the scratch build matching the restored sources.
    sh(build_cmd, src, log)

    print()
    print("%-28s %-30s %-12s %s" % ("mutant", "file", "result", "killing test"))
    for name, path, status, by, secs in results:
        print("%-28s %-30s %-12s %s" % (name, path, status, by))
    counted = [r for r in results if r[2] in ("killed", "survived")]
    killed = sum(1 for r in counted if r[2] == "killed")
    print()
    print("killed %d of %d (%s); not counted: %d" % (
        killed, len(counted), "%.0f%%" % (100.0 * killed / len(counted)) if counted else "-",
        len(results) - len(counted)))
    for r in results:
        if r[2] == "survived":
            print("survivor: %s (%s)" % (r[0], r[1]))
    return 0 if killed == len(counted) else 1


if __name__ == "__main__":
    sys.exit(main())
