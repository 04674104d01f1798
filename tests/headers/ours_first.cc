#define TARN_HEADERS_ORDER 1
#define TARN_HEADERS_FN tarn_headers_first_cc
#include "system_headers.h"
