/* Tells when the server has decided to check the relay after a machine stop: when it starts the timer of that check, whatever
 * becomes of its log. Loaded before Qt into an unchanged server (LD_PRELOAD). TESSARO_DECISION names an existing file of eight
 * bytes, which gets the time of the newest start, in nanoseconds of the monotonic clock.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

enum { CheckDelayMs = 1000 }; /* no other timer of the server has this interval */

static _Atomic int64_t* decision;
static void (*start)(void*, int);

__attribute__((constructor)) static void prepare(void)
{
    const char* path = getenv("TESSARO_DECISION");
    const int file = path ? open(path, O_RDWR | O_CLOEXEC) : -1;
    if (file >= 0) {
        void* place = mmap(NULL, sizeof(*decision), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
        decision = place == MAP_FAILED ? NULL : place;
        close(file);
    }
    start = (void (*)(void*, int))dlsym(RTLD_NEXT, "_ZN6QTimer5startEi");
}

/* QTimer::start(int) */
void _ZN6QTimer5startEi(void* timer, int ms)
{
    if (ms == CheckDelayMs && decision) {
        struct timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        *decision = (int64_t)now.tv_sec * 1000000000 + now.tv_nsec;
    }
    start(timer, ms);
}
