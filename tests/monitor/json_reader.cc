#include "json_reader.h"

#include <cctype>

namespace tarn::test {
namespace {

class Parser {
public:
    explicit Parser(const std::string &s) : s_(s) {}

    bool document(Json &out)
    {
        if (!value(out)) return false;
        space();
        return i_ == s_.size();
    }

private:
    void space()
    {
        while (i_ < s_.size() && (s_[i_] == ' ' || s_[i_] == '\n' || s_[i_] == '\t')) i_++;
    }

    bool literal(const char *word)
    {
        const std::string w(word);
        if (s_.compare(i_, w.size(), w) != 0) return false;
        i_ += w.size();
        return true;
    }

    bool string(std::string &out)
    {
        if (s_[i_++] != '"') return false;
        while (i_ < s_.size() && s_[i_] != '"') {
            const char c = s_[i_++];
            if (static_cast<unsigned char>(c) < 0x20) return false;
            if (c != '\\') {
                out += c;
                continue;
            }
            if (i_ >= s_.size()) return false;
            const char e = s_[i_++];
            switch (e) {
            case '"': case '\\': case '/': out += e; break;
            case 'n': out += '\n'; break;
            case 't': out += '\t'; break;
            case 'r': out += '\r'; break;
            case 'b': out += '\b'; break;
            case 'f': out += '\f'; break;
            case 'u': {
                if (i_ + 4 > s_.size()) return false;
                for (size_t k = 0; k < 4; k++)
                    if (!std::isxdigit(static_cast<unsigned char>(s_[i_ + k]))) return false;
                const unsigned long cp = std::stoul(s_.substr(i_, 4), nullptr, 16);
                i_ += 4;
                if (cp > 0xFF) return false;  // the writer escapes bytes only
                out += static_cast<char>(cp);
                break;
            }
            default: return false;
            }
        }
        return i_++ < s_.size();
    }

    bool value(Json &out)
    {
        space();
        if (i_ >= s_.size()) return false;
        const char c = s_[i_];
        if (c == '"') {
            out.kind = Json::kString;
            return string(out.text);
        }
        if (c == '{' || c == '[') {
            const bool object = c == '{';
            out.kind = object ? Json::kObject : Json::kArray;
            i_++;
            space();
            if (i_ < s_.size() && s_[i_] == (object ? '}' : ']')) return ++i_, true;
            for (;;) {
                Json item;
                std::string key;
                if (object) {
                    space();
                    if (i_ >= s_.size() || !string(key)) return false;
                    space();
                    if (i_ >= s_.size() || s_[i_++] != ':') return false;
                }
                if (!value(item)) return false;
                if (object) out.members[key] = std::move(item);
                else out.items.push_back(std::move(item));
                space();
                if (i_ >= s_.size()) return false;
                const char d = s_[i_++];
                if (d == (object ? '}' : ']')) return true;
                if (d != ',') return false;
            }
        }
        if (literal("null")) return true;
        const size_t start = i_;
        while (i_ < s_.size() && (std::isdigit(static_cast<unsigned char>(s_[i_])) || s_[i_] == '-'))
            i_++;
        if (i_ == start) return false;
        out.kind = Json::kNumber;
        out.text = s_.substr(start, i_ - start);
        return true;
    }

    const std::string &s_;
    size_t i_ = 0;
};

}  // namespace

const Json &Json::operator[](const std::string &key) const
{
    static const Json missing;
    const auto it = members.find(key);
    return it == members.end() ? missing : it->second;
}

bool parse_json(const std::string &text, Json &out)
{
    return Parser(text).document(out);
}

}  // namespace tarn::test
