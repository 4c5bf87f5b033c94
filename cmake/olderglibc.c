/* Functions of newer versions of glibc, for programs that run with an older one. */
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/random.h>

/* The compiler calls these instead of strtol and others (2.38). They do not support binary numbers (0b...). */
#define OURS(name) KAVO_JOIN_(KAVO_PREFIX, name)
#define KAVO_JOIN_(prefix, name) KAVO_PASTE_(prefix, name)
#define KAVO_PASTE_(prefix, name) prefix##name

long OURS(strtol)(char const* text, char** end, int base) { return strtol(text, end, base); }
unsigned long OURS(strtoul)(char const* text, char** end, int base) { return strtoul(text, end, base); }
long long OURS(strtoll)(char const* text, char** end, int base) { return strtoll(text, end, base); }
unsigned long long OURS(strtoull)(char const* text, char** end, int base) { return strtoull(text, end, base); }

int OURS(vsscanf)(char const* text, char const* format, va_list arguments) { return vsscanf(text, format, arguments); }

int OURS(sscanf)(char const* text, char const* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  int const count = vsscanf(text, format, arguments);
  va_end(arguments);
  return count;
}

#ifdef KAVO_WITH_RANDOM
/* For std::random_device (2.36). */
uint32_t arc4random(void) {
  uint32_t number = 0;
  while (getrandom(&number, sizeof number, 0) != sizeof number) {
  }
  return number;
}
#endif
