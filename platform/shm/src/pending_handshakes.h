// Handshakes that a writer has not answered in time, kept for the next open of that name.
//
// Readers open in threads that must not wait (a tick, a user interface) and try again every second. A stopped
// writer would cost them the whole deadline each time; so the unanswered connection is kept, and the next
// open only looks whether the answer has come.
//
// Threads: thread-safe. A handshake that is taken out belongs to the taker.
#ifndef SHM_PENDING_HANDSHAKES_H
#define SHM_PENDING_HANDSHAKES_H

#include "handshake.h"

#include <memory>
#include <string>

namespace shm {

// The handshake kept for this socket file; null when there is none or the file belongs to another writer by
// now.
std::unique_ptr<Handshake> takePendingHandshake(const std::string &directory, const std::string &name,
                                                const SocketFile &file);
void keepPendingHandshake(const std::string &directory, const std::string &name,
                          std::unique_ptr<Handshake> handshake);

} // namespace shm

#endif
