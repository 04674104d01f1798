// tarn-monitor's JSON over arbitrary kernel input: any envelope the
// library decodes becomes one well-formed JSON object, and any byte string
// quoted reads back as exactly those bytes.
#include <string>

#include <tarn/tarn.h>

#include "idl_fuzz_support.h"
#include "json_reader.h"
#include "record_json.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size > (1u << 16)) return 0;
    const std::string bytes(reinterpret_cast<const char *>(data), size);
    tarn::test::Json back;
    FUZZ_CHECK(tarn::test::parse_json(tarn::monitor::json_quote(bytes), back));
    FUZZ_CHECK(back.kind == tarn::test::Json::kString && back.text == bytes);

    rtslib_cookie *h = rtslib_open_nc();
    FUZZ_CHECK(h != nullptr);
    rtslib_lib_error_register(h, nullptr, nullptr);  // silent
    void *msg = nullptr, *map = nullptr;
    if (rtslib_msg_idl_decode(h, data, static_cast<uint32_t>(size), &msg, &map) == 0 && msg) {
        const tarn_idl_type *type = tarn_idl_type_for_msg(static_cast<const uint8_t *>(msg)[5]);
        tarn::monitor::JsonWriter w;
        FUZZ_CHECK(tarn::monitor::write_record_json(w, type, msg) == 0);
        FUZZ_CHECK(tarn::test::parse_json(w.text(), back));
        FUZZ_CHECK(back.kind == tarn::test::Json::kObject);
        rtslib_msg_idl_release(h, msg);
    }
    rtslib_close(h);
    return 0;
}
