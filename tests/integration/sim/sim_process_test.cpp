// The opcua-sim executable: command line parsing, and the process from start to signal.

#include "opcua_sim/cli.h"
#include "sim_client.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <regex>
#include <thread>

using namespace sim_test;
using opcua_sim::security_mode;
using opcua_sim::security_policy;

namespace {

opcua_sim::command_line parse(std::vector<std::string> args) { return opcua_sim::parse_command_line(args); }

// A child process with its standard output on a pipe; killed if still running at the end.
class sim_process {
public:
    explicit sim_process(std::vector<std::string> args) {
        int fds[2];
        if (pipe(fds) != 0) throw std::runtime_error("pipe");
        pid_ = fork();
        if (pid_ == 0) {
            dup2(fds[1], STDOUT_FILENO);
            close(fds[0]);
            close(fds[1]);
            std::vector<char*> argv{const_cast<char*>(OPCUA_SIM_EXECUTABLE)};
            for (auto& a : args) argv.push_back(a.data());
            argv.push_back(nullptr);
            execv(argv[0], argv.data());
            _exit(127);
        }
        close(fds[1]);
        out_ = fds[0];
    }
    ~sim_process() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        close(out_);
    }

    // The first line of output, or "" if none comes within the time.
    std::string first_line(std::chrono::milliseconds limit) {
        std::string text;
        auto deadline = std::chrono::steady_clock::now() + limit;
        while (text.find('\n') == std::string::npos) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) return "";
            pollfd p{out_, POLLIN, 0};
            if (poll(&p, 1, static_cast<int>(left.count())) <= 0) return "";
            char buffer[256];
            ssize_t n = read(out_, buffer, sizeof buffer);
            if (n <= 0) return "";
            text.append(buffer, static_cast<size_t>(n));
        }
        return text.substr(0, text.find('\n'));
    }

    // Exit status after the signal, or -1 if the process does not end within the time.
    int stop(int signal, std::chrono::milliseconds limit) {
        kill(pid_, signal);
        for (auto waited = std::chrono::milliseconds(0); waited < limit; waited += std::chrono::milliseconds(20)) {
            int status = 0;
            if (waitpid(pid_, &status, WNOHANG) == pid_) {
                pid_ = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return -1;
    }

    int wait_exit(std::chrono::milliseconds limit) { return stop(0, limit); }

private:
    pid_t pid_ = -1;
    int out_ = -1;
};

} // namespace

TEST(SimCommandLine, DefaultsOfferAllEndpointsOnPort4840) {
    opcua_sim::command_line c = parse({});
    EXPECT_FALSE(c.help);
    EXPECT_EQ(c.server_options.port, 4840);
    EXPECT_EQ(c.server_options.endpoints, opcua_sim::all_endpoints());
    EXPECT_TRUE(c.server_options.allow_anonymous);
    EXPECT_EQ(c.server_options.certificate.generate.key_bits, 2048);
}

TEST(SimCommandLine, OptionsReachTheServerOptions) {
    opcua_sim::command_line c =
        parse({"--port", "0", "--path", "/a/b", "--endpoint", "basic256sha256:sign-and-encrypt", "--endpoint", "none",
               "--endpoint", "basic256sha256", "--user", "u:p:w", "--user", "v:", "--no-anonymous",
               "--application-uri", "urn:x", "--cert-days", "-3", "--cert-valid-from", "-10", "--key-bits",
               "1024", "--verbose"});
    const opcua_sim::options& o = c.server_options;
    EXPECT_EQ(o.port, 0);
    EXPECT_EQ(o.path, "a/b");
    std::vector<opcua_sim::endpoint_option> endpoints{{security_policy::basic256sha256, security_mode::sign_and_encrypt},
                                                      {security_policy::none, security_mode::none},
                                                      {security_policy::basic256sha256, security_mode::sign}};
    EXPECT_EQ(o.endpoints, endpoints);
    ASSERT_EQ(o.users.size(), 2u);
    EXPECT_EQ(o.users[0].name, "u");
    EXPECT_EQ(o.users[0].password, "p:w");
    EXPECT_EQ(o.users[1].password, "");
    EXPECT_FALSE(o.allow_anonymous);
    EXPECT_EQ(o.application_uri, "urn:x");
    EXPECT_EQ(o.certificate.generate.valid_days, -3);
    EXPECT_EQ(o.certificate.generate.valid_from_days, -10);
    EXPECT_EQ(o.certificate.generate.key_bits, 1024);
    EXPECT_TRUE(o.verbose);

    opcua_sim::command_line files = parse({"--cert", "c.pem", "--key", "k.pem", "--key-password", "pw"});
    EXPECT_EQ(files.certificate_file, "c.pem");
    EXPECT_EQ(files.key_file, "k.pem");
    EXPECT_EQ(files.server_options.certificate.private_key_password, "pw");
}

TEST(SimCommandLine, BadCommandLinesAreRefused) {
    const std::vector<std::vector<std::string>> bad{
        {"--port"},
        {"--port", "65536"},
        {"--port", "12x"},
        {"--port", "-1"},
        {"--endpoint", "none:sign"},
        {"--endpoint", "basic128rsa15"},
        {"--user", "nopassword"},
        {"--user", ":password"},
        {"--key-bits", "3072"},
        {"--cert", "c.pem"},
        {"--key", "k.pem"},
        {"--cert", "c.pem", "--key", "k.pem", "--cert-days", "5"},
        {"--cert-days", "5", "--cert-valid-from", "5"},
        {"--unknown"},
    };
    for (const auto& args : bad) {
        std::string joined;
        for (const auto& a : args) joined += a + " ";
        EXPECT_THROW(parse(args), std::invalid_argument) << joined;
    }
}

TEST(SimProcess, HelpDocumentsTheOptions) {
    sim_process process({"--help"});
    std::string first = process.first_line(std::chrono::seconds(5));
    EXPECT_NE(first.find("Usage: opcua-sim"), std::string::npos);
    EXPECT_EQ(process.wait_exit(std::chrono::seconds(5)), 0);
    for (const char* option : {"--port", "--path", "--endpoint", "--user", "--no-anonymous", "--cert-days",
                               "--key-bits", "--cert", "--key", "--application-uri", "--verbose"})
        EXPECT_NE(opcua_sim::usage_text().find(option), std::string::npos) << option;
}

TEST(SimProcess, PrintsEndpointServesAndEndsOnSignal) {
    for (int signal : {SIGTERM, SIGINT}) {
        sim_process process({"--port", "0", "--path", "proc", "--no-anonymous", "--user", "alice:secret",
                             "--endpoint", "none"});
        std::string url = process.first_line(std::chrono::seconds(20));
        std::smatch match;
        ASSERT_TRUE(std::regex_match(url, match, std::regex(R"(opc\.tcp://127\.0\.0\.1:(\d+)/proc)"))) << url;

        client_ptr anonymous = make_client();
        EXPECT_NE(UA_Client_connect(anonymous.get(), url.c_str()), UA_STATUSCODE_GOOD);
        client_ptr user = make_client(UA_MESSAGESECURITYMODE_NONE, none_uri, true);
        EXPECT_EQ(UA_Client_connectUsername(user.get(), url.c_str(), "alice", "secret"), UA_STATUSCODE_GOOD);
        UA_Client_disconnect(user.get());

        EXPECT_EQ(process.stop(signal, std::chrono::seconds(10)), 0) << signal;
    }
}

TEST(SimProcess, BadArgumentsExitWithUsageError) {
    sim_process process({"--port", "nope"});
    EXPECT_EQ(process.wait_exit(std::chrono::seconds(5)), 2);
}
