// A node-opcua server for the interoperability tests: a stack we did not write, on
// loopback only, configured by one JSON object.
//
//   node server.js '<json>'          options inline
//   node server.js --options <file>  options from a JSON file
//
// When the server listens it prints one JSON line on stdout:
//   {"ready":true,"port":N,"endpointUrl":"opc.tcp://...","endpoints":[{"endpointUrl":..,
//    "securityMode":"Sign","securityPolicy":"Basic256Sha256","userTokens":[policy ids]}, ...]}
// On a fatal error it prints {"ready":false,"error":"..."} and exits with 1. Nothing else
// goes to stdout, so the test can read it line by line; node-opcua's own messages go to
// stderr, and only when "verbose" is set.
//
// It stops on SIGTERM, SIGINT or when stdin closes, so it never outlives the process
// that started it.

import fs from "node:fs";
import path from "node:path";
import {
    OPCUAServer,
    OPCUACertificateManager,
    MessageSecurityMode,
    SecurityPolicy,
    setWarningLogger,
    setErrorLogger,
    setDebugLogger
} from "node-opcua";

// Every option the script knows, with its default. An unknown key is an error, so a
// misspelt option in a test fails loudly instead of silently testing the default.
const defaults = {
    port: 0,
    // The address the socket binds to; anything but loopback is refused below.
    host: "127.0.0.1",
    // The host name the server puts into its endpoint URLs and certificate.
    hostname: "127.0.0.1",
    // Where the server keeps its own certificate and the client certificates it sees.
    // Required: the source tree must never hold generated keys.
    pkiDir: null,
    securityModes: ["None", "Sign", "SignAndEncrypt"],
    securityPolicies: ["None", "Basic256Sha256"],
    allowAnonymous: true,
    // [{"user": "...", "password": "..."}]
    users: [],
    // The module's client brings a certificate nobody signed; trust it on first sight.
    acceptUnknownCertificates: true,
    applicationUri: "urn:kolv:interop:node-opcua",
    productUri: "urn:kolv:interop:node-opcua",
    applicationName: "KOLV interop node-opcua",
    verbose: false
};

// Builders for parts of the address space, keyed by option name. Each takes
// (addressSpace, namespace, value of the option) and runs once after start-up; the
// key becomes a known option with no value by default.
const addressSpaceSections = {};

function fail(message) {
    process.stdout.write(JSON.stringify({ ready: false, error: String(message) }) + "\n");
    process.exit(1);
}

function readOptions(argv) {
    let text = "{}";
    if (argv.length === 2 && argv[0] === "--options") {
        text = fs.readFileSync(argv[1], "utf8");
    } else if (argv.length === 1) {
        text = argv[0];
    } else if (argv.length !== 0) {
        fail("usage: server.js '<json>' | server.js --options <file>");
    }
    let given;
    try {
        given = JSON.parse(text);
    } catch (e) {
        fail(`options are not JSON: ${e.message}`);
    }
    if (given === null || typeof given !== "object" || Array.isArray(given)) fail("options must be a JSON object");
    const known = new Set([...Object.keys(defaults), ...Object.keys(addressSpaceSections)]);
    for (const key of Object.keys(given)) {
        if (!known.has(key)) fail(`unknown option "${key}"`);
    }
    return { ...defaults, ...given };
}

function toSecurityModes(names) {
    return names.map((name) => {
        const mode = MessageSecurityMode[name];
        if (typeof mode !== "number" || mode === MessageSecurityMode.Invalid) fail(`unknown security mode "${name}"`);
        return mode;
    });
}

function toSecurityPolicies(names) {
    return names.map((name) => {
        const uri = SecurityPolicy[name];
        if (typeof uri !== "string" || !uri.startsWith("http")) fail(`unknown security policy "${name}"`);
        return uri;
    });
}

function isLoopback(host) {
    return host === "localhost" || host === "::1" || /^127(\.\d{1,3}){3}$/.test(host);
}

async function main() {
    const options = readOptions(process.argv.slice(2));
    if (!options.pkiDir) fail("option pkiDir is required");
    if (!isLoopback(options.host)) fail(`host "${options.host}" is not a loopback address`);

    const log = (...args) => process.stderr.write(args.map(String).join(" ") + "\n");
    const quiet = () => {};
    setWarningLogger(options.verbose ? log : quiet);
    setErrorLogger(options.verbose ? log : quiet);
    setDebugLogger(options.verbose ? log : quiet);

    fs.mkdirSync(options.pkiDir, { recursive: true });
    const serverCertificateManager = new OPCUACertificateManager({
        rootFolder: path.join(options.pkiDir, "server"),
        automaticallyAcceptUnknownCertificate: options.acceptUnknownCertificates
    });
    // Without one of its own the server would create a user PKI in the home directory.
    const userCertificateManager = new OPCUACertificateManager({
        rootFolder: path.join(options.pkiDir, "user"),
        automaticallyAcceptUnknownCertificate: false
    });

    const users = new Map(options.users.map((u) => [u.user, u.password]));
    const server = new OPCUAServer({
        port: options.port,
        host: options.host,
        hostname: options.hostname,
        securityModes: toSecurityModes(options.securityModes),
        securityPolicies: toSecurityPolicies(options.securityPolicies),
        allowAnonymous: options.allowAnonymous,
        userManager: {
            isValidUser: (user, password) => users.has(user) && users.get(user) === password
        },
        serverCertificateManager,
        userCertificateManager,
        serverInfo: {
            applicationUri: options.applicationUri,
            productUri: options.productUri,
            applicationName: { text: options.applicationName, locale: "en" }
        },
        // No registration with a discovery server: nothing outside loopback.
        registerServerMethod: 1 /* RegisterServerMethod.HIDDEN */
    });

    let stopping = false;
    const stop = async (code) => {
        if (stopping) return;
        stopping = true;
        // A server that hangs in shutdown must not keep the test waiting.
        setTimeout(() => process.exit(code), 2000).unref();
        try {
            await server.shutdown(0);
        } catch {
            // exiting anyway
        }
        process.exit(code);
    };
    process.on("SIGTERM", () => stop(0));
    process.on("SIGINT", () => stop(0));
    process.stdin.on("end", () => stop(0));
    process.stdin.on("error", () => stop(0));
    process.stdin.resume();

    await server.initialize();
    const addressSpace = server.engine.addressSpace;
    const namespace = addressSpace.getOwnNamespace();
    for (const [key, build] of Object.entries(addressSpaceSections)) {
        if (options[key] !== undefined) build(addressSpace, namespace, options[key]);
    }
    await server.start();

    // What GetEndpoints returns. With "None" left out of securityModes node-opcua still
    // opens a None channel for discovery, but marks it restricted and never lists it.
    const endpoints = server.endpoints
        .flatMap((e) => e.endpointDescriptions())
        .filter((d) => !d.restricted)
        .map((d) => ({
            endpointUrl: d.endpointUrl,
            securityMode: MessageSecurityMode[d.securityMode],
            securityPolicy: d.securityPolicyUri.replace(/.*#/, ""),
            userTokens: d.userIdentityTokens.map((t) => t.policyId)
        }));
    const port = server.endpoints[0].port;
    process.stdout.write(
        JSON.stringify({ ready: true, port, endpointUrl: `opc.tcp://${options.hostname}:${port}`, endpoints }) + "\n"
    );
}

main().catch((e) => fail(e && e.stack ? e.stack : e));
