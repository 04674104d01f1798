#include "message_output.h"

#include <sys/time.h>

#include <cstring>
#include <ctime>
#include <vector>

#include <tarn/idl_types.h>
#include <tarn/rtslib_format.h>
#include <tarn/rtsock_wire.h>

#include "json_writer.h"
#include "record_json.h"

namespace tarn::monitor {
namespace {

// Raw messages and decoded records both begin with the header words read
// here.
uint32_t header_word(const void *msg, size_t offset)
{
    uint32_t v;
    std::memcpy(&v, static_cast<const uint8_t *>(msg) + offset, sizeof v);
    return v;
}

uint8_t header_byte(const void *msg, size_t offset)
{
    return static_cast<const uint8_t *>(msg)[offset];
}

// A full dump of a large record can exceed the library's fixed budgets;
// the formatter reports an overflow, and the next size up is tried.
constexpr int kFirstTextSize = 4096;
constexpr int kLastTextSize = 1 << 20;

}  // namespace

std::string timestamp_now()
{
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    struct tm tm;
    gmtime_r(&tv.tv_sec, &tm);
    char text[96];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%06ldZ", tm.tm_year + 1900,
                  tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec,
                  static_cast<long>(tv.tv_usec));
    return text;
}

bool has_record(const void *msg)
{
    return tarn_idl_type_for_msg(header_byte(msg, 5)) != nullptr;
}

std::string MessagePrinter::text_form(const void *msg, bool decoded, bool brief)
{
    const uint8_t type = header_byte(msg, 5);
    // The formatter takes records of the types that have one; such a type
    // arriving raw (not an envelope) is shown by its header only.
    const bool formattable = decoded || tarn_idl_type_for_msg(type) == nullptr;
    session_.quiet = true;
    for (int size = kFirstTextSize; formattable && size <= kLastTextSize; size *= 4) {
        std::vector<char> buf(static_cast<size_t>(size));
        if (rtslib_format_output(session_.handle, buf.data(), size, brief, msg) == 0) {
            session_.quiet = false;
            std::string s(buf.data());
            if (s.empty() || s.back() != '\n') s += '\n';
            return s;
        }
    }
    session_.quiet = false;
    return std::string(rtslib_format_rtm_type(header_byte(msg, 5))) + " " +
           rtslib_format_op(header_byte(msg, 6)) + " (not formatted)\n";
}

std::string MessagePrinter::json_form(const void *msg, bool decoded)
{
    JsonWriter w;
    w.begin_object();
    w.key("time");
    w.string(timestamp_now());
    w.key("type");
    w.string(rtslib_format_rtm_type(header_byte(msg, 5)));
    w.key("op");
    w.string(rtslib_format_op(header_byte(msg, 6)));
    if (decoded && has_record(msg)) {
        const tarn_idl_type *type = tarn_idl_type_for_msg(header_byte(msg, 5));
        w.key("record");
        w.string(tarn_idl_type_name(type));
        w.key("fields");
        write_record_json(w, type, msg);
    } else {
        // A raw message: its header, then all of it in hex.
        const uint32_t len = header_word(msg, 8);
        w.key("seq");
        w.number(header_word(msg, 12));
        w.key("raw");
        w.string(hex_text(static_cast<const uint8_t *>(msg), len));
    }
    w.end_object();
    return w.text() + "\n";
}

void MessagePrinter::print(const void *msg, bool decoded)
{
    std::string text;
    switch (form_) {
    case Form::kJson: text = json_form(msg, decoded); break;
    case Form::kBrief:
        text = timestamp_now() + " " + text_form(msg, decoded, true);
        // The library's brief summary stops at its line budget, often before
        // a route's prefix: name the addresses at the end.
        if (decoded && has_record(msg)) {
            const std::string addresses =
                address_summary(tarn_idl_type_for_msg(header_byte(msg, 5)), msg);
            if (!addresses.empty()) text.insert(text.size() - 1, " |" + addresses);
        }
        break;
    case Form::kFull: text = timestamp_now() + "\n" + text_form(msg, decoded, false) + "\n"; break;
    }
    std::fputs(text.c_str(), out_);
    std::fflush(out_);
}

}  // namespace tarn::monitor
