#define TARN_HEADERS_ORDER 2
#define TARN_HEADERS_FN tarn_headers_last_cc
#include "system_headers.h"
