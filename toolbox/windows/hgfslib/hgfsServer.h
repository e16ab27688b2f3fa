// The guest file server: serves the host's HGFS requests, which arrive as the channel command "f".
#pragma once

#include "rpcin/rpcin.h"

bool HgfsServer_RegisterWithChannel(RpcIn* in, const char* applicationName);
void HgfsServer_UnregisterFromChannel(RpcIn* in, const char* applicationName);
bool HgfsServer_SendCapability(const char* applicationName, bool enabled);
