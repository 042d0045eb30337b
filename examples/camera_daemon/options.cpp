#include "options.h"

#include <getopt.h>

#include <cstdio>

#include "../parse_number.h"

namespace {

constexpr char kUsage[] =
    "usage: camera_daemon [OPTION...]\n"
    "\n"
    "Serves standard input, a UDP and a TCP port on loopback, timers and signals until SIGINT or\n"
    "SIGTERM, printing a line for each thing that it handled and a summary at its end.\n"
    "\n"
    "Lines and the controller's messages may ask for: \"run uname -a\" (datagrams may, too),\n"
    "\"token TOKEN\", \"record\", \"firmware\", \"persist\", \"reboot\". \"crash\" from the "
    "controller\n"
    "ends the daemon with SIGSEGV.\n"
    "\n"
    "  --udp-port=N    port for datagrams (default: any that is free)\n"
    "  --tcp-port=N    port for connections (default: any that is free)\n"
    "  --tick-ms=N     period of the ticking timer (default 1000)\n"
    "  --one-shot-ms=N delay of the one-shot timer (default 500)\n"
    "  --state=FILE    file that remembers how often the daemon was started\n"
    "  --lock=NAME     name of the lock that keeps a second daemon from starting\n"
    "  --controller=URI  controller to connect to, such as wss://127.0.0.1:8443/camera\n"
    "  --pin=FILE      certificate that the controller must have (PEM; default: any)\n"
    "  --retry-ms=N    delay before the first new connection, doubled each time (default 500)\n"
    "  --snapshots=FOLDER  folder whose *.jpg files are kept, the newest ones only\n"
    "  --keep=N        how many snapshots are kept (default 100)\n"
    "  --record=FILE   WAV file that \"record\" makes\n"
    "  --sound-input=FILE  16-bit samples to record, 16 kHz, one channel (default: a tone)\n"
    "  --firmware=FILE image that \"firmware\" checks\n"
    "  --control       obey \"persist\" and \"reboot\", which is meant: without a control daemon "
    "the\n"
    "                  library reboots this machine by itself\n"
    "  --syslog        follow the system log's ring\n"
    "  --crash-dumps[=FOLDER]  leave a report when a fatal signal comes, in this existing folder "
    "or\n"
    "                  in a numbered one below /tmp/crashdumps\n"
    "  --help          this text\n";

bool parsePort(const char* text, unsigned short& port) {
    unsigned value = 0;
    if (!parseNumber(text, 65535, value)) return false;
    port = static_cast<unsigned short>(value);
    return true;
}

bool parseCount(const char* text, int& count) {
    unsigned value = 0;
    if (!parseNumber(text, 1000000, value)) return false;
    count = static_cast<int>(value);
    return true;
}

bool apply(int option, const char* value, Options& options) {
    constexpr unsigned long kDayMs = 86400000;
    switch (option) {
        case 'u':
            return parsePort(value, options.udpPort);
        case 't':
            return parsePort(value, options.tcpPort);
        case 'k':
            return parseNumber(value, kDayMs, options.tickMs);
        case 'o':
            return parseNumber(value, kDayMs, options.oneShotMs);
        case 's':
            options.stateFile = value;
            return true;
        case 'l':
            options.lockName = value;
            return true;
        case 'c':
            options.controller.uri = value;
            return true;
        case 'p':
            options.controller.pinnedCert = value;
            return true;
        case 'r':
            return parseNumber(value, kDayMs, options.controller.retryMs);
        case 'd':
            options.snapshots.folder = value;
            return true;
        case 'n':
            return parseCount(value, options.snapshots.mostFiles);
        case 'w':
            options.sound.file = value;
            return true;
        case 'i':
            options.sound.input = value;
            return true;
        case 'f':
            options.requests.firmwareFile = value;
            return true;
        case 'a':
            options.requests.control = true;
            return true;
        case 'g':
            options.systemLog = true;
            return true;
        case 'x':
            options.crashDumps = true;
            if (value != nullptr) options.crashFolder = value;
            return true;
        default:
            return false;
    }
}

// The exit status for a command line that makes no sense. What getopt does not know it has named.
int refuse(const char* argument) {
    if (argument != nullptr) fprintf(stderr, "camera_daemon: cannot use \"%s\"\n\n", argument);
    fputs(kUsage, stderr);
    return 2;
}

}  // namespace

int parseOptions(int argc, char** argv, Options& options) {
    static const option kOptions[] = {{"udp-port", required_argument, nullptr, 'u'},
                                      {"tcp-port", required_argument, nullptr, 't'},
                                      {"tick-ms", required_argument, nullptr, 'k'},
                                      {"one-shot-ms", required_argument, nullptr, 'o'},
                                      {"state", required_argument, nullptr, 's'},
                                      {"lock", required_argument, nullptr, 'l'},
                                      {"controller", required_argument, nullptr, 'c'},
                                      {"pin", required_argument, nullptr, 'p'},
                                      {"retry-ms", required_argument, nullptr, 'r'},
                                      {"snapshots", required_argument, nullptr, 'd'},
                                      {"keep", required_argument, nullptr, 'n'},
                                      {"record", required_argument, nullptr, 'w'},
                                      {"sound-input", required_argument, nullptr, 'i'},
                                      {"firmware", required_argument, nullptr, 'f'},
                                      {"control", no_argument, nullptr, 'a'},
                                      {"syslog", no_argument, nullptr, 'g'},
                                      {"crash-dumps", optional_argument, nullptr, 'x'},
                                      {"help", no_argument, nullptr, 'h'},
                                      {nullptr, 0, nullptr, 0}};
    for (int c = 0; (c = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
        if (c == 'h') {
            fputs(kUsage, stdout);
            return 0;
        }
        if (c == '?') return refuse(nullptr);
        if (!apply(c, optarg, options)) return refuse(optarg);
    }
    return optind < argc ? refuse(argv[optind]) : -1;
}
