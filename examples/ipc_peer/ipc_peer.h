// What the daemons that answer other daemons have in common.
#pragma once

#include <kest/ipc/IpcService.h>

// Answers requests to the endpoint until SIGINT or SIGTERM. Returns the program's exit status. Call
// it before starting a thread.
int answerUntilEnded(const char* endpoint, kest::ipc::IpcService::Handler handler);
