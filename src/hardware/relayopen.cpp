// Drives the machine-stop relay open, whatever has become of the server: the service manager runs this after every end
// of it. No library but the C library's, no memory, no configuration: it has to work when nothing else does.
//
//     tessaro-relay-open [GPIO-FOLDER]
//
// Ends with status 0 when the drive line is at 0, or with 1 and a line on the standard error stream.

#include "gpiolines.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

int main(int argc, char** argv)
{
    char path[256];
    std::snprintf(path, sizeof(path), "%s/gpio%d/value", argc > 1 ? argv[1] : GpioFolder, DriveLine);
    const int drive = open(path, O_WRONLY | O_CLOEXEC);
    if (drive >= 0 && write(drive, "0", 1) == 1) {
        return 0;
    }
    std::fprintf(stderr, "tessaro-relay-open: %s: %s\n", path, std::strerror(errno));
    return 1;
}
