#include <getopt.h>

#include <cstdio>

#include "../parse_number.h"
#include "certificate.h"
#include "controller.h"

namespace {

constexpr char kUsage[] =
    "usage: controller [OPTION...]\n"
    "\n"
    "A websocket server on loopback for the camera daemon. Lines on standard input go to every "
    "camera\n"
    "that is connected; what cameras say goes to standard output. Ends on SIGINT or SIGTERM.\n"
    "\n"
    "  --port=N       port to listen on (default: any that is free)\n"
    "  --tls=FILE     TLS with the certificate in this PEM file and the key in FILE.key, both of "
    "which\n"
    "                 are made when missing\n"
    "  --record=FILE  append telemetry to this file\n"
    "  --help         this text\n";

bool parsePort(const char* text, int& port) {
    unsigned value = 0;
    if (!parseNumber(text, 65535, value)) return false;
    port = static_cast<int>(value);
    return true;
}

bool apply(int option, const char* value, Options& options) {
    switch (option) {
        case 'p':
            return parsePort(value, options.port);
        case 't':
            options.certFile = value;
            options.keyFile = options.certFile + ".key";
            return true;
        case 'r':
            options.recordFile = value;
            return true;
        default:
            return false;
    }
}

// Exit status with which to end at once, or -1 to go on.
int parse(int argc, char** argv, Options& options) {
    static const option kOptions[] = {{"port", required_argument, nullptr, 'p'},
                                      {"tls", required_argument, nullptr, 't'},
                                      {"record", required_argument, nullptr, 'r'},
                                      {"help", no_argument, nullptr, 'h'},
                                      {nullptr, 0, nullptr, 0}};
    for (int c = 0; (c = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
        if (c == 'h') {
            fputs(kUsage, stdout);
            return 0;
        }
        if (!apply(c, optarg, options)) {
            fputs(kUsage, stderr);
            return 2;
        }
    }
    return -1;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    const int status = parse(argc, argv, options);
    if (status != -1) return status;
    if (!options.certFile.empty() && !ensureCertificate(options.certFile, options.keyFile))
        return 1;
    Controller controller(options);
    return controller.run() ? 0 : 1;
}
