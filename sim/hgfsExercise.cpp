#include "sim/hgfsExercise.h"

#include "string/str.h"

#include <array>

namespace {

// The operations of one version; older ones stand in where it has none of its own.
struct Ops {
    HgfsOp open, read, write, close;
    HgfsOp searchOpen, searchRead, searchClose;
    HgfsOp getattr, setattr;
    HgfsOp createDir, deleteFile, deleteDir, rename, queryVolume;
    HgfsOp createSymlink, lockChange;
};
constexpr std::array<Ops, 3> VERSIONS = {{
    {HgfsOpOpen, HgfsOpRead, HgfsOpWrite, HgfsOpClose, HgfsOpSearchOpen, HgfsOpSearchRead, HgfsOpSearchClose,
     HgfsOpGetattr, HgfsOpSetattr, HgfsOpCreateDir, HgfsOpDeleteFile, HgfsOpDeleteDir, HgfsOpRename,
     HgfsOpQueryVolumeInfo, HgfsOpCreateSymlink, HgfsOpServerLockChange},
    {HgfsOpOpenV2, HgfsOpRead, HgfsOpWrite, HgfsOpClose, HgfsOpSearchOpen, HgfsOpSearchReadV2,
     HgfsOpSearchClose, HgfsOpGetattrV2, HgfsOpSetattrV2, HgfsOpCreateDirV2, HgfsOpDeleteFileV2,
     HgfsOpDeleteDirV2, HgfsOpRenameV2, HgfsOpQueryVolumeInfo, HgfsOpCreateSymlink, HgfsOpServerLockChange},
    {HgfsOpOpenV3, HgfsOpReadV3, HgfsOpWriteV3, HgfsOpCloseV3, HgfsOpSearchOpenV3, HgfsOpSearchReadV3,
     HgfsOpSearchCloseV3, HgfsOpGetattrV3, HgfsOpSetattrV3, HgfsOpCreateDirV3, HgfsOpDeleteFileV3,
     HgfsOpDeleteDirV3, HgfsOpRenameV3, HgfsOpQueryVolumeInfoV3, HgfsOpCreateSymlinkV3,
     HgfsOpServerLockChangeV3},
}};

enum class Step {
    CreateDir,
    Open,
    Write,
    Append,
    Read,
    Setattr,
    SetattrByHandle,
    Getattr,
    GetattrByHandle,
    SearchOpen,
    SearchSelf,
    SearchParent,
    SearchFile,
    SearchEnd,
    SearchClose,
    VolumeOfDirectory,
    AllVolumes,
    Rename,
    ReadRenamed,
    Close,
    OpenEmptied, // emptied by an open that may only read
    ReadEmptied,
    CloseEmptied,
    DeleteFile,
    DeleteDir,
    CreateSymlink,
    LockChange,
    Count
};
constexpr size_t STEPS = static_cast<size_t>(Step::Count);

constexpr std::string_view CONTENT = "twelve bytes";
constexpr uint32_t CUT = 7;                         // the size that set attributes leaves of them
constexpr uint64_t WRITE_TIME = 0x01D0000000000000; // in the year 2014
constexpr std::string_view DIRECTORY = "sub dir";
constexpr std::string_view FILE_NAME = "con:1 \xC3\xA4."; // all but the last rule of the escape at once
constexpr std::string_view MOVED = "moved";

std::string Below(const std::string& directory, std::string_view child) {
    return directory + '\0' + std::string(child);
}

void Attributes(HgfsPackets_Request* request) {
    request->change.mask = kHgfsBlockSize | kHgfsBlockWrite | kHgfsBlockOwnerPerms;
    request->change.size = CUT;
    request->change.writeTime = WRITE_TIME;
    request->change.ownerPerms = kHgfsPermRead | kHgfsPermWrite | kHgfsPermExecute;
}

void Open(HgfsPackets_Request* request, uint32_t mode, uint32_t flags) {
    request->mask = kHgfsMaskOpenV1;
    request->mode = mode;
    request->flags = flags;
}

// Version 1 asks for attributes by name only.
bool VersionHasHandles(const Ops& ops) {
    return ops.getattr != HgfsOpGetattr;
}

void Search(HgfsPackets_Request* request, const Ops& ops, Step step) {
    request->op = ops.searchRead;
    request->index = static_cast<uint32_t>(step) - static_cast<uint32_t>(Step::SearchSelf);
}

// Long because it is a table: one case for each step.
void Build(const HgfsExercise& exercise, const Ops& ops, Step step, HgfsPackets_Request* request) {
    const std::string directory = Below(exercise.directory, DIRECTORY);
    const std::string file = Below(directory, FILE_NAME);
    const std::string moved = Below(exercise.directory, MOVED);
    auto on = [&](HgfsOp op, const std::string& name) {
        request->op = op;
        request->name = name;
    };
    auto onHandle = [&](HgfsOp op, uint32_t handle) {
        request->op = op;
        request->handle = handle;
    };
    switch (step) {
    case Step::CreateDir:
        on(ops.createDir, directory);
        request->mask = kHgfsMaskAttributes;
        request->attributes = kHgfsAttrHidden;
        break;
    case Step::Open:
        on(ops.open, file);
        Open(request, kHgfsModeReadWrite, kHgfsOpenCreate);
        break;
    case Step::Append:
        request->writeFlags = kHgfsWriteAppend;
        [[fallthrough]];
    case Step::Write:
        onHandle(ops.write, exercise.handle);
        request->data = CONTENT;
        request->size = static_cast<uint32_t>(CONTENT.size());
        break;
    case Step::Read:
    case Step::ReadRenamed:
    case Step::ReadEmptied:
        onHandle(ops.read, exercise.handle);
        request->size = 100;
        break;
    case Step::SetattrByHandle:
        onHandle(ops.setattr, exercise.handle);
        request->mask = kHgfsMaskHandle;
        request->name = VersionHasHandles(ops) ? "" : file;
        Attributes(request);
        break;
    case Step::Setattr:
        on(ops.setattr, file);
        Attributes(request);
        break;
    case Step::GetattrByHandle:
        onHandle(ops.getattr, exercise.handle);
        request->mask = kHgfsMaskHandle;
        request->name = VersionHasHandles(ops) ? "" : file;
        break;
    case Step::Getattr:
        on(ops.getattr, file);
        break;
    case Step::SearchOpen:
        on(ops.searchOpen, directory);
        break;
    case Step::SearchSelf:
    case Step::SearchParent:
    case Step::SearchFile:
    case Step::SearchEnd:
        request->handle = exercise.search;
        Search(request, ops, step);
        break;
    case Step::SearchClose:
        onHandle(ops.searchClose, exercise.search);
        break;
    case Step::VolumeOfDirectory:
        on(ops.queryVolume, exercise.directory);
        break;
    case Step::AllVolumes:
        on(ops.queryVolume, "root");
        break;
    case Step::Rename:
        on(ops.rename, file);
        request->newName = moved;
        break;
    case Step::Close:
    case Step::CloseEmptied:
        onHandle(ops.close, exercise.handle);
        break;
    case Step::OpenEmptied:
        on(ops.open, moved);
        Open(request, kHgfsModeRead | kHgfsModeSequential, kHgfsOpenTruncate);
        break;
    case Step::DeleteFile:
        on(ops.deleteFile, moved);
        break;
    case Step::DeleteDir:
        on(ops.deleteDir, directory);
        break;
    case Step::CreateSymlink:
        request->op = ops.createSymlink;
        break;
    case Step::LockChange:
        request->op = ops.lockChange;
        break;
    case Step::Count:
        break;
    }
}

bool IsTheFile(const HgfsPackets_Attributes& attributes) {
    return attributes.type == kHgfsTypeRegular && attributes.size == CUT &&
           attributes.writeTime == WRITE_TIME && (attributes.ownerPerms & kHgfsPermWrite);
}

// What a reply of success has to hold.
bool IsRight(Step step, const HgfsPackets_Reply& reply) {
    const std::string whole = std::string(CONTENT) + std::string(CONTENT);
    switch (step) {
    case Step::Write:
    case Step::Append:
        return reply.actualSize == CONTENT.size();
    case Step::Read:
        return reply.data == whole;
    case Step::ReadRenamed:
        return reply.data == whole.substr(0, CUT);
    case Step::ReadEmptied:
        return reply.data.empty();
    case Step::Getattr:
    case Step::GetattrByHandle:
        return IsTheFile(reply.attributes);
    case Step::SearchSelf:
        return reply.name == "." && reply.attributes.type == kHgfsTypeDirectory;
    case Step::SearchParent:
        return reply.name == ".." && reply.attributes.type == kHgfsTypeDirectory;
    case Step::SearchFile:
        return reply.name == FILE_NAME && IsTheFile(reply.attributes);
    case Step::SearchEnd:
        return reply.name.empty();
    case Step::VolumeOfDirectory:
    case Step::AllVolumes:
        return reply.freeBytes <= reply.totalBytes;
    default:
        return true;
    }
}

bool IsRefused(Step step) {
    return step == Step::CreateSymlink || step == Step::LockChange;
}

Step StepOf(const HgfsExercise& exercise) {
    return static_cast<Step>(exercise.step % STEPS);
}

} // namespace

bool HgfsExercise_Next(const HgfsExercise& exercise, HgfsPackets_Request* request) {
    const size_t version = exercise.step / STEPS;
    if (version >= VERSIONS.size()) {
        return false;
    }
    *request = {};
    Build(exercise, VERSIONS[version], StepOf(exercise), request);
    return true;
}

bool HgfsExercise_Take(HgfsExercise* exercise, const HgfsPackets_Reply& reply, std::string* error) {
    const Step step = StepOf(*exercise);
    const uint32_t expected = IsRefused(step) ? HgfsStatusOperationNotSupported : HgfsStatusSuccess;
    HgfsPackets_Request request;
    HgfsExercise_Next(*exercise, &request);
    ++exercise->step;
    // A handle that nobody has when there is none.
    const uint32_t handle = reply.status == HgfsStatusSuccess ? reply.handle : UINT32_MAX;
    if (step == Step::Open || step == Step::OpenEmptied) {
        exercise->handle = handle;
    } else if (step == Step::SearchOpen) {
        exercise->search = handle;
    }
    if (reply.status != expected) {
        *error = Str_Format("%s: status %u instead of %u", kHgfsOps[request.op].name.data(),
                            static_cast<unsigned>(reply.status), static_cast<unsigned>(expected));
        return false;
    }
    if (reply.status == HgfsStatusSuccess && !IsRight(step, reply)) {
        *error = Str_Format("%s: step %u of the walk was answered wrongly", kHgfsOps[request.op].name.data(),
                            static_cast<unsigned>(exercise->step));
        return false;
    }
    return true;
}
