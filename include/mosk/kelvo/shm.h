// Shared-memory topics: System V segments found by topic name, with process-shared locks and a
// condition in a fixed header.
//
// A topic is a System V segment whose key is ftok("/tmp/topics/<topic>/shmkey", 1); the key
// file and its directories are created on first use. Every segment starts with a 372-byte
// header (MEM_HDR_SIZE) holding a magic word (0x1234 once initialised), bookkeeping, two
// process-shared mutexes (lock_mutex, cond_mutex), a condition (cond) and a read-write lock
// (rwlock). Callers only ever hold the data pointer, the attach address + MEM_HDR_SIZE; every
// function finds the header 372 bytes before it.
//
// Connecting: shm_connect_by_topic/shm_connect_by_key create the segment if missing (owner
// read-write only) and the first connector initialises it: synchronisation objects, page
// pre-touch, then magic, then zeroes the data area. Later connectors return at once without
// touching anything. A size different from the existing segment's aborts. Two processes that
// connect to a new segment at the same moment may both initialise it: create topics during
// set-up, from one process, before the others attach.
//
// Kept: things that surprise first-time users, all intended:
//  - The data area starts 372 bytes into a page-aligned segment: it is aligned to 4 bytes only.
//    Put only 4-byte-aligned types there, or copy 8-byte fields in and out with memcpy.
//  - Topic names are at most 44 bytes: a longer one aborts the process (buffer-overflow check).
//  - A segment identifier of 0 counts as a failure and aborts.
//  - shm_disconnect never detaches; it returns -1. Segments stay attached until exit.
//  - shm_lock takes lock_mutex and nothing ever releases it: once taken, shm_lock blocks and
//    shm_trylock returns -1 for the life of the segment, in every process. Use the read-write
//    lock (shm_rdlock/shm_wrlock with shm_unlock/shm_wrunlock) for real exclusion.
//  - shm_unlock always releases the read-write lock (a read or a write hold), never lock_mutex.
//  - shm_wrunlock refuses (-2) when owner_tid is not the caller: owner_tid is the last thread
//    that took any lock, so a reader that came in after the writer makes the writer's
//    shm_wrunlock fail. shm_unlock releases without that check.
//  - shm_wait waits once: any wake-up, a spurious one too, ends it. Check your own condition.
//  - A notification is not stored: shm_notify with no waiter does nothing, and a notify that
//    finds cond_mutex busy (a waiter just entering its wait) is lost; its result says so.
//  - shm_timedwait prints "pthread_mutex_trylock: %d" or "pthread_cond_timedwait: %d" on
//    standard output when it cannot wait or times out.
//  - The objects are not robust: a process that dies holding a lock leaves it held.
//  - shm_rm_by_topic removes the segment even while attached (processes still attached keep the
//    memory but see magic 0, and every lock function returns -1 for them); it removes the key
//    file only when the descriptor it opens on it is 0, so in practice the key file stays.
//    shm_rm_by_key refuses (-2) a segment that is still attached.
//  - shm_rm_by_topic does not return while any thread of any process is inside shm_wait or
//    shm_timedwait on the segment: destroying the condition waits for its waiters to leave. It
//    clears magic first, so no new wait starts; wake the waiters already inside (shm_timedwait
//    ends by itself; for shm_wait, broadcast on the condition until the removal returns, as
//    kelvo-topics rm does), or stop them before removing. A process killed while inside
//    shm_wait or shm_timedwait never leaves: shm_rm_by_topic then never returns (the magic is
//    cleared and the mutexes destroyed, but the segment is not marked for removal and the key
//    file stays). Remove such a topic with `kelvo-topics rm --force NAME`, which marks the
//    segment for removal and deletes the key file without touching the condition (or by hand:
//    `ipcrm -m <SHMID>` from `kelvo-topics`, then delete /tmp/topics/NAME/shmkey).
//
// Results: each declaration below says what it returns and how it fails. In short: the connect
// functions return a pointer and abort on failure; the others return 0 on success and -1 when
// the segment is not usable (its magic is not 0x1234: removed, or never initialised);
// shm_rdlock, shm_wrlock, shm_timedwait and shm_notify pass the pthread function's error number
// on (shm_trylock returns -1 instead); shm_wrunlock and shm_rm_by_key have a -2 of their own. A
// null `mem` or `topic` aborts everywhere ("Assertion error: mem is not NULL (src/shm:<line>)",
// or topic_name).
//
// gettid(): the unit's kernel-thread-id helper, exported under the mangled name of a global
// `gettid()` returning an unsigned 32-bit value. The C library (glibc 2.30 and later, with
// _GNU_SOURCE, which g++ always defines) declares its own `pid_t gettid(void)`; both cannot be
// declared in one translation unit, so this header declares the global `gettid()` only where
// the C library does not, and always declares `shm_gettid()`, the same function under a name
// that cannot collide. Both return the same value as the gettid system call. The library keeps
// the id per thread (one system call per thread, not per lock) and forgets it in the child
// after fork(), so a forked child gets its own id. A child made by vfork() or a raw clone()
// without a new thread of the C library must not call the lock functions.
//
// Threading: every function may be called from any thread of any process that has the segment
// attached. Connect and remove are for set-up and tear-down (they create files and make system
// calls). shm_lock and shm_wait block without limit; every other lock, unlock and notify
// function only tries and never waits on another process, so a real-time loop may call them.
#ifndef MOSK_KELVO_SHM_H_
#define MOSK_KELVO_SHM_H_

#include <sys/ipc.h>  // key_t, and the C library's feature macros tested below

#include <cstddef>
#include <cstdint>

#include "mosk/kelvo/export.h"

// Size of the segment header that precedes every data area.
#define MEM_HDR_SIZE 372

extern "C" {

// Attaches the segment of `key` holding `size` data bytes, creating it (owner read-write) and
// initialising it if it is missing. Returns the data pointer. Aborts (assertion) if shmget
// fails or gives the identifier 0, or if the segment exists with another size.
KELVO_EXPORT void* shm_connect_by_key(key_t key, size_t size);
// shm_connect_by_key on the key of `topic` (its key file and directories created first), then
// stores the name in the header. Returns the data pointer, or null if the segment is not usable
// right after the connect (removed in between). Aborts on a null topic, on a name over 44 bytes
// (with the C library's buffer-overflow report), on a key file that cannot be created, and on
// the failures of shm_connect_by_key.
KELVO_EXPORT void* shm_connect_by_topic(const char* topic, size_t size);
// The number of attachments of `topic`'s segment, or 0 after "tlx_shm_nattch: shmctl failed:
// <reason>" on standard error when there is no such segment (its key file is created anyway).
KELVO_EXPORT uint64_t shm_nattch_by_topic(const char* topic);
// Clears magic, destroys the locks and the condition (waiting for the waiters inside shm_wait or
// shm_timedwait, see above) and marks the segment for removal; the key file stays (see above).
// Returns 0, or -1 after "shm_rm_by_topic: shmctl failed: <reason>" on standard error when there is
// no such segment.
KELVO_EXPORT int shm_rm_by_topic(const char* topic);
// Clears magic and marks the segment of `key` for removal. Returns 0; -2 while any process is
// attached (nothing done); -1 after "shm_rm_by_topic: shmctl failed: <reason>" on standard error
// when there is no such segment.
KELVO_EXPORT int shm_rm_by_key(key_t key);
// Detaches nothing. Returns -1.
KELVO_EXPORT int shm_disconnect(void* mem);

// Takes lock_mutex if it is free, which nothing ever releases (see above). Returns 0; -1 if it
// is held (by anyone, the caller too) or the segment is not usable. Never waits.
KELVO_EXPORT int shm_trylock(void* mem);
// Takes the read-write lock for reading if no writer holds it. Returns 0; -1 if not usable;
// otherwise pthread_rwlock_tryrdlock's error number (EBUSY: a writer holds it). Never waits.
KELVO_EXPORT int shm_rdlock(void* mem);
// Takes the read-write lock for writing if nobody holds it. Returns 0; -1 if not usable;
// otherwise pthread_rwlock_trywrlock's error number (EBUSY: it is held). Never waits.
KELVO_EXPORT int shm_wrlock(void* mem);
// Releases the read-write lock, a read or a write hold, without checking who holds it. Returns
// 0; -1 if not usable.
KELVO_EXPORT int shm_unlock(void* mem);
// Releases the read-write lock if owner_tid is the caller (the last thread that took any lock of
// the segment). Returns 0; -2 if it is another thread (nothing released); -1 if not usable.
KELVO_EXPORT int shm_wrunlock(void* mem);
// Waits on the condition, without limit, until one wake-up (a spurious one too). Returns 0;
// -1 if not usable (then it does not wait).
KELVO_EXPORT int shm_wait(void* mem);
// Waits on the condition for at most `timeout` microseconds; 0 or less times out at once (the
// deadline has passed already) unless a notification comes in the instant it starts. Returns 0
// when notified; -1 if not usable; when cond_mutex is busy, pthread_mutex_trylock's error number
// (EBUSY) after "pthread_mutex_trylock: <number>" on standard output, without waiting;
// ETIMEDOUT (or another error number) after "pthread_cond_timedwait: <number>" on standard
// output.
KELVO_EXPORT int shm_timedwait(void* mem, int timeout);
// Wakes every waiter of the condition (none: nothing is stored). Returns 0; -1 if not usable;
// pthread_mutex_trylock's error number (EBUSY) when cond_mutex is busy: the notification is
// lost. Never waits.
KELVO_EXPORT int shm_notify(void* mem);

}  // extern "C"

// Takes lock_mutex, waiting without limit; nothing ever releases it (see above). Returns 0; -1 if
// not usable. A C++ symbol.
KELVO_EXPORT int shm_lock(void* mem);

// The calling thread's kernel thread id, as the gettid system call returns it (cached per
// thread, renewed after fork). Same function as the global gettid() below.
KELVO_EXPORT uint32_t shm_gettid() __asm__("_Z6gettidv");

// glibc 2.30 and later declare `pid_t gettid(void)` in <unistd.h> under _GNU_SOURCE; a second
// global gettid() with another return type cannot be declared beside it.
#if defined(__GLIBC__) && defined(__USE_GNU)
#if !__GLIBC_PREREQ(2, 30)
#define KELVO_SHM_DECLARES_GETTID 1
#endif
#else
#define KELVO_SHM_DECLARES_GETTID 1
#endif
#ifdef KELVO_SHM_DECLARES_GETTID
KELVO_EXPORT uint32_t gettid();
#endif

#endif  // MOSK_KELVO_SHM_H_
