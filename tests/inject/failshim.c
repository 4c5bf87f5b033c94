/* Preloaded into a process, it makes one call of a function fail, or several in a
 * row: of those that the library makes, on a thread of its own or inside a call
 * of the host (between kavo_inject_enter(1) and (0)), since kavo_inject_arm().
 * With KAVO_INJECT_TRACE in the environment it prints where that was. */
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
#include <sys/socket.h>

static atomic_int armed;
static atomic_long calls;
static long first, count;
static char function[32];

void kavo_inject_arm(char const* name, long at, long times) {
  strncpy(function, name, sizeof function - 1);
  first = at;
  count = times;
  atomic_store(&calls, 0);
  atomic_store(&armed, 1);
}

long kavo_inject_disarm(void) {
  atomic_store(&armed, 0);
  return atomic_load(&calls);
}

/* Whether the calling thread is in the library. */
static __thread int inside __attribute__((tls_model("initial-exec")));

void kavo_inject_enter(int in) { inside = in; }

/* OpenH264 crashes in itself (in Initialize, or at a later frame) when a malloc of
 * its own has failed. */
static int is_openh264(void const* caller) {
  Dl_info object;
  return dladdr(caller, &object) != 0 && object.dli_fname != NULL && strstr(object.dli_fname, "openh264") != NULL;
}

/* Whether live555's server or tables are between the event loop and this call. */
static int is_inside_live555(void) {
  void* stack[64];
  int const depth = backtrace(stack, 64);
  for (int i = 0; i < depth; ++i) {
    Dl_info object;
    if (dladdr(stack[i], &object) != 0 && object.dli_fname != NULL &&
        (strstr(object.dli_fname, "liveMedia") != NULL || strstr(object.dli_fname, "libUsageEnvironment") != NULL)) {
      return 1;
    }
  }
  return 0;
}

/* More in a row than the event loop's reserve has an answer for; no exception may
 * then pass through live555. */
enum { beyond_reserve = 64 };

static int fails(char const* name, void const* caller) {
  if (!inside || !atomic_load(&armed) || strcmp(name, function) != 0) {
    return 0;
  }
  long const call = atomic_fetch_add(&calls, 1) + 1;
  int failing = call >= first && call < first + count && !is_openh264(caller);
  if (failing && count > beyond_reserve) {
    inside = 0;
    failing = !is_inside_live555();
    inside = 1;
  }
  if (failing && getenv("KAVO_INJECT_TRACE") != NULL) {
    void* stack[40];
    inside = 0;
    backtrace_symbols_fd(stack, backtrace(stack, 40), 2);
    inside = 1;
  }
  return failing;
}

extern void* __libc_malloc(size_t size);
extern void* __libc_calloc(size_t number, size_t size);
extern void* __libc_realloc(void* old, size_t size);
extern void* __libc_memalign(size_t alignment, size_t size);

void* malloc(size_t size) {
  if (fails("malloc", __builtin_return_address(0))) {
    errno = ENOMEM;
    return NULL;
  }
  return __libc_malloc(size);
}

void* calloc(size_t number, size_t size) {
  if (fails("calloc", __builtin_return_address(0))) {
    errno = ENOMEM;
    return NULL;
  }
  return __libc_calloc(number, size);
}

void* realloc(void* old, size_t size) {
  if (fails("realloc", __builtin_return_address(0))) {
    errno = ENOMEM;
    return NULL;
  }
  return __libc_realloc(old, size);
}

int posix_memalign(void** result, size_t alignment, size_t size) {
  if (fails("posix_memalign", __builtin_return_address(0))) {
    return ENOMEM;
  }
  *result = __libc_memalign(alignment, size);
  return *result == NULL ? ENOMEM : 0;
}

#define FAILING(name, error, result, parameters, arguments, type) \
  type name parameters {                                          \
    static type(*real) parameters;                                \
    if (real == NULL) {                                           \
      *(void**)&real = dlsym(RTLD_NEXT, #name);                   \
    }                                                             \
    if (fails(#name, __builtin_return_address(0))) {              \
      errno = error;                                              \
      return result;                                              \
    }                                                             \
    return real arguments;                                        \
  }

FAILING(socket, EMFILE, -1, (int domain, int type, int protocol), (domain, type, protocol), int)
FAILING(bind, ENOMEM, -1, (int s, __CONST_SOCKADDR_ARG a, socklen_t n), (s, a, n), int)
FAILING(listen, ENOMEM, -1, (int s, int backlog), (s, backlog), int)
FAILING(accept4, EMFILE, -1, (int s, __SOCKADDR_ARG a, socklen_t* n, int flags), (s, a, n, flags), int)
FAILING(send, ENOBUFS, -1, (int s, void const* bytes, size_t n, int flags), (s, bytes, n, flags), ssize_t)
FAILING(sendmsg, ENOBUFS, -1, (int s, struct msghdr const* m, int flags), (s, m, flags), ssize_t)
FAILING(sendmmsg, ENOBUFS, -1, (int s, struct mmsghdr* m, unsigned n, int flags), (s, m, n, flags), int)
FAILING(recv, ENOMEM, -1, (int s, void* bytes, size_t n, int flags), (s, bytes, n, flags), ssize_t)
FAILING(setsockopt, ENOMEM, -1, (int s, int l, int o, void const* v, socklen_t n), (s, l, o, v, n), int)
FAILING(epoll_create1, EMFILE, -1, (int flags), (flags), int)
FAILING(epoll_ctl, ENOMEM, -1, (int e, int op, int s, struct epoll_event* event), (e, op, s, event), int)
FAILING(eventfd, EMFILE, -1, (unsigned value, int flags), (value, flags), int)
FAILING(epoll_pwait2, EPERM, -1,
        (int e, struct epoll_event* events, int n, struct timespec const* t, sigset_t const* mask),
        (e, events, n, t, mask), int)
FAILING(dlopen, ENOMEM, NULL, (char const* file, int mode), (file, mode), void*)

/* The library's threads are those that it starts. */
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

int pthread_create(pthread_t* thread, pthread_attr_t const* attributes, void* (*function)(void*), void* argument) {
  static int (*real)(pthread_t*, pthread_attr_t const*, void* (*)(void*), void*);
  if (real == NULL) {
    *(void**)&real = dlsym(RTLD_NEXT, "pthread_create");
  }
  if (!inside) {
    return real(thread, attributes, function, argument);
  }
  if (fails("pthread_create", __builtin_return_address(0))) {
    return EAGAIN;
  }
  struct start* const start = __libc_malloc(sizeof *start);
  start->function = function;
  start->argument = argument;
  return real(thread, attributes, run, start);
}
