// What the daemon's command line says.
#pragma once

#include <string>

#include "controller_link.h"
#include "requests.h"
#include "snapshot_keeper.h"
#include "sound_recorder.h"

struct Options {
    unsigned short udpPort = 0;  // 0: any that is free
    unsigned short tcpPort = 0;
    unsigned tickMs = 1000;
    unsigned oneShotMs = 500;
    std::string stateFile;  // empty: remember nothing
    std::string lockName = "kest_camera_daemon";
    ControllerLink::Settings controller;  // without a URI: none
    SnapshotKeeper::Settings snapshots;   // without a folder: none
    SoundRecorder::Settings sound;        // without a file: no recording
    RequestSettings requests;
    bool systemLog = false;
    bool crashDumps = false;
    std::string crashFolder;  // empty: a numbered one below /tmp/crashdumps
};

// Exit status with which to end at once, after a text that says why, or -1 to go on.
int parseOptions(int argc, char** argv, Options& options);
