// The bus client between hosts: ulmarcomms-bench's client (BusClient) with
// its server on another host. The server pump keeps its local name; the
// client addresses it as "HOST@name", so every message goes through its own
// daemon and across to the server's daemon.
#pragma once

#include "options.h"

#include <string>

namespace UlmarCommsBench {

// The client process: waits for the server across, runs the round trips,
// the one-way run and the pipelined run, then prints one RESULT line.
int runRemoteBusClient(const Options& options, const std::string& serverHost);

} // namespace UlmarCommsBench
