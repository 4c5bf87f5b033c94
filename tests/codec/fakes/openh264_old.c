/* An older OpenH264: it has the functions, but another version. */
#include <stddef.h>

typedef struct {
  unsigned int uMajor, uMinor, uRevision, uReserved;
} OpenH264Version;

void WelsGetCodecVersionEx(OpenH264Version* version) {
  version->uMajor = 1;
  version->uMinor = 8;
}

int WelsCreateSVCEncoder(void** encoder) {
  *encoder = NULL;
  return 0;
}

void WelsDestroySVCEncoder(void* encoder) { (void)encoder; }
