// The example daemon: everything it does hangs on one Scheduler.
#pragma once

#include <netinet/in.h>

#include <functional>
#include <string>
#include <vector>

#include <kest/utils/InterProcessMutex.h>
#include <kest/utils/scheduler.h>

#include "controller_link.h"
#include "line_input.h"
#include "options.h"
#include "snapshot_keeper.h"
#include "sound_recorder.h"
#include "system_log.h"
#include "tcp_echo.h"
#include "telemetry.h"
#include "udp_port.h"
#include "worker.h"

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
        unsigned requests = 0;
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
    bool perform(const std::string& text, Worker::Done reply);
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
    Telemetry statistics_;
    SoundRecorder sound_;
    InterProcessMutex onlyOne_;
    Worker worker_;  // ends first: as long as it works, no second daemon may start
};
