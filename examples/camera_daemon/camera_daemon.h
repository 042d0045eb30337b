// The example daemon: everything it does hangs on one Scheduler.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <kest/utils/InterProcessMutex.h>
#include <kest/utils/scheduler.h>

#include "controller_link.h"
#include "line_input.h"
#include "snapshot_keeper.h"
#include "system_log.h"
#include "tcp_echo.h"
#include "udp_port.h"

struct Options {
    unsigned short udpPort = 0;  // 0: any that is free
    unsigned short tcpPort = 0;
    unsigned tickMs = 1000;
    unsigned oneShotMs = 500;
    std::string stateFile;  // empty: remember nothing
    std::string lockName = "kest_camera_daemon";
    ControllerLink::Settings controller;  // without a URI: none
    SnapshotKeeper::Settings snapshots;   // without a folder: none
    bool systemLog = false;
    bool crashDumps = false;
    std::string crashFolder;  // empty: a numbered one below /tmp/crashdumps
};

class CameraDaemon {
  public:
    explicit CameraDaemon(const Options& options);
    ~CameraDaemon();
    CameraDaemon(const CameraDaemon&) = delete;
    CameraDaemon& operator=(const CameraDaemon&) = delete;

    // Serves until SIGINT or SIGTERM. False when it could not start or its loop failed.
    bool run();

  private:
    struct Counts {
        unsigned lines = 0;
        unsigned datagrams = 0;
        unsigned connections = 0;
        unsigned long long echoedBytes = 0;
        unsigned tools = 0;
        unsigned ticks = 0;
        unsigned oneShots = 0;
        unsigned hangups = 0;
        unsigned telemetry = 0;
        unsigned commands = 0;
        unsigned snapshots = 0;
        unsigned dropped = 0;
        unsigned logged = 0;
    };

    bool start();
    bool lock();
    bool installCrashDumps() const;
    bool startServices();
    bool startWatching();
    bool addSignals();
    bool addSignal(int signo, bool (*callback)(void*));
    bool addTimers();
    bool addTimer(unsigned initialMs, unsigned periodMs, std::function<void()> onExpiry);
    void onLine(const std::string& line);
    void onDatagram(const std::string& text, const sockaddr_in& from);
    void onHangup();
    void onTick();
    void onCommand(const std::string& text);
    void onSnapshot(const char* what, const std::string& path);
    void end();
    bool toolAskedFor(const std::string& text, std::string& answer);
    void printSummary() const;

    const Options options_;
    Counts counts_;
    bool running_ = true;
    kest::utils::Scheduler scheduler_;
    std::vector<unsigned long long> signals_;
    std::vector<unsigned long long> timers_;
    LineInput input_;
    UdpPort udp_;
    TcpEcho tcp_;
    ControllerLink controller_;
    SnapshotKeeper snapshots_;
    SystemLog systemLog_;
    InterProcessMutex onlyOne_;
};
