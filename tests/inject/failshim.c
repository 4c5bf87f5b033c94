/* Preloaded into a process, it makes one call of a function fail, or several in a
 * row. After kavo_inject_arm() it counts the calls that the library makes: on a
 * thread of its own, or inside kavo_inject_call(). If KAVO_INJECT_TRACE is set, it
 * prints a backtrace of each failure. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <execinfo.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/random.h>
#include <sys/socket.h>

#define FUNCTIONS(F)                                                                                                   \
  F(malloc), F(calloc), F(realloc), F(posix_memalign), F(socket), F(bind), F(listen), F(accept4), F(send), F(sendmsg), \
      F(sendmmsg), F(recv), F(setsockopt), F(epoll_create1), F(epoll_ctl), F(eventfd), F(getrandom), F(epoll_pwait2),  \
      F(pthread_create), F(dlopen)
#define INDEX_OF(name) index_##name
#define NAME_OF(name) #name
enum { FUNCTIONS(INDEX_OF), functions, none };
static char const* const names[] = {FUNCTIONS(NAME_OF)};

static atomic_long calls[functions];
static int failing = none;
static long first, count;
static atomic_int armed;

/* The name of a function by number, NULL past the last one; and its calls since kavo_inject_arm(). */
char const* kavo_inject_name(int number) { return number < functions ? names[number] : NULL; }
long kavo_inject_calls(int number) { return atomic_load(&calls[number]); }

/* Lets so many calls fail, beginning with the at-th. With an unknown name it only counts calls. */
void kavo_inject_arm(char const* name, long at, long times) {
  failing = none;
  for (int i = 0; i < functions; ++i) {
    failing = strcmp(name, names[i]) == 0 ? i : failing;
    atomic_store(&calls[i], 0);
  }
  first = at;
  count = times;
  atomic_store(&armed, 1);
}

void kavo_inject_disarm(void) { atomic_store(&armed, 0); }

/* Whether the calling thread is inside the library. */
static __thread int inside __attribute__((tls_model("initial-exec")));

/* Calls a function of the library. */
int kavo_inject_call(int (*function)(int, void*, int), int command, void* param, int size) {
  inside = 1;
  int const result = function(command, param, size);
  inside = 0;
  return result;
}

/* OpenH264 crashes (in Initialize, or at a later frame) after one of its own
 * allocations has failed. */
static int is_openh264(void const* caller) {
  Dl_info object;
  return dladdr(caller, &object) != 0 && object.dli_fname != NULL && strstr(object.dli_fname, "openh264") != NULL;
}

/* Whether a library or a function with this text in its name is between the event loop and this call. */
static int is_inside(char const* text) {
  void* stack[64];
  int const depth = backtrace(stack, 64);
  for (int i = 0; i < depth; ++i) {
    Dl_info object;
    if (dladdr(stack[i], &object) != 0 && object.dli_fname != NULL &&
        (strstr(object.dli_fname, text) != NULL ||
         (object.dli_sname != NULL && strstr(object.dli_sname, text) != NULL))) {
      return 1;
    }
  }
  return 0;
}

/* More failures in a row than the event loop's reserve can absorb; an exception
 * would then pass through live555. */
enum { beyond_reserve = 64 };

static int fails(int function, void const* caller) {
  if (!inside || !atomic_load(&armed)) {
    return 0;
  }
  long const call = atomic_fetch_add(&calls[function], 1) + 1;
  int fails = function == failing && call >= first && call < first + count && !is_openh264(caller);
  if (fails) {
    inside = 0;
    /* The loader ends a process that has no memory for thread-local data; the library asks for it in advance. */
    fails = !is_inside("uncaught_exceptions") &&
            (count <= beyond_reserve || !(is_inside("liveMedia") || is_inside("libUsageEnvironment")));
    inside = 1;
  }
  if (fails && getenv("KAVO_INJECT_TRACE") != NULL) {
    void* stack[40];
    inside = 0;
    backtrace_symbols_fd(stack, backtrace(stack, 40), 2);
    inside = 1;
  }
  return fails;
}

extern void* __libc_malloc(size_t size);
extern void* __libc_calloc(size_t number, size_t size);
extern void* __libc_realloc(void* old, size_t size);
extern void* __libc_memalign(size_t alignment, size_t size);

/* The next definition in library order. */
#define NEXT(name)                              \
  ({                                            \
    static __typeof__(name)* next;              \
    if (next == NULL) {                         \
      *(void**)&next = dlsym(RTLD_NEXT, #name); \
    }                                           \
    next;                                       \
  })

static int into_memalign(void** result, size_t alignment, size_t size) {
  *result = __libc_memalign(alignment, size);
  return *result == NULL ? ENOMEM : 0;
}

/* A thread that the library starts counts as inside the library. */
struct start {
  void* (*function)(void*);
  void* argument;
};

static void* run(void* argument) {
  struct start const start = *(struct start*)argument;
  free(argument);
  inside = 1;
  return start.function(start.argument);
}

static int create_thread(pthread_t* thread, pthread_attr_t const* attributes, void* (*function)(void*),
                         void* argument) {
  if (!inside) {
    return NEXT(pthread_create)(thread, attributes, function, argument);
  }
  struct start* const start = __libc_malloc(sizeof *start);
  *start = (struct start){function, argument};
  return NEXT(pthread_create)(thread, attributes, run, start);
}

#define FAILING(name, error, result, type, parameters, real, arguments) \
  type name parameters {                                                \
    if (fails(index_##name, __builtin_return_address(0))) {             \
      errno = error;                                                    \
      return result;                                                    \
    }                                                                   \
    return real arguments;                                              \
  }

FAILING(malloc, ENOMEM, NULL, void*, (size_t n), __libc_malloc, (n))
FAILING(calloc, ENOMEM, NULL, void*, (size_t n, size_t size), __libc_calloc, (n, size))
FAILING(realloc, ENOMEM, NULL, void*, (void* old, size_t n), __libc_realloc, (old, n))
FAILING(posix_memalign, 0, ENOMEM, int, (void** p, size_t alignment, size_t n), into_memalign, (p, alignment, n))
FAILING(socket, EMFILE, -1, int, (int domain, int type, int protocol), NEXT(socket), (domain, type, protocol))
FAILING(bind, ENOMEM, -1, int, (int s, __CONST_SOCKADDR_ARG a, socklen_t n), NEXT(bind), (s, a, n))
FAILING(listen, ENOMEM, -1, int, (int s, int backlog), NEXT(listen), (s, backlog))
FAILING(accept4, EMFILE, -1, int, (int s, __SOCKADDR_ARG a, socklen_t* n, int flags), NEXT(accept4), (s, a, n, flags))
FAILING(send, ENOBUFS, -1, ssize_t, (int s, void const* bytes, size_t n, int flags), NEXT(send), (s, bytes, n, flags))
FAILING(sendmsg, ENOBUFS, -1, ssize_t, (int s, struct msghdr const* m, int flags), NEXT(sendmsg), (s, m, flags))
FAILING(sendmmsg, ENOBUFS, -1, int, (int s, struct mmsghdr* m, unsigned n, int flags), NEXT(sendmmsg), (s, m, n, flags))
FAILING(recv, ENOMEM, -1, ssize_t, (int s, void* bytes, size_t n, int flags), NEXT(recv), (s, bytes, n, flags))
FAILING(setsockopt, ENOMEM, -1, int, (int s, int l, int o, void const* v, socklen_t n), NEXT(setsockopt),
        (s, l, o, v, n))
FAILING(epoll_create1, EMFILE, -1, int, (int flags), NEXT(epoll_create1), (flags))
FAILING(epoll_ctl, ENOMEM, -1, int, (int e, int op, int s, struct epoll_event* event), NEXT(epoll_ctl),
        (e, op, s, event))
FAILING(eventfd, EMFILE, -1, int, (unsigned value, int flags), NEXT(eventfd), (value, flags))
FAILING(epoll_pwait2, EPERM, -1, int,
        (int e, struct epoll_event* events, int n, struct timespec const* t, sigset_t const* mask), NEXT(epoll_pwait2),
        (e, events, n, t, mask))
FAILING(getrandom, EAGAIN, -1, ssize_t, (void* bytes, size_t n, unsigned flags), NEXT(getrandom), (bytes, n, flags))
FAILING(dlopen, ENOMEM, NULL, void*, (char const* file, int mode), NEXT(dlopen), (file, mode))
FAILING(pthread_create, 0, EAGAIN, int,
        (pthread_t * thread, pthread_attr_t const* attributes, void* (*function)(void*), void* argument), create_thread,
        (thread, attributes, function, argument))
