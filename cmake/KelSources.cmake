# The framework's sources, layer by layer: the map of the library. The order
# is the order of the layers, each after the ones it uses; the thread pool's
# unit comes before the work queues', whose default queue must be destroyed
# ahead of the pool at exit. Included by the top-level and the fuzz builds.
set(KEL_SOURCES
  # event core: assertions, counters, mutex, pools and queue, the glue
  events/common_log.cpp
  events/kel_atomic.cpp
  events/kel_mutex.cpp
  events/kel_set.cpp
  events/kel_evt_pool_queue.cpp
  events/kel_port.cpp
  # descriptors watched by the main loop and by dispatch queues
  events/kel_watch.cpp
  # main loop, timers, signals
  events/kel_timer.cpp
  events/app_timer.cpp
  events/kel_loop.cpp
  events/kel_signal.cpp
  # state machine
  events/kel_state.cpp
  events/state_list.cpp
  events/state_mache.cpp
  # thread services: threads of their own, the pool, work queues
  events/kel_thread.cpp
  events/daemon_thread.cpp
  events/kel_dispatch.cpp
  # dispatch queues: node store, queue and loop, timers
  events/dispatch_nodes.cpp
  events/dispatch_process.cpp
  events/dispatch_timer.cpp
  # statistics over the pools of all of the above
  events/kel_stats.cpp)
