#define TARN_HEADERS_ORDER 2
#define TARN_HEADERS_FN tarn_headers_last_c
#include "system_headers.h"
