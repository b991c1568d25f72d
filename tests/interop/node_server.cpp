#include "node_server.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

namespace fs = std::filesystem;
using clock_type = std::chrono::steady_clock;

namespace interop {

namespace {

fs::path script_path() { return INTEROP_SERVER_SCRIPT; }

fs::path make_temp_dir() {
    std::string path = (fs::temp_directory_path() / "opcua-interop-XXXXXX").string();
    if (!::mkdtemp(path.data())) throw std::runtime_error("cannot create a temporary directory for node-opcua");
    return path;
}

void close_fd(int& fd) {
    if (fd >= 0) ::close(fd);
    fd = -1;
}

}  // namespace

node_server::node_server(nlohmann::json options) {
    // CI installs node-opcua; a missing one is a broken setup that fails the test, not a skip.
    if (!fs::exists(script_path().parent_path() / "node_modules" / "node-opcua" / "package.json"))
        throw std::runtime_error("node-opcua is not installed in " + script_path().parent_path().string() +
                                 "; run `npm install` there (scripts/setup-deps.sh does it)");
    dir_ = make_temp_dir();
    options["pkiDir"] = (dir_ / "pki").string();

    // Everything the child needs is prepared before fork: after it only
    // async-signal-safe calls are allowed.
    const std::string node = NODE_EXECUTABLE;
    const std::string script = script_path().string();
    const std::string json = options.dump();
    const std::string err_path = (dir_ / "server.err").string();
    const std::string exec_failed = "cannot run " + node + "\n";
    std::vector<char*> argv{const_cast<char*>(node.c_str()), const_cast<char*>(script.c_str()),
                            const_cast<char*>(json.c_str()), nullptr};

    // Close-on-exec everywhere, so that a second child does not inherit the first
    // one's stdin and keep it alive after we close our end.
    int in[2], out[2];
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0)
        throw std::runtime_error(std::string("pipe: ") + std::strerror(errno));
    const int err = ::open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);

    const pid_t parent = ::getpid();
    pid_ = ::fork();
    if (pid_ < 0) throw std::runtime_error(std::string("fork: ") + std::strerror(errno));
    if (pid_ == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent) ::_exit(127);
        ::dup2(in[0], STDIN_FILENO);
        ::dup2(out[1], STDOUT_FILENO);
        if (err >= 0) ::dup2(err, STDERR_FILENO);
        ::execvp(argv[0], argv.data());
        [[maybe_unused]] const ssize_t said = ::write(STDERR_FILENO, exec_failed.data(), exec_failed.size());
        ::_exit(127);
    }
    ::close(in[0]);
    ::close(out[1]);
    if (err >= 0) ::close(err);
    stdin_fd_ = in[1];
    stdout_fd_ = out[0];
}

node_server::~node_server() {
    stop();
    std::error_code ec;
    fs::remove_all(dir_, ec);
}

nlohmann::json node_server::next_object(clock_type::time_point deadline) {
    for (;;) {
        if (const auto eol = pending_.find('\n'); eol != std::string::npos) {
            auto parsed = nlohmann::json::parse(pending_.substr(0, eol), nullptr, false);
            pending_.erase(0, eol + 1);
            if (parsed.is_object()) return parsed;
            continue;
        }
        if (stdout_fd_ < 0) return nullptr;
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - clock_type::now());
        if (left.count() <= 0) return nullptr;
        // Short slices: a grandchild holding the pipe open must not hide that the
        // server itself has died. Once it has, only what it left in the pipe counts.
        pollfd p{stdout_fd_, POLLIN, 0};
        const int n = ::poll(&p, 1, exited_ ? 0 : static_cast<int>(std::min<std::int64_t>(left.count(), 200)));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return nullptr;
        if (n == 0) {
            if (exited_) return nullptr;
            reap();
            continue;
        }
        char buffer[4096];
        const ssize_t got = ::read(stdout_fd_, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) {
            close_fd(stdout_fd_);
            continue;
        }
        pending_.append(buffer, static_cast<std::size_t>(got));
    }
}

const nlohmann::json& node_server::wait_ready(std::chrono::milliseconds limit) {
    if (!ready_.is_null()) return ready_;
    const auto deadline = clock_type::now() + limit;
    for (auto line = next_object(deadline); !line.is_null(); line = next_object(deadline)) {
        if (!line.contains("ready")) continue;
        if (!line.at("ready").get<bool>())
            throw std::runtime_error("node-opcua server failed: " + line.value("error", std::string()) +
                                     error_output());
        ready_ = line;
        return ready_;
    }
    // Output closed: the child is on its way out; give it a moment to be reaped.
    if (stdout_fd_ < 0) reap(true);
    if (const auto ended = exit_description(); !ended.empty())
        throw std::runtime_error("node-opcua server " + ended + " before it was ready" + error_output());
    throw std::runtime_error("node-opcua server did not report ready within " + std::to_string(limit.count()) +
                             " ms" + error_output());
}

void node_server::command(const nlohmann::json& line, std::chrono::milliseconds limit) {
    wait_ready();
    const std::string text = line.dump() + "\n";
    // MSG_NOSIGNAL is for sockets only; a child gone away must fail the test, not kill it.
    ::signal(SIGPIPE, SIG_IGN);
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t n = stdin_fd_ < 0 ? -1 : ::write(stdin_fd_, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0)
            throw std::runtime_error("cannot send " + line.dump() + " to the node-opcua server" + error_output());
        done += static_cast<std::size_t>(n);
    }
    const auto answer = next_object(clock_type::now() + limit);
    if (answer.is_null() || !answer.contains("ok")) {
        if (stdout_fd_ < 0) reap(true);
        const auto ended = exit_description();
        throw std::runtime_error("no answer to " + line.dump() + " from the node-opcua server" +
                                 (ended.empty() ? std::string() : " (it " + ended + ")") + error_output());
    }
    if (!answer.at("ok").get<bool>())
        throw std::runtime_error("node-opcua server refused " + line.dump() + ": " +
                                 answer.value("error", std::string()));
}

bool node_server::stop() {
    close_fd(stdin_fd_);
    close_fd(stdout_fd_);
    if (pid_ <= 0) return true;
    ::kill(pid_, SIGTERM);
    // server.js gives itself 2 s to shut down; allow a little more before killing it.
    bool clean = false;
    for (int wait = 0; wait < 200 && !clean; ++wait) {
        clean = ::waitpid(pid_, nullptr, WNOHANG) == pid_;
        if (!clean) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (!clean) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    pid_ = -1;
    return clean;
}

bool node_server::reap(bool block) {
    if (exited_) return true;
    if (pid_ <= 0) return false;
    // Bounded even when blocking: a child that closed its output yet lingers is
    // reported as not ready, not waited for.
    for (int wait = 0; wait < (block ? 100 : 1); ++wait) {
        if (wait > 0) std::this_thread::sleep_for(std::chrono::milliseconds(20));
        int status = 0;
        if (::waitpid(pid_, &status, WNOHANG) == pid_) {
            exited_ = true;
            exit_status_ = status;
            pid_ = -1;
            return true;
        }
    }
    return false;
}

std::string node_server::exit_description() {
    if (!reap()) return {};
    if (WIFEXITED(exit_status_)) return "exited with status " + std::to_string(WEXITSTATUS(exit_status_));
    if (WIFSIGNALED(exit_status_)) return "was killed by signal " + std::to_string(WTERMSIG(exit_status_));
    return "ended";
}

std::string node_server::error_output() const {
    std::ifstream in(dir_ / "server.err");
    std::stringstream s;
    s << in.rdbuf();
    const std::string text = s.str();
    if (text.empty()) return {};
    // The end of the output says what went wrong; keep the report readable.
    constexpr std::size_t keep = 4000;
    return "\n--- server stderr ---\n" + (text.size() > keep ? text.substr(text.size() - keep) : text);
}

std::unique_ptr<node_server> start(const nlohmann::json& options) {
    auto server = std::make_unique<node_server>(options);
    server->wait_ready();
    return server;
}

}  // namespace interop
