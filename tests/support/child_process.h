#pragma once

// A program run for a test (opcua-sim, node-opcua's server.js): its standard input and
// output on pipes, its errors in a file, and its life bound to the test process; it
// learns of the test's end also by its input closing.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace test_support {

class child_process {
public:
    child_process(const std::string& program, std::vector<std::string> args, const std::string& error_file = "/dev/null")
        : error_file_(error_file) {
        std::vector<char*> argv{const_cast<char*>(program.c_str())};
        for (auto& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        // Close-on-exec, so that a second child does not keep the first one's stdin open.
        int in[2], out[2];
        if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
        const int err = ::open(error_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        const pid_t parent = ::getpid();
        pid_ = ::fork();
        if (pid_ == 0) {
            // Only async-signal-safe calls from here. It dies with the test, even a crashed
            // one; and with the thread that started it, which must therefore outlive it.
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (::getppid() != parent) ::_exit(127);
            ::dup2(in[0], STDIN_FILENO);
            ::dup2(out[1], STDOUT_FILENO);
            if (err >= 0) ::dup2(err, STDERR_FILENO);
            ::execvp(argv[0], argv.data());
            ::_exit(127);
        }
        ::close(in[0]);
        ::close(out[1]);
        if (err >= 0) ::close(err);
        in_ = in[1];
        out_ = out[0];
    }
    ~child_process() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
        ::close(in_);
        ::close(out_);
    }
    child_process(const child_process&) = delete;
    child_process& operator=(const child_process&) = delete;

    // The next line of output without its end; nothing when the child ends its output or
    // says nothing within `limit`.
    std::optional<std::string> line(std::chrono::milliseconds limit) {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        for (;;) {
            if (const auto eol = pending_.find('\n'); eol != std::string::npos) {
                std::string text = pending_.substr(0, eol);
                pending_.erase(0, eol + 1);
                return text;
            }
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            pollfd p{out_, POLLIN, 0};
            if (left.count() <= 0 || ::poll(&p, 1, static_cast<int>(left.count())) <= 0) return std::nullopt;
            char buffer[4096];
            const ssize_t got = ::read(out_, buffer, sizeof buffer);
            if (got <= 0) return std::nullopt;
            pending_.append(buffer, static_cast<std::size_t>(got));
        }
    }

    void signal(int number) { ::kill(pid_, number); }

    // Stops the child and returns once it has stopped: a signal takes effect later.
    void stop() {
        ::kill(pid_, SIGSTOP);
        for (int i = 0; i < 500 && state() != 'T'; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    void resume() { ::kill(pid_, SIGCONT); }

    // The end of what the child wrote to its error file, for a failure's message.
    std::string errors() const {
        std::ifstream in(error_file_);
        std::stringstream s;
        s << in.rdbuf();
        const std::string text = s.str();
        return text.size() > 4000 ? text.substr(text.size() - 4000) : text;
    }

private:
    // The state letter of /proc/<pid>/stat, after the command's closing parenthesis.
    char state() const {
        std::ifstream in("/proc/" + std::to_string(pid_) + "/stat");
        const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        const auto end = text.rfind(')');
        return end != std::string::npos && end + 2 < text.size() ? text[end + 2] : '?';
    }

    std::string error_file_;
    pid_t pid_ = -1;
    int in_ = -1;
    int out_ = -1;
    std::string pending_;
};

}  // namespace test_support
