/* The public header stands alone in C, and binds the library's function. */
#include "kavo_stream.h"

int (*const kavo_test_bound_in_c)(int, void*, int) = 0 ? kv_Stream : 0;

int kavo_test_record_size_in_c(void) { return (int)sizeof(kv_session_record); }
