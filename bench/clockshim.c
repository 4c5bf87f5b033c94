/* Preloaded into a process, it shifts the clocks by the seconds in the file
 * KAVO_CLOCK_FILE (8 bytes for the wall clock, 8 for the monotonic clock), which
 * the test changes while the process runs. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

static int64_t const volatile* offsets;

__attribute__((constructor)) static void map_offsets(void) {
  int const file = open(getenv("KAVO_CLOCK_FILE"), O_RDONLY | O_CLOEXEC);
  void* const memory = mmap(NULL, 2 * sizeof *offsets, PROT_READ, MAP_SHARED, file, 0);
  offsets = memory == MAP_FAILED ? NULL : memory;
  close(file);
}

int gettimeofday(struct timeval* restrict now, void* restrict zone) {
  struct timespec exact;
  (void)zone;
  clock_gettime(CLOCK_REALTIME, &exact);
  now->tv_sec = exact.tv_sec;
  now->tv_usec = exact.tv_nsec / 1000;
  return 0;
}

int clock_gettime(clockid_t clock, struct timespec* now) {
  static int (*real)(clockid_t, struct timespec*);
  if (real == NULL) {
    *(void**)&real = dlsym(RTLD_NEXT, "clock_gettime");
  }
  int const result = real(clock, now);
  if (offsets != NULL && (clock == CLOCK_REALTIME || clock == CLOCK_MONOTONIC)) {
    now->tv_sec += offsets[clock == CLOCK_MONOTONIC];
  }
  return result;
}
