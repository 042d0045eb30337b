#include <fcntl.h>
#include <unistd.h>

#include "camera_daemon.h"
#include "options.h"

int main(int argc, char** argv) {
    // Started without standard descriptors, the daemon's own would take their numbers.
    int spare = 0;
    while (spare >= 0 && spare <= STDERR_FILENO)
        spare = open("/dev/null", O_RDWR);
    close(spare);
    Options options;
    const int status = parseOptions(argc, argv, options);
    if (status != -1) return status;
    CameraDaemon daemon(options);
    return daemon.run() ? 0 : 1;
}
