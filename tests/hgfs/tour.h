// A walk through every operation in every version, for fault sweeps and for the real file system.
#pragma once

#include "sim/hgfsPackets.h"

#include <functional>
#include <string>

// Carries out one request; `handle` variables of later requests come from earlier replies.
using TourStep = std::function<HgfsPackets_Reply(const HgfsPackets_Request& request)>;

// Works below `directory`, a protocol name of an existing, empty directory, and leaves it empty when every
// step succeeds.
inline void Tour(const std::string& directory, const TourStep& step) {
    auto below = [&](const char* child) { return directory + '\0' + child; };
    struct Ops {
        HgfsOp open, read, write, close, searchOpen, searchRead, searchClose, getattr, setattr, createDir,
            deleteFile, deleteDir, rename, volume;
    };
    constexpr Ops kVersions[] = {
        {HgfsOpOpen, HgfsOpRead, HgfsOpWrite, HgfsOpClose, HgfsOpSearchOpen, HgfsOpSearchRead,
         HgfsOpSearchClose, HgfsOpGetattr, HgfsOpSetattr, HgfsOpCreateDir, HgfsOpDeleteFile, HgfsOpDeleteDir,
         HgfsOpRename, HgfsOpQueryVolumeInfo},
        {HgfsOpOpenV2, HgfsOpRead, HgfsOpWrite, HgfsOpClose, HgfsOpSearchOpen, HgfsOpSearchReadV2,
         HgfsOpSearchClose, HgfsOpGetattrV2, HgfsOpSetattrV2, HgfsOpCreateDirV2, HgfsOpDeleteFileV2,
         HgfsOpDeleteDirV2, HgfsOpRenameV2, HgfsOpQueryVolumeInfo},
        {HgfsOpOpenV3, HgfsOpReadV3, HgfsOpWriteV3, HgfsOpCloseV3, HgfsOpSearchOpenV3, HgfsOpSearchReadV3,
         HgfsOpSearchCloseV3, HgfsOpGetattrV3, HgfsOpSetattrV3, HgfsOpCreateDirV3, HgfsOpDeleteFileV3,
         HgfsOpDeleteDirV3, HgfsOpRenameV3, HgfsOpQueryVolumeInfoV3},
    };
    for (const Ops& ops : kVersions) {
        auto request = [&](HgfsOp op, const std::string& name = {}) {
            HgfsPackets_Request made;
            made.op = op;
            made.id = 0x5A000000u + op;
            made.name = name;
            return made;
        };
        const std::string sub = below("sub dir");
        const std::string file = sub + '\0' + "con:1 \xC3\xA4.";

        HgfsPackets_Request createDir = request(ops.createDir, sub);
        createDir.mask = kHgfsMaskAttributes;
        createDir.attributes = kHgfsAttrHidden;
        step(createDir);

        HgfsPackets_Request open = request(ops.open, file);
        open.mask = kHgfsMaskOpenV1;
        open.mode = kHgfsModeReadWrite;
        open.flags = kHgfsOpenCreate;
        const uint32_t handle = step(open).handle;

        HgfsPackets_Request write = request(ops.write);
        write.handle = handle;
        write.data = "twelve bytes";
        write.size = 12;
        step(write);
        write.writeFlags = kHgfsWriteAppend;
        step(write);
        HgfsPackets_Request read = request(ops.read);
        read.handle = handle;
        read.size = 100;
        step(read);

        HgfsPackets_Request setattr = request(ops.setattr, file);
        setattr.change.mask = kHgfsBlockSize | kHgfsBlockWrite | kHgfsBlockOwnerPerms;
        setattr.change.size = 7;
        setattr.change.writeTime = 0x01D0000000000000;
        setattr.change.ownerPerms = 7;
        step(setattr);
        setattr.mask = kHgfsMaskHandle;
        setattr.handle = handle;
        step(setattr);
        HgfsPackets_Request getattr = request(ops.getattr, file);
        step(getattr);
        getattr.mask = kHgfsMaskHandle;
        getattr.handle = handle;
        step(getattr);

        HgfsPackets_Request search = request(ops.searchOpen, sub);
        HgfsPackets_Request entry = request(ops.searchRead);
        entry.handle = step(search).handle;
        for (; entry.index < 4; ++entry.index) {
            step(entry);
        }
        search.op = ops.searchClose;
        search.handle = entry.handle;
        step(search);
        step(request(ops.volume, directory));
        step(request(ops.volume, "root"));

        HgfsPackets_Request rename = request(ops.rename, file);
        rename.newName = below("moved");
        step(rename);
        step(read);
        HgfsPackets_Request close = request(ops.close);
        close.handle = handle;
        step(close);

        open.name = rename.newName; // emptied by one that may only read
        open.mode = kHgfsModeRead | kHgfsModeSequential;
        open.flags = kHgfsOpenTruncate;
        close.handle = step(open).handle;
        step(close);
        step(request(ops.deleteFile, below("moved")));
        step(request(ops.deleteDir, sub));
    }
}
