// Pipelined throughput: --requests requests with --window outstanding, a
// new one sent as each reply arrives. The bus side is BusClient::pipelined
// and BusClient::pipelinedFromCallback (pipelined.cpp), the relay side below.
#pragma once

#include "common.h"
#include "options.h"

namespace UlmarCommsBench {

struct RelayLink;

// The relay client's pipelined run over link: pipelined_req_per_s.
bool relayPipelined(RelayLink& link, const Options& options, Figures& figures);

} // namespace UlmarCommsBench
