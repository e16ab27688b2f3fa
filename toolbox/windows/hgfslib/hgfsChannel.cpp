// How the server is attached to the host channel: the command "f" and the capability.
#include "hgfslib/hgfsServer.h"

#include "hgfslib/hgfsServerInt.h"
#include "rpcout/rpcout.h"

namespace {

const char kCommand[] = "f";

// Every reply to the channel is handed over in here.
uint8_t replyBuffer[kHgfsLargePacketMax];

bool HandleCommand(const char** result, uint64_t* resultLength, const char*, const char* args,
                   uint64_t argsSize, void*) {
    if (argsSize == 0) {
        return RpcIn_SetResult(result, resultLength, "1 argument required", false);
    }
    // The first byte is the blank behind the command's name.
    size_t size = argsSize - 1;
    HgfsServer_HandlePacket(reinterpret_cast<const uint8_t*>(args + 1), replyBuffer, &size);
    *result = reinterpret_cast<const char*>(replyBuffer);
    *resultLength = size;
    return true;
}

} // namespace

bool HgfsServer_RegisterWithChannel(RpcIn* in, const char* applicationName) {
    if (!HgfsServerStartUp(HgfsPlatform_System(), kHgfsMaxCachedNodes, nullptr)) {
        return false;
    }
    if (in == nullptr) {
        return true;
    }
    RpcIn_RegisterCallback(in, kCommand, HandleCommand, nullptr);
    HgfsServer_SendCapability(applicationName, true);
    return true;
}

void HgfsServer_UnregisterFromChannel(RpcIn* in, const char* applicationName) {
    HgfsServer_SendCapability(applicationName, false);
    if (in != nullptr) {
        RpcIn_UnregisterCallback(in, kCommand);
    }
    HgfsServerShutDown();
}

bool HgfsServer_SendCapability(const char* applicationName, bool enabled) {
    return RpcOut_SendRequest(nullptr, nullptr, "tools.capability.hgfs_server %s %s", applicationName,
                              enabled ? "1" : "0");
}
