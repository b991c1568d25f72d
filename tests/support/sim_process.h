#pragma once

// The opcua-sim executable as a child process, for what an in-process server cannot
// show: a server killed outright, or stopped and resumed by a signal.
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

namespace test_support {

class sim_process {
public:
    // Starts `executable` with `args`; its standard output comes back on a pipe.
    sim_process(const std::string& executable, std::vector<std::string> args) {
        int fds[2];
        if (::pipe(fds) != 0) throw std::runtime_error("pipe");
        pid_ = ::fork();
        if (pid_ == 0) {
            ::dup2(fds[1], STDOUT_FILENO);
            std::vector<char*> argv{const_cast<char*>(executable.c_str())};
            for (auto& a : args) argv.push_back(a.data());
            argv.push_back(nullptr);
            ::execv(argv[0], argv.data());
            ::_exit(127);
        }
        ::close(fds[1]);
        out_ = fds[0];
    }
    ~sim_process() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
        ::close(out_);
    }
    sim_process(const sim_process&) = delete;
    sim_process& operator=(const sim_process&) = delete;

    // The first line of output (the endpoint URL once the server listens), without its
    // end; "" if the process ends first or prints nothing within `seconds`.
    std::string first_line(int seconds = 20) {
        std::string line;
        for (;;) {
            pollfd p{out_, POLLIN, 0};
            if (::poll(&p, 1, seconds * 1000) <= 0) return "";
            char c;
            if (::read(out_, &c, 1) != 1) return "";
            if (c == '\n') return line;
            line.push_back(c);
        }
    }

    void signal(int number) { ::kill(pid_, number); }

    // Stops the process and returns once it has stopped: a signal takes effect later.
    void stop() {
        ::kill(pid_, SIGSTOP);
        for (int i = 0; i < 500 && state() != 'T'; ++i) ::usleep(2000);
    }
    void resume() { ::kill(pid_, SIGCONT); }

    // The exit status after SIGTERM, or 128 + the signal that ended it.
    int terminate() {
        ::kill(pid_, SIGTERM);
        int status = 0;
        ::waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

private:
    // The state letter of /proc/<pid>/stat, after the command's closing parenthesis.
    char state() const {
        char path[64];
        std::snprintf(path, sizeof path, "/proc/%d/stat", static_cast<int>(pid_));
        FILE* f = std::fopen(path, "r");
        if (f == nullptr) return '?';
        char text[512] = "";
        const std::size_t n = std::fread(text, 1, sizeof text - 1, f);
        std::fclose(f);
        text[n] = '\0';
        const char* end = std::strrchr(text, ')');
        return end != nullptr && end[1] == ' ' ? end[2] : '?';
    }

    pid_t pid_ = -1;
    int out_ = -1;
};

}  // namespace test_support
