#include "camera_daemon.h"

#include <arpa/inet.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include <kest/utils/crashdumps.h>
#include <kest/utils/lowlevelsocket.h>
#include <kest/utils/string_utils.h>
#include <kest/utils/timer.h>

#include "requests.h"
#include "state_file.h"

namespace {

constexpr unsigned kPatienceMs = 2000;

// What the controller's command "crash" comes to: a write through a pointer that points nowhere.
__attribute__((noinline)) void crashOnPurpose() {
    volatile int* volatile nowhere = nullptr;
    *nowhere = 1;  // NOLINT(clang-analyzer-core.NullDereference): that is the purpose
}

bool failedToListen(const char* kind, unsigned short port) {
    fprintf(stderr, "camera_daemon: cannot listen on %s port %u: %s\n", kind, port,
            strerror(errno));
    return false;
}

CameraDaemon& daemonOf(void* arg) {
    return *static_cast<CameraDaemon*>(arg);
}

}  // namespace

CameraDaemon::CameraDaemon(const Options& options)
    : options_(options),
      input_(scheduler_, STDIN_FILENO, [this](const std::string& line) { onLine(line); }),
      udp_(scheduler_,
           [this](const std::string& text, const sockaddr_in& from) { onDatagram(text, from); }),
      tcp_(
          scheduler_,
          [this](unsigned number) {
              ++counts_.connections;
              printf("tcp %u: connected\n", number);
          },
          [this](unsigned number, unsigned long long echoed) {
              counts_.echoedBytes += echoed;
              printf("tcp %u: closed after %llu bytes\n", number, echoed);
          }),
      controller_(scheduler_, [this](const std::string& text) { onCommand(text); }),
      snapshots_(scheduler_,
                 [this](const char* what, const std::string& path) { onSnapshot(what, path); }),
      sound_(scheduler_, options.sound),
      onlyOne_(options.lockName.c_str(), false),
      worker_(scheduler_) {}

CameraDaemon::~CameraDaemon() {
    // Taken out one by one: Stop() would warn of each timer and handler that is still there.
    for (const auto id : timers_) {
        if (id != 0) scheduler_.RemoveTimerTask(id);
    }
    for (const auto id : signals_) {
        if (id != 0) scheduler_.RemoveSignalHandler(id);
    }
}

bool CameraDaemon::run() {
    // Each line is to be seen when it happens, also through a pipe.
    setvbuf(stdout, nullptr, _IOLBF, 0);
    if (!start()) {
        fprintf(stderr, "camera_daemon: could not start\n");
        return false;
    }
    while (running_) {
        if (!scheduler_.Service() && errno != EINTR) return false;
    }
    printSummary();
    return true;
}

bool CameraDaemon::start() {
    if (!installCrashDumps()) return false;
    // Signals first: a request to end must not find a daemon that does not listen yet.
    if (!scheduler_.Init() || !addSignals() || !addTimers()) return false;
    if (!lock() || !startServices() || !startWatching()) return false;
    if (!options_.stateFile.empty()) {
        const unsigned starts = readStarts(options_.stateFile) + 1;
        if (!writeStarts(options_.stateFile, starts)) return false;
        printf("state: start number %u\n", starts);
    }
    printf("ready: udp %u tcp %u\n", udp_.port(), tcp_.port());
    return true;
}

bool CameraDaemon::lock() {
    const int result = onlyOne_.acquire();
    if (result == -3) {
        fprintf(stderr, "camera_daemon: it is running already\n");
        return false;
    }
    // A machine without a folder for locks is no reason not to serve.
    if (result != 0) fprintf(stderr, "camera_daemon: no lock: %s\n", strerror(errno));
    return true;
}

bool CameraDaemon::installCrashDumps() const {
    const char* folder = options_.crashFolder.empty() ? nullptr : options_.crashFolder.c_str();
    return !options_.crashDumps || kest::utils::InstallCrashDumpHandler(folder);
}

bool CameraDaemon::startServices() {
    if (!kest::utils::SetFdNoSIGPIPE(-1)) return false;
    if (!udp_.start(options_.udpPort)) return failedToListen("UDP", options_.udpPort);
    if (!tcp_.start(options_.tcpPort)) return failedToListen("TCP", options_.tcpPort);
    statistics_.start();
    if (!worker_.start() || !input_.start()) return false;
    return options_.controller.uri.empty() || controller_.start(options_.controller);
}

bool CameraDaemon::startWatching() {
    if (!options_.snapshots.folder.empty() && !snapshots_.start(options_.snapshots)) return false;
    if (options_.systemLog && !systemLog_.start()) printf("log: none\n");
    return true;
}

bool CameraDaemon::addSignals() {
    const auto onEnd = [](void* arg) {
        daemonOf(arg).end();
        return true;
    };
    const auto onHup = [](void* arg) {
        daemonOf(arg).onHangup();
        return true;
    };
    return addSignal(SIGINT, onEnd) && addSignal(SIGTERM, onEnd) && addSignal(SIGHUP, onHup);
}

bool CameraDaemon::addSignal(int signo, bool (*callback)(void*)) {
    signals_.push_back(scheduler_.AddSignalHandler(signo, callback, this));
    return signals_.back() != 0;
}

bool CameraDaemon::addTimers() {
    return addTimer(options_.tickMs, options_.tickMs, [this] { onTick(); }) &&
           addTimer(options_.oneShotMs, 0, [this] {
               ++counts_.oneShots;
               printf("timer: one-shot\n");
           });
}

bool CameraDaemon::addTimer(unsigned initialMs, unsigned periodMs, std::function<void()> onExpiry) {
    timers_.push_back(scheduler_.AddTimerTask(
        initialMs, periodMs,
        [onExpiry = std::move(onExpiry)](unsigned long long, void*) {
            onExpiry();
            return true;
        },
        nullptr));
    return timers_.back() != 0;
}

// The reply comes later, on the scheduler's thread: what is asked for may take many seconds, and
// the loop has others to serve meanwhile. False when the text asks for nothing.
bool CameraDaemon::perform(const std::string& text, Worker::Done reply) {
    if (text == "record") {
        ++counts_.requests;
        sound_.record(std::move(reply));
        return true;
    }
    Worker::Job work = workFor(text, options_.requests);
    if (!work) return false;
    ++(asksForTool(text) ? counts_.tools : counts_.requests);
    if (!worker_.run(std::move(work), reply)) reply("too much to do");
    return true;
}

void CameraDaemon::onLine(const std::string& line) {
    ++counts_.lines;
    printf("line: %s\n", printable(line).c_str());
    perform(line, [](const std::string& result) { printf("answer: %s\n", result.c_str()); });
}

// Anybody on this machine can send a datagram, from whatever address: tools are all they get.
void CameraDaemon::onDatagram(const std::string& text, const sockaddr_in& from) {
    ++counts_.datagrams;
    printf("udp %u: %s\n", ntohs(from.sin_port), text.c_str());
    if (!asksForTool(text)) return;
    perform(text, [this, from](const std::string& result) { udp_.send(result, from); });
}

void CameraDaemon::onHangup() {
    ++counts_.hangups;
    printf("signal: SIGHUP\n");
}

void CameraDaemon::onTick() {
    printf("timer: tick %u\n", ++counts_.ticks);
    snapshots_.service();
    for (const std::string& message : systemLog_.take()) {
        ++counts_.logged;
        printf("log: %s\n", message.c_str());
    }
    const std::string text = kest::utils::format(
        "telemetry ticks=%u snapshots=%u uptime=%s %s", counts_.ticks, counts_.snapshots,
        timeToString(static_cast<int>(nowMs() / 1000)).c_str(), statistics_.text().c_str());
    if (controller_.send(text)) ++counts_.telemetry;
}

void CameraDaemon::onCommand(const std::string& text) {
    printf("controller: %s\n", printable(text).c_str());
    if (text == "crash") crashOnPurpose();
    if (perform(text, [this](const std::string& result) { controller_.send("answer " + result); }))
        ++counts_.commands;
}

void CameraDaemon::onSnapshot(const char* what, const std::string& path) {
    if (strcmp(what, "kept") == 0) ++counts_.snapshots;
    if (strcmp(what, "dropped") == 0) ++counts_.dropped;
    printf("snapshot: %s %s\n", what, path.c_str());
}

void CameraDaemon::end() {
    printf("signal: asked to end\n");
    // Should the controller not answer the close, the daemon ends without its answer.
    addTimer(kPatienceMs, 0, [this] { running_ = false; });
    controller_.close([this] { running_ = false; });
}

void CameraDaemon::printSummary() const {
    printf(
        "summary: lines=%u datagrams=%u connections=%u echoed=%llu tools=%u requests=%u ticks=%u "
        "oneshots=%u hangups=%u ",
        counts_.lines, counts_.datagrams, counts_.connections, counts_.echoedBytes, counts_.tools,
        counts_.requests, counts_.ticks, counts_.oneShots, counts_.hangups);
    printf("controllers=%u telemetry=%u commands=%u snapshots=%u dropped=%u logged=%u\n",
           controller_.connections(), counts_.telemetry, counts_.commands, counts_.snapshots,
           counts_.dropped, counts_.logged);
}
