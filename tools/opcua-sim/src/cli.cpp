#include "opcua_sim/cli.h"

#include "opcua_sim/address_spaces.h"

#include <algorithm>
#include <charconv>
#include <stdexcept>

namespace opcua_sim {
namespace {

long parse_number(const std::string& option, const std::string& text, long low, long high) {
    long value = 0;
    const char* end = text.data() + text.size();
    auto [ptr, error] = std::from_chars(text.data(), end, value);
    if (text.empty() || error != std::errc() || ptr != end || value < low || value > high)
        throw std::invalid_argument(option + " needs a whole number from " + std::to_string(low) + " to " +
                                    std::to_string(high) + ", not '" + text + "'");
    return value;
}

// "none", "basic256sha256" (both modes), "basic256sha256:sign", "basic256sha256:sign-and-encrypt".
std::vector<endpoint_option> parse_endpoint(const std::string& text) {
    if (text == "none") return {{security_policy::none, security_mode::none}};
    if (text == "basic256sha256")
        return {{security_policy::basic256sha256, security_mode::sign},
                {security_policy::basic256sha256, security_mode::sign_and_encrypt}};
    if (text == "basic256sha256:sign") return {{security_policy::basic256sha256, security_mode::sign}};
    if (text == "basic256sha256:sign-and-encrypt")
        return {{security_policy::basic256sha256, security_mode::sign_and_encrypt}};
    throw std::invalid_argument("unknown endpoint '" + text + "'; see --help");
}

} // namespace

std::string usage_text() {
    return R"(Usage: opcua-sim [OPTION]...
An OPC UA server for tests. Listens on 127.0.0.1 only, prints its endpoint URL
on standard output once it listens, and runs until SIGINT or SIGTERM.

  --port N                 TCP port, 0 picks a free one (default 4840)
  --path TEXT              path of the endpoint URL opc.tcp://127.0.0.1:<port>/<path>
                           (default empty)
  --endpoint SECURITY      offer an endpoint; repeat for more. SECURITY is one of
                             none
                             basic256sha256:sign
                             basic256sha256:sign-and-encrypt
                             basic256sha256   (both modes)
                           (default: all three)
  --user NAME:PASSWORD     accept this user name login; repeat for more
  --no-anonymous           refuse anonymous sessions
  --application-uri URI    ApplicationUri, also the URI of a made certificate
                           (default urn:opcua-sim:server)
  --application-name TEXT  ApplicationName (default opcua-sim)
  --cert-days N            make a self-signed certificate valid until N days from
                           now; negative means expired (default 365)
  --cert-valid-from N      start of its validity in days from now; positive means
                           not yet valid (default: a day before now)
  --key-bits N             its RSA key size: 1024, 2048 or 4096 (default 2048)
  --common-name TEXT       its subject common name (default opcua-sim)
  --cert FILE              use this PEM certificate instead; needs --key
  --key FILE               the PEM private key of --cert
  --key-password TEXT      password of an encrypted --key
  --address-space NAME     add a prepared address space. NAME is one of
                             custom   (the custom sensor's variables in namespace
                                       urn:opcua-sim:custom, index 2)
                             beckhoff (a Beckhoff IPC's nine health nodes in
                                       namespace urn:opcua-sim:beckhoff, index 2)
                           Both need index 2, so only one of them at a time.
  --strict                 trust no client certificate, as a plant server does
                           until an operator accepts one: Sign and SignAndEncrypt
                           channels are refused, None channels (and GetEndpoints
                           over None) still work
  --verbose                log of the OPC UA stack from level info on (default:
                           warnings and errors only)
  --log-file FILE          append the log to FILE instead of standard error
  --help                   show this text
)";
}

command_line parse_command_line(const std::vector<std::string>& args) {
    command_line result;
    options& o = result.server_options;
    o.port = 4840;
    bool endpoints_given = false;
    bool generated_given = false;

    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& option = args[i];
        auto value = [&]() -> const std::string& {
            if (i + 1 >= args.size()) throw std::invalid_argument(option + " needs a value");
            return args[++i];
        };
        if (option == "--help" || option == "-h") {
            result.help = true;
        } else if (option == "--port") {
            o.port = static_cast<std::uint16_t>(parse_number(option, value(), 0, 65535));
        } else if (option == "--path") {
            o.path = value();
            if (!o.path.empty() && o.path.front() == '/') o.path.erase(0, 1);
        } else if (option == "--endpoint") {
            if (!endpoints_given) o.endpoints.clear();
            endpoints_given = true;
            for (const endpoint_option& e : parse_endpoint(value()))
                if (std::find(o.endpoints.begin(), o.endpoints.end(), e) == o.endpoints.end())
                    o.endpoints.push_back(e);
        } else if (option == "--user") {
            const std::string& text = value();
            std::size_t colon = text.find(':');
            if (colon == std::string::npos || colon == 0)
                throw std::invalid_argument("--user needs NAME:PASSWORD, not '" + text + "'");
            o.users.push_back({text.substr(0, colon), text.substr(colon + 1)});
        } else if (option == "--no-anonymous") {
            o.allow_anonymous = false;
        } else if (option == "--application-uri") {
            o.application_uri = value();
        } else if (option == "--application-name") {
            o.application_name = value();
        } else if (option == "--cert-days") {
            o.certificate.generate.valid_days = static_cast<int>(parse_number(option, value(), -36500, 36500));
            generated_given = true;
        } else if (option == "--cert-valid-from") {
            o.certificate.generate.valid_from_days =
                static_cast<int>(parse_number(option, value(), -36500, 36500));
            generated_given = true;
        } else if (option == "--key-bits") {
            long bits = parse_number(option, value(), 1024, 4096);
            if (bits != 1024 && bits != 2048 && bits != 4096)
                throw std::invalid_argument("--key-bits must be 1024, 2048 or 4096");
            o.certificate.generate.key_bits = static_cast<int>(bits);
            generated_given = true;
        } else if (option == "--common-name") {
            o.certificate.generate.common_name = value();
            generated_given = true;
        } else if (option == "--cert") {
            result.certificate_file = value();
        } else if (option == "--key") {
            result.key_file = value();
        } else if (option == "--key-password") {
            o.certificate.private_key_password = value();
        } else if (option == "--address-space") {
            const std::string& name = value();
            // A second setup of the same space would add its nodes twice and fail the start.
            if (std::find(result.address_spaces.begin(), result.address_spaces.end(), name) ==
                result.address_spaces.end()) {
                o.address_spaces.push_back(address_space_by_name(name));
                result.address_spaces.push_back(name);
            }
        } else if (option == "--strict") {
            o.strict = true;
        } else if (option == "--verbose") {
            o.verbose = true;
        } else if (option == "--log-file") {
            o.log_file = value();
        } else {
            throw std::invalid_argument("unknown option '" + option + "'; see --help");
        }
    }

    if (result.certificate_file.empty() != result.key_file.empty())
        throw std::invalid_argument("--cert and --key go together");
    if (!result.certificate_file.empty() && generated_given)
        throw std::invalid_argument("--cert and --key exclude --cert-days, --cert-valid-from, --key-bits "
                                    "and --common-name");
    const certificate_request& g = o.certificate.generate;
    if (g.valid_from_days && *g.valid_from_days >= g.valid_days)
        throw std::invalid_argument("--cert-valid-from must lie before --cert-days");
    return result;
}

} // namespace opcua_sim
