/*
 * The lock-directory protocol of lib/file/fileLock.cpp, for a model checker (spin).
 *
 * Each locker takes and gives back ROUNDS locks, shared or exclusive as it likes. One step of the model is one file
 * operation. Locker 0 may die before any of its steps. Checked:
 *   - nobody gets an exclusive lock beside anybody, nor a shared one beside an exclusive one (assert);
 *   - nobody gets in before a living member that waits, conflicts and comes first (assert);
 *   - everybody gets through, whoever has died and wherever (no invalid end state).
 *
 * What the protocol rests on is part of the model, and can be taken away from it to see what it is good for:
 *   REUSE      numbers are drawn from fewer than there are locks, so that one may be drawn again while somebody
 *              still waits for its last holder, or clears up behind it
 *   SLOW       a living locker may be held up in the doorway for so long that it is taken for dead
 *   LISTING    0: a listing is a snapshot; 1: names one by one, doorways first; 2: members before doorways;
 *              3: all names at once, of which those are left out that are gone when each is looked at
 *   LOOKS      1: members are taken from the listing that found the doorway empty, not from one made after it
 *   IGNORE     a locker does not look whether its own entry directory was still there to be removed
 * Left out: the lock directory itself, which comes and goes around all this, and the waiting time, which only ever
 * gives up.
 */
#ifndef LOCKERS
#define LOCKERS 3
#endif
#ifndef ROUNDS
#define ROUNDS 1
#endif
#ifndef CRASH
#define CRASH 1
#endif
#ifndef REUSE
#define REUSE 0
#endif
#ifndef SLOW
#define SLOW 0
#endif
#ifndef LISTING
#define LISTING 0
#endif
#ifndef LOOKS
#define LOOKS 2
#endif
#ifndef IGNORE
#define IGNORE 0
#endif
#ifndef TYPES
#define TYPES 2 /* 2: shared or exclusive; 1: exclusive only */
#endif
#if REUSE
#define NUMBERS 2
#else
#define NUMBERS (LOCKERS * ROUNDS)
#endif
#define NONE 255

/* The lock directory: entry directories, entry files and member files by number. */
bool entryDir[NUMBERS];
byte entryOwner[NUMBERS];
bool entryFile[NUMBERS];
bool member[NUMBERS];
byte memberTicket[NUMBERS];
bool memberExclusive[NUMBERS];
byte memberOwner[NUMBERS];

bool alive[LOCKERS];
bool holds[LOCKERS];
bool holdsExclusive[LOCKERS];
byte deaths;

/* Forgets what is not looked at any more, which keeps states together. */
inline forget() {
    d_step {
        readTicket = 0;
        readExclusive = false;
        readOwner = NONE;
        k = 0;
        do
        :: k < NUMBERS -> seenDir[k] = false; seenMember[k] = false; k++
        :: else -> break
        od;
        k = 0
    }
}

inline passMember() {
    d_step { seenMember[k] = false; readTicket = 0; readExclusive = false; readOwner = NONE; k++ }
}

#define MAY_DIE if :: (CRASH && me == 0 && deaths == 0) -> goto dead :: true fi

#define COMES_FIRST(t1, n1, t2, n2) ((t1) < (t2) || ((t1) == (t2) && (n1) < (n2)))

inline sawDoorways() {
    k = 0;
    do
    :: k < NUMBERS -> d_step { seenDir[k] = entryDir[k]; k++ }
    :: else -> break
    od
}

inline sawMembers() {
    k = 0;
    do
    :: k < NUMBERS -> d_step { seenMember[k] = member[k]; k++ }
    :: else -> break
    od
}

inline list() {
#if LISTING == 0 || LISTING == 3
    d_step {
        k = 0;
        do
        :: k < NUMBERS -> seenDir[k] = entryDir[k]; seenMember[k] = member[k]; k++
        :: else -> break
        od;
        k = 0
    }
#if LISTING == 3
    do
    :: d_step { k < NUMBERS -> seenDir[k] = seenDir[k] && entryDir[k]; k++ }
    :: else -> break
    od;
    k = 0 /* a member that is gone is found so when it is read */
#endif
#elif LISTING == 1
    sawDoorways(); sawMembers();
    k = 0
#else
    sawMembers(); sawDoorways();
    k = 0
#endif
}

/* Reads member k into (readTicket, readExclusive, readOwner); readOwner is NONE when it has gone. */
inline readMember() {
    d_step {
        if
        :: member[k] -> readTicket = memberTicket[k]; readExclusive = memberExclusive[k]; readOwner = memberOwner[k]
        :: else -> readTicket = 0; readExclusive = false; readOwner = NONE
        fi
    }
}

/* Looks until the doorway is empty. A dead locker's entry directory is cleared after a time. */
inline lookAtDoorway() {
    MAY_DIE;
    list();
    do
    :: k < NUMBERS && seenDir[k] ->
        if
        :: !entryDir[k]
        :: entryDir[k] && (SLOW || !alive[entryOwner[k]]) ->
            MAY_DIE;
            member[k] = false;
            MAY_DIE;
            entryFile[k] = false;
            MAY_DIE;
            entryDir[k] = false
        fi;
        forget();
        goto scan
    :: atomic { k < NUMBERS && !seenDir[k] -> k++ }
    :: k == NUMBERS -> break
    od;
    k = 0
}

inline enter() {
    atomic {
        k = 0;
        do
        :: k < LOCKERS ->
            assert(!(holds[k] && (exclusive || holdsExclusive[k])));
            k++
        :: else -> break
        od;
        k = 0;
        do
        :: k < NUMBERS ->
            assert(!(member[k] && k != number && alive[memberOwner[k]] && !holds[memberOwner[k]] &&
                     COMES_FIRST(memberTicket[k], k, ticket, number) && (exclusive || memberExclusive[k])));
            k++
        :: else -> break
        od;
        k = 0;
        holds[me] = true;
        holdsExclusive[me] = exclusive
    }
}

active [LOCKERS] proctype Locker() {
    byte me = _pid;
    byte round = 0;
    byte number = 0;
    byte ticket = 0;
    bool exclusive = true;
    byte k = 0;
    bool seenDir[NUMBERS];
    bool seenMember[NUMBERS];
    byte readTicket = 0;
    bool readExclusive = false;
    byte readOwner = NONE;

    alive[me] = true;

again:
    if
    :: TYPES == 2 -> exclusive = false
    :: exclusive = true
    fi;

claim:
    /* A number nobody holds: its entry directory can be made, and it has no member. */
#if REUSE
    if
    :: number = 0
    :: number = 1
    fi;
#else
    number = me * ROUNDS + round;
#endif
    MAY_DIE;
    if
    :: atomic { !entryDir[number] -> entryDir[number] = true; entryOwner[number] = me }
    :: atomic { REUSE && entryDir[number] -> goto claim }
    fi;
    MAY_DIE;
    if
    :: member[number] -> MAY_DIE; entryDir[number] = false; goto claim
    :: else
    fi;
    MAY_DIE;
    entryFile[number] = true;

    /* The ticket: above every member's. */
    MAY_DIE;
    ticket = 0;
    list();
    do
    :: k < NUMBERS && seenMember[k] ->
        MAY_DIE;
        readMember();
        if
        :: readOwner != NONE && !alive[readOwner] -> MAY_DIE; member[k] = false
        :: readOwner != NONE && alive[readOwner] && readTicket > ticket -> ticket = readTicket
        :: else
        fi;
        passMember()
    :: k < NUMBERS && !seenMember[k] -> k++
    :: k == NUMBERS -> break
    od;
    forget();
    ticket++;

    /* Publish, and leave the doorway. */
    MAY_DIE;
    if
    :: atomic {
           entryFile[number] ->
           entryFile[number] = false;
           member[number] = true;
           memberTicket[number] = ticket;
           memberExclusive[number] = exclusive;
           memberOwner[number] = me
       }
    :: else -> goto withdraw /* taken for dead */
    fi;
    MAY_DIE;
    if
    :: atomic { entryDir[number] -> entryDir[number] = false }
    :: else ->
#if IGNORE
       skip
#else
       goto withdraw
#endif
    fi;

scan:
    lookAtDoorway();
#if LOOKS == 2
    forget();
    lookAtDoorway();
#endif
    do
    :: k < NUMBERS && seenMember[k] && k != number ->
        MAY_DIE;
        readMember();
        if
        :: readOwner != NONE && !alive[readOwner] ->
            MAY_DIE;
            member[k] = false
        :: readOwner != NONE && alive[readOwner] && COMES_FIRST(readTicket, k, ticket, number) &&
           (exclusive || readExclusive) ->
            MAY_DIE;
            if
            :: !member[k]
            :: !alive[readOwner] -> MAY_DIE; member[k] = false
            fi
        :: else
        fi;
        passMember()
    :: k < NUMBERS && (!seenMember[k] || k == number) -> k++
    :: k == NUMBERS -> break
    od;
    forget();

    MAY_DIE;
    enter();
    MAY_DIE;
    holds[me] = false;
    MAY_DIE;

withdraw:
    member[number] = false;
    forget();
    d_step { ticket = 0; number = 0 }
    round++;
    if
    :: round < ROUNDS -> goto again
    :: else -> goto ended
    fi;

dead:
    atomic { alive[me] = false; holds[me] = false; deaths++ }

ended:
    skip
}
