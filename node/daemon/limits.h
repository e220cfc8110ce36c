// What the daemon grants one client, and how it protects itself from the
// rest: every number of docs/daemon.md "Limits" lives here.
#pragma once

#include <chrono>
#include <cstddef>

namespace snanode::daemon::limits {

// Names a client may have registered at once, and accept-waits it may have
// waiting; past either it is disconnected.
inline constexpr size_t kTpNamesPerClient = 1024;
inline constexpr size_t kAcceptWaitsPerClient = 16384;

// Bytes and descriptors queued for a client that does not read; past either
// it is disconnected, so it holds neither the daemon nor its memory.
inline constexpr size_t kOutputBytesPerClient = 256 * 1024;
inline constexpr size_t kOutputDescriptorsPerClient = 2048;

// Connected clients at once; a connection past it is closed at once.
inline constexpr size_t kClients = 4096;

// A client that has not said hello this long after connecting is dropped.
inline constexpr std::chrono::seconds kHelloTimeout{5};

// Password verifications by the system: run at once, and waiting (in all,
// and of one client); an allocation past them is refused for retry.
inline constexpr unsigned kVerifierThreads = 4;
inline constexpr size_t kVerificationsWaiting = 64;
inline constexpr size_t kVerificationsPerClient = 4;

// With the descriptor table full, new connections are taken and closed at
// once, and the listening socket rests this long before the next try.
inline constexpr std::chrono::milliseconds kAcceptBackoff{250};

// Log lines clients can cause: at most this many of one kind per window;
// the rest are counted in one "suppressed" line.
inline constexpr unsigned kLogLinesPerWindow = 20;
inline constexpr std::chrono::seconds kLogWindow{10};

}  // namespace snanode::daemon::limits
