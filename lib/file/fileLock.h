// Advisory locks on file names, shared or exclusive, between processes and between machines that share a file
// system. They rest on ordinary file operations alone and bind only those who ask for them.
//
// The locks of file P live in the directory P.lck beside it. Every locker draws a number N and goes through
// the doorway of a bakery: it makes the directory DN.lck, takes a ticket one above every ticket that it can
// see, writes it to EN.lck, renames that to its member file MN.lck, and removes DN.lck. Then it waits until
// nobody is in the doorway, and for each conflicting member with a smaller ticket to go. Members and doorways
// that dead processes left behind are removed by whoever meets them; those of another machine can only be
// waited out.
//
// What the exclusion rests on:
//
// Making a directory and renaming a file are atomic, and a listing shows what is there from its beginning to
// its end. Nobody stays in the doorway for longer than 8 seconds; one who does is taken for dead. A number is
// not drawn again within the moments in which others still wait for, or clean up behind, its last holder; one
// that is may cost a waiter its whole waiting time.
//
// Any thread; the locks belong to the process, and a thread that holds an exclusive one must not ask again.
#pragma once

#include <cstdint>

struct FileLock_Token;

inline constexpr uint32_t FILELOCK_TRY_ONCE = 0;
inline constexpr uint32_t FILELOCK_WAIT_FOREVER = 0xFFFFFFFF;

// Takes a lock: shared when `readOnly`, else exclusive. Waits for other holders up to `maxWaitMs`, counted in
// pauses of 100 ms to 2 s; waiting for somebody in the doorway comes on top. Where the medium is read-only or
// access is denied, a shared lock is granted without any file, with a warning. The token is given back with
// FileLock_Unlock. Null on failure, with an errno-style code (see file.h) in `error`, where 0 means that the
// wait timed out, 11 that a file stands where the directory should be or that others took us for dead, and 34
// that there is no ticket above those in the directory.
FileLock_Token* FileLock_Lock(const char* fileName, bool readOnly, uint32_t maxWaitMs, int* error);

// Releases a lock and the token. The same name as given to FileLock_Lock. Returns an errno-style code.
int FileLock_Unlock(const char* fileName, FileLock_Token* token);
