/* Preloaded into the conformance harness: counts calls that must never
 * happen on the audio thread (heap, locks, waits, sleeps, files, sockets,
 * mappings) while the harness marks the thread as audio, and counts live heap
 * blocks for the leak check. Forwards everything to glibc unchanged. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <pthread.h>
#include <semaphore.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

enum {
    K_MALLOC, K_FREE, K_MUTEX, K_RWLOCK, K_COND, K_SEM, K_SLEEP, K_MMAP, K_FILE, K_SOCKET, K_COUNT
};
static const char* const kNames[K_COUNT] = {"malloc", "free", "mutex", "rwlock", "condvar",
                                             "semaphore", "sleep", "mmap", "file", "socket"};
static uint64_t g_counts[K_COUNT];
static int64_t g_live;
static __thread int t_audio;

void qvd_rt_enter(void) { t_audio = 1; }
void qvd_rt_leave(void) { t_audio = 0; }
int qvd_rt_counts(uint64_t* counts, int capacity)
{
    for (int i = 0; i < K_COUNT && i < capacity; ++i)
        counts[i] = __atomic_load_n(&g_counts[i], __ATOMIC_RELAXED);
    return K_COUNT;
}
const char* qvd_rt_kind_name(int i) { return i >= 0 && i < K_COUNT ? kNames[i] : "?"; }
int64_t qvd_rt_live_blocks(void) { return __atomic_load_n(&g_live, __ATOMIC_RELAXED); }

static void hit(int kind)
{
    if (t_audio)
        __atomic_fetch_add(&g_counts[kind], 1, __ATOMIC_RELAXED);
}

extern void* __libc_malloc(size_t);
extern void* __libc_calloc(size_t, size_t);
extern void* __libc_realloc(void*, size_t);
extern void* __libc_memalign(size_t, size_t);
extern void __libc_free(void*);

void* malloc(size_t n)
{
    hit(K_MALLOC);
    void* p = __libc_malloc(n);
    if (p)
        __atomic_fetch_add(&g_live, 1, __ATOMIC_RELAXED);
    return p;
}
void* calloc(size_t a, size_t b)
{
    hit(K_MALLOC);
    void* p = __libc_calloc(a, b);
    if (p)
        __atomic_fetch_add(&g_live, 1, __ATOMIC_RELAXED);
    return p;
}
void* realloc(void* p, size_t n)
{
    hit(K_MALLOC);
    void* q = __libc_realloc(p, n);
    if (!p && q)
        __atomic_fetch_add(&g_live, 1, __ATOMIC_RELAXED);
    else if (p && !n && !q)
        __atomic_fetch_sub(&g_live, 1, __ATOMIC_RELAXED);
    return q;
}
void* memalign(size_t a, size_t n)
{
    hit(K_MALLOC);
    void* p = __libc_memalign(a, n);
    if (p)
        __atomic_fetch_add(&g_live, 1, __ATOMIC_RELAXED);
    return p;
}
void* aligned_alloc(size_t a, size_t n) { return memalign(a, n); }
int posix_memalign(void** out, size_t a, size_t n)
{
    void* p = memalign(a, n);
    if (!p)
        return 12; /* ENOMEM */
    *out = p;
    return 0;
}
void free(void* p)
{
    if (!p)
        return;
    hit(K_FREE);
    __atomic_fetch_sub(&g_live, 1, __ATOMIC_RELAXED);
    __libc_free(p);
}

#define FORWARD(ret, name, kind, params, args)                                                     \
    ret name params                                                                                \
    {                                                                                              \
        static ret(*real) params;                                                                  \
        if (!real)                                                                                 \
            real = (ret(*) params)dlsym(RTLD_NEXT, #name);                                         \
        hit(kind);                                                                                 \
        return real args;                                                                          \
    }

FORWARD(int, pthread_mutex_lock, K_MUTEX, (pthread_mutex_t * m), (m))
FORWARD(int, pthread_mutex_trylock, K_MUTEX, (pthread_mutex_t * m), (m))
FORWARD(int, pthread_rwlock_rdlock, K_RWLOCK, (pthread_rwlock_t * l), (l))
FORWARD(int, pthread_rwlock_wrlock, K_RWLOCK, (pthread_rwlock_t * l), (l))
FORWARD(int, pthread_cond_wait, K_COND, (pthread_cond_t * c, pthread_mutex_t* m), (c, m))
FORWARD(int, pthread_cond_timedwait, K_COND, (pthread_cond_t * c, pthread_mutex_t* m, const struct timespec* t),
        (c, m, t))
FORWARD(int, sem_wait, K_SEM, (sem_t * s), (s))
FORWARD(int, sem_timedwait, K_SEM, (sem_t * s, const struct timespec* t), (s, t))
FORWARD(int, sem_post, K_SEM, (sem_t * s), (s))
FORWARD(int, nanosleep, K_SLEEP, (const struct timespec* a, struct timespec* b), (a, b))
FORWARD(int, clock_nanosleep, K_SLEEP, (clockid_t c, int f, const struct timespec* a, struct timespec* b),
        (c, f, a, b))
FORWARD(unsigned, sleep, K_SLEEP, (unsigned s), (s))
FORWARD(int, usleep, K_SLEEP, (useconds_t u), (u))
FORWARD(int, sched_yield, K_SLEEP, (void), ())
FORWARD(void*, mmap, K_MMAP, (void* a, size_t n, int p, int f, int fd, off_t o), (a, n, p, f, fd, o))
FORWARD(int, munmap, K_MMAP, (void* a, size_t n), (a, n))
FORWARD(ssize_t, read, K_FILE, (int fd, void* b, size_t n), (fd, b, n))
FORWARD(ssize_t, write, K_FILE, (int fd, const void* b, size_t n), (fd, b, n))
FORWARD(int, close, K_FILE, (int fd), (fd))
FORWARD(int, socket, K_SOCKET, (int d, int t, int p), (d, t, p))
FORWARD(ssize_t, send, K_SOCKET, (int s, const void* b, size_t n, int f), (s, b, n, f))
FORWARD(ssize_t, recv, K_SOCKET, (int s, void* b, size_t n, int f), (s, b, n, f))

int open(const char* path, int flags, ...)
{
    static int (*real)(const char*, int, ...);
    if (!real)
        real = (int (*)(const char*, int, ...))dlsym(RTLD_NEXT, "open");
    hit(K_FILE);
    va_list ap;
    va_start(ap, flags);
    const int mode = va_arg(ap, int);
    va_end(ap);
    return real(path, flags, mode);
}
