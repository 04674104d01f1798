#include "monitor_process.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cstdlib>
#include <sstream>

namespace tarn::test {
namespace {

constexpr const char kRunner[] = TARN_TARGET_RUNNER;

bool read_some(int fd, std::string &into)
{
    char buf[4096];
    const ssize_t n = ::read(fd, buf, sizeof buf);
    if (n <= 0) return false;
    into.append(buf, static_cast<size_t>(n));
    return true;
}

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

MonitorProcess::MonitorProcess(const std::vector<std::string> &args)
{
    int out_pipe[2], err_pipe[2];
    if (::pipe(out_pipe) != 0 || ::pipe(err_pipe) != 0) return;
    std::vector<std::string> argv_s;
    if (kRunner[0] != '\0') argv_s.push_back(kRunner);
    argv_s.push_back(TARN_MONITOR_PATH);
    argv_s.insert(argv_s.end(), args.begin(), args.end());
    std::vector<char *> argv;
    for (auto &a : argv_s) argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_ = ::fork();
    if (pid_ == 0) {
        ::dup2(out_pipe[1], STDOUT_FILENO);
        ::dup2(err_pipe[1], STDERR_FILENO);
        ::close(out_pipe[0]);
        ::close(err_pipe[0]);
        ::execv(argv[0], argv.data());
        _exit(127);
    }
    ::close(out_pipe[1]);
    ::close(err_pipe[1]);
    out_fd_ = out_pipe[0];
    err_fd_ = err_pipe[0];
}

MonitorProcess::~MonitorProcess()
{
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        finish();
    }
}

bool MonitorProcess::wait_for_stderr(const std::string &text)
{
    while (err.find(text) == std::string::npos)
        if (!read_some(err_fd_, err)) return false;
    return true;
}

int MonitorProcess::finish()
{
    while (read_some(out_fd_, out)) {
    }
    while (read_some(err_fd_, err)) {
    }
    ::close(out_fd_);
    ::close(err_fd_);
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void MonitorProcess::signal(int sig) { ::kill(pid_, sig); }

MonitorRun run_monitor(const std::vector<std::string> &args)
{
    MonitorProcess p(args);
    const int status = p.finish();
    return {status, p.out, p.err};
}

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

std::vector<std::string> lines_of(const std::string &text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

}  // namespace tarn::test
