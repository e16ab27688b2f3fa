// The guest file server: serves the host's HGFS requests, which arrive as the channel command "f".
//
// One server per process, on the thread that runs the command loop. docs/protocol.md describes the requests.
#pragma once

#include "rpcin/rpcin.h"

// Starts the server, adds the command and tells the host of it; a host that does not hear is no failure. `in`
// may be null: the server then runs without a channel, for tests. False, with nothing left behind, when
// memory is short or the system lacks what the server needs.
bool HgfsServer_RegisterWithChannel(RpcIn* in, const char* applicationName);

// Undoes HgfsServer_RegisterWithChannel, which must have succeeded: tells the host, removes the command and
// closes every file that is still open.
void HgfsServer_UnregisterFromChannel(RpcIn* in, const char* applicationName);

// Tells the host that files are served, or no longer. Whether it answered with success.
bool HgfsServer_SendCapability(const char* applicationName, bool enabled);
