#define TARN_HEADERS_ORDER 1
#define TARN_HEADERS_FN tarn_headers_first_c
#include "system_headers.h"
