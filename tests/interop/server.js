// A node-opcua server for the interoperability tests: a stack we did not write, on
// loopback only, configured by one JSON object: node server.js '<json>'
//
// When the server listens it prints one JSON line on stdout:
//   {"ready":true,"port":N,"endpoints":[{"endpointUrl":..,
//    "securityMode":"Sign","securityPolicy":"Basic256Sha256"}, ...],
//    "namespaces":{"<section>":index, ...},
//    "certificate":{"thumbprint":"<sha1 hex>","notAfter":<epoch s>,"keyBits":N,"commonName":"..",
//                   "chain":N}}
// On a fatal error it prints {"ready":false,"error":"..."} and exits with 1.
//
// It stops on SIGTERM or when stdin closes, so it never outlives the process
// that started it.

import crypto from "node:crypto";
import fs from "node:fs";
import path from "node:path";
import {
    OPCUAServer,
    OPCUACertificateManager,
    MessageSecurityMode,
    SecurityPolicy,
    setWarningLogger,
    setErrorLogger,
    DataType,
    LocalizedText,
    Variant,
    VariantArrayType
} from "node-opcua";

// Every option the script knows, with its default. An unknown key is an error, so a
// misspelt option in a test fails loudly instead of silently testing the default.
const defaults = {
    // The host name the server puts into its endpoint URLs and certificate; the socket
    // binds to 127.0.0.1 whatever it says.
    hostname: "127.0.0.1",
    // Where the server keeps its own certificate and the client certificates it sees.
    // Required: the source tree must never hold generated keys.
    pkiDir: null,
    securityModes: ["None", "Sign", "SignAndEncrypt"],
    securityPolicies: ["None", "Basic256Sha256"],
    allowAnonymous: true,
    // [{"user": "...", "password": "..."}]
    users: [],
    // PEM files of the server's own certificate and key; without them node-opcua makes a
    // self-signed pair in pkiDir.
    certificateFile: null,
    privateKeyFile: null,
    // Objects/Custom, below; its namespace index goes into the ready line, as node-opcua
    // hands out indexes in the order namespaces are registered.
    custom: false
};

// The values the custom sensor reads, one variable per kind, in the namespace
// customNamespaceUri with string NodeIDs ("ns=N;s=<name>") under Objects/Custom. Every
// DisplayName is "<name> (node-opcua)", so a test can tell it from the BrowseName.
// Option value: true.
const customNamespaceUri = "urn:kolv:interop:custom";

// node-opcua carries 64-bit integers as [high, low] 32-bit words.
function int64Words(text) {
    const mask = (1n << 64n) - 1n;
    const bits = BigInt(text) & mask;
    return [Number(bits >> 32n), Number(bits & 0xffffffffn)];
}

function buildCustom(addressSpace) {
    const namespace = addressSpace.registerNamespace(customNamespaceUri);
    const folder = namespace.addFolder(addressSpace.rootFolder.objects, { browseName: "Custom", nodeId: "s=Custom" });
    const add = (name, dataType, v, array) =>
        namespace.addVariable({
            organizedBy: folder,
            browseName: name,
            nodeId: `s=${name}`,
            displayName: { text: `${name} (node-opcua)`, locale: "en" },
            dataType,
            valueRank: array ? 1 : -1,
            arrayDimensions: array ? [v.length] : null,
            accessLevel: "CurrentRead",
            userAccessLevel: "CurrentRead",
            value: new Variant({
                dataType: DataType[dataType],
                arrayType: array ? VariantArrayType.Array : VariantArrayType.Scalar,
                value: v
            })
        });

    add("Boolean", "Boolean", true);
    add("BooleanFalse", "Boolean", false);
    add("SByte", "SByte", -100);
    add("Byte", "Byte", 250);
    add("Int16", "Int16", -30000);
    add("UInt16", "UInt16", 65000);
    add("Int32", "Int32", -2000000000);
    add("UInt32", "UInt32", 4000000000);
    // Not representable as a double: a client that goes through one loses the last digit.
    add("Int64", "Int64", int64Words("-9007199254740993"));
    add("UInt64", "UInt64", int64Words("9223372036854775807"));
    add("Float", "Float", -2.75);
    add("Double", "Double", 1234.5678);
    add("StringNumber", "String", "12.5 kg");
    add("StringText", "String", "abc");
    // 1709210096 s after 1970-01-01; the milliseconds must be cut off, not rounded.
    add("DateTime", "DateTime", new Date("2024-02-29T12:34:56.789Z"));
    add("LocalizedText", "LocalizedText", new LocalizedText({ locale: "de", text: "7.25 bar" }));
    add("Int32Array", "Int32", new Int32Array([-5, 0, 2147483647]), true);
    add("DoubleArray", "Double", new Float64Array([0.5, -1.25, 1e300]), true);
    add("SensorMessage", "String", "Pump 3 running");
    return namespace.index;
}

// What the certificate sensor must find, from the chain node-opcua serves: its endpoints
// carry the whole chain, concatenated, and the first certificate is the server's own.
function describeCertificate(chain) {
    const der = chain[0];
    const x509 = new crypto.X509Certificate(der);
    const commonName = /^CN=(.*)$/m.exec(x509.subject);
    return {
        thumbprint: crypto.createHash("sha1").update(der).digest("hex"),
        notAfter: Math.round(Date.parse(x509.validTo) / 1000),
        keyBits: x509.publicKey.asymmetricKeyDetails.modulusLength,
        commonName: commonName ? commonName[1] : null,
        chain: chain.length
    };
}

function fail(message) {
    process.stdout.write(JSON.stringify({ ready: false, error: String(message) }) + "\n");
    process.exit(1);
}

function readOptions(argv) {
    if (argv.length !== 1) fail("usage: server.js '<json>'");
    const given = JSON.parse(argv[0]);
    const known = new Set(Object.keys(defaults));
    for (const key of Object.keys(given)) {
        if (!known.has(key)) fail(`unknown option "${key}"`);
    }
    return { ...defaults, ...given };
}

async function main() {
    const options = readOptions(process.argv.slice(2));
    if (!options.pkiDir) fail("option pkiDir is required");

    const log = (...args) => process.stderr.write(args.map(String).join(" ") + "\n");
    setWarningLogger(log);
    setErrorLogger(log);

    fs.mkdirSync(options.pkiDir, { recursive: true });
    // The module's client brings a certificate nobody signed; trusted on first sight.
    const serverCertificateManager = new OPCUACertificateManager({
        rootFolder: path.join(options.pkiDir, "server"),
        automaticallyAcceptUnknownCertificate: true
    });
    // Without one of its own the server would create a user PKI in the home directory.
    const userCertificateManager = new OPCUACertificateManager({
        rootFolder: path.join(options.pkiDir, "user"),
        automaticallyAcceptUnknownCertificate: false
    });

    const users = new Map(options.users.map((u) => [u.user, u.password]));
    const server = new OPCUAServer({
        ...(options.certificateFile ? { certificateFile: options.certificateFile } : {}),
        ...(options.privateKeyFile ? { privateKeyFile: options.privateKeyFile } : {}),
        port: 0,
        host: "127.0.0.1",
        hostname: options.hostname,
        securityModes: options.securityModes.map((name) => MessageSecurityMode[name]),
        securityPolicies: options.securityPolicies.map((name) => SecurityPolicy[name]),
        allowAnonymous: options.allowAnonymous,
        userManager: {
            isValidUser: (user, password) => users.has(user) && users.get(user) === password
        },
        serverCertificateManager,
        userCertificateManager,
        serverInfo: {
            applicationUri: "urn:kolv:interop:node-opcua",
            productUri: "urn:kolv:interop:node-opcua",
            applicationName: { text: "KOLV interop node-opcua", locale: "en" }
        },
        // No registration with a discovery server: nothing outside loopback.
        registerServerMethod: 1 /* RegisterServerMethod.HIDDEN */
    });

    let stopping = false;
    const stop = () => {
        if (stopping) return;
        stopping = true;
        // A server that hangs in shutdown must not keep the test waiting.
        setTimeout(() => process.exit(0), 2000).unref();
        server.shutdown(0).finally(() => process.exit(0));
    };
    process.on("SIGTERM", stop);
    process.stdin.on("end", stop).on("error", stop).resume();

    await server.initialize();
    const addressSpace = server.engine.addressSpace;
    const namespaces = {};
    if (options.custom) namespaces.custom = buildCustom(addressSpace);
    await server.start();

    // What GetEndpoints returns. With "None" left out of securityModes node-opcua still
    // opens a None channel for discovery, but marks it restricted and never lists it.
    const endpoints = server.endpoints
        .flatMap((e) => e.endpointDescriptions())
        .filter((d) => !d.restricted)
        .map((d) => ({
            endpointUrl: d.endpointUrl,
            securityMode: MessageSecurityMode[d.securityMode],
            securityPolicy: d.securityPolicyUri.replace(/.*#/, "")
        }));
    const port = server.endpoints[0].port;
    process.stdout.write(
        JSON.stringify({
            ready: true,
            port,
            endpoints,
            namespaces,
            certificate: describeCertificate(server.getCertificateChain())
        }) + "\n"
    );
}

main().catch((e) => fail(e && e.stack ? e.stack : e));
