// The descriptors on which the server's threads wait.
//
// All of them hang on one board, an epoll instance: when a thread is woken by one of them, the kernel alone knows until
// the thread runs, and the board shows it to the conductor in one call. A board keeps nothing open.
#pragma once

#include <poll.h>

namespace virtualtime {

/// A new board, or -1.
int makeBoard();

/// This thread is about to wait for these.
void hangOut(const pollfd* fds, nfds_t count);

/// This thread will wait for descriptors no more.
void forgetDescriptors();

/// The descriptor is about to be closed.
void takeDown(int fd);

/// Something is going to be written to this descriptor: whoever waits for it is called.
void callWaiterFor(int fd);

/// Whether it is the serial line.
bool isSerialLine(int fd);

} // namespace virtualtime
