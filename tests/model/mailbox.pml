// A model of the mailbox in linux/SharedMemoryLinux.cpp for SPIN: one writer, one reader, three messages of two words.
// tests/model/runs.txt lists the runs. These settings choose one:
//
//   ORDER   0: every store is visible at once. 1: stores wait in a buffer and leave it in their order, as on x86.
//           2: stores leave the buffer in any order, but a release store leaves it after all earlier ones.
//   SERVER  the process that is the server: WRITER or READER. The other one is the client.
//   KILL    the process that can be killed once, before any access. It starts again, opens the mailbox, and continues.
//   REOPEN  the side that another process opens once more, at any time.
//   NEVER   a state that the run expects never to reach.
//
// A test of SharedMemoryLinuxTest compares the accesses below with those of the functions. The model's processes wait
// without a time limit. Where the layer reports a time-out, the model stops, because nothing can happen any more.

#define NOBODY 0
#define WRITER 1
#define READER 2
#define OPENER 3
#define SIDE_NONE 0
#define SIDE_SERVER 1
#define SIDE_CLIENT 2
#ifndef KILL
#define KILL NOBODY
#endif
#ifndef REOPEN
#define REOPEN SIDE_NONE
#endif
#ifndef NEVER
#define NEVER false
#endif
#define UNDISTURBED (KILL == NOBODY && REOPEN != SIDE_SERVER)

#define DATA_READY 0
#define SEGMENT_FREE 1
#define SERVER_READY 2
#define CLIENT_READY 3
#define LENGTH 4
#define WORD0 5
#define WORD1 6
#define PLACES 7

byte memory[PLACES];  // a new segment is zero
byte own[28];         // the last value that a process has stored
byte waiting[28];     // how many of its stores to a place are in its buffer
chan buffer[4] = [8] of { byte, byte, bool };  // place, value, release

bool killed;        // the process KILL has been killed
bool readIsDisturbed;  // since the last read began, a server has opened the mailbox, or both flags have been set
bool openedAgain;   // a server has opened a mailbox that was in use
byte opens;         // how many stores of opens are in buffers
byte received;      // the last message that a read has returned
bool torn;          // a read has returned bytes of two messages
bool stuck;         // both sides have waited, and nothing could happen
bool writerIsDone;

#define STATE_BOTH (memory[DATA_READY] && memory[SEGMENT_FREE])
#define STATE_FULL (memory[DATA_READY] && !memory[SEGMENT_FREE])
#define STATE_CHANGING (!memory[DATA_READY] && !memory[SEGMENT_FREE] && memory[SERVER_READY])
#define STATE_EMPTY (!memory[DATA_READY] && memory[SEGMENT_FREE])
#define IS_OF_OPEN(who, place, value) (who != READER && place == SEGMENT_FREE && value)  // it may overtake a read
#define LENGTH_OF(message) (10 + message)

// The store becomes visible to the other processes. Both flags are set only if a server opens a mailbox in use.
inline publish(place, value)
{
    memory[place] = value;
    assert(!STATE_BOTH || openedAgain);
    assert(!(NEVER));
    readIsDisturbed = readIsDisturbed || STATE_BOTH
}

inline leaveBuffer(who, place)
{
    opens = opens - IS_OF_OPEN(who, place, value);
    waiting[who * PLACES + place]--;
    own[who * PLACES + place] = (waiting[who * PLACES + place] -> own[who * PLACES + place] : 0);
    publish(place, value)
}

#define VALUE(place) (waiting[me * PLACES + place] -> own[me * PLACES + place] : memory[place])

inline put(place, value, release)
{
    readIsDisturbed = readIsDisturbed || IS_OF_OPEN(me, place, value);
#if ORDER == 0
    publish(place, value);
#else
    opens = opens + IS_OF_OPEN(me, place, value);
    own[me * PLACES + place] = value;
    waiting[me * PLACES + place]++;
    buffer[me]!place, value, release;
#endif
}

// Each access is a step. Before it the process can be killed.
#if KILL
#define DIE if :: me == KILL && !killed -> killed = true; goto dead :: true fi;
#else
#define DIE
#endif
#define STORE(place, value) DIE atomic { put(place, value, false) }
#define RELEASE(place, value) DIE atomic { put(place, value, true) }
#define LOAD(variable, place) DIE variable = VALUE(place)
#define AWAIT_MESSAGE(place) DIE atomic { VALUE(place) != 0 -> readIsDisturbed = STATE_BOTH || opens }
#define AWAIT(place) DIE VALUE(place) != 0

inline openAsServer()
{
    RELEASE(DATA_READY, 0);
    RELEASE(SEGMENT_FREE, 1);
    STORE(LENGTH, 0);
    RELEASE(SERVER_READY, 1);
}

inline openAsClient()
{
    RELEASE(CLIENT_READY, 1);
}

inline write()
{
    AWAIT(CLIENT_READY);
    AWAIT(SERVER_READY);
    AWAIT(SEGMENT_FREE);
    STORE(WORD0, message);
    STORE(WORD1, message);
    STORE(LENGTH, LENGTH_OF(message));
    RELEASE(SEGMENT_FREE, 0);
    RELEASE(DATA_READY, 1);
}

inline read()
{
    AWAIT_MESSAGE(DATA_READY);
    LOAD(length, LENGTH);
    LOAD(word0, WORD0);
    LOAD(word1, WORD1);
    RELEASE(DATA_READY, 0);
    RELEASE(SEGMENT_FREE, 1);
}

// Attaching a segment is a system call, which empties the buffer of the processor. So does the end of a process.
inline open(side)
{
    empty(buffer[me]);
    if
    :: side == SIDE_SERVER ->
        openedAgain = openedAgain || memory[SERVER_READY];
        openAsServer()
    :: side == SIDE_CLIENT -> openAsClient()
    fi
}

active proctype writer()
{
    byte me = WRITER, message = 1;
start:
    open((SERVER == WRITER -> SIDE_SERVER : SIDE_CLIENT));
    do
    :: message <= 3 -> write(); message++
    :: else -> break
    od;
    writerIsDone = true;
    goto done;
dead:
    goto start;  // repeats the message that was not written completely
done:
    skip
}

active proctype reader()
{
    byte me = READER, length, word0, word1;
start:
    open((SERVER == READER -> SIDE_SERVER : SIDE_CLIENT));
    do
    :: read();
       d_step {
           if
           :: length == 0 -> assert(openedAgain)
           :: else ->
               torn = torn || word0 != word1 || length != LENGTH_OF(word0);
               assert(readIsDisturbed || word0 == word1 && length == LENGTH_OF(word0));
               assert(!(NEVER));
               assert(word0 == received + 1 || !UNDISTURBED && received <= word0);
               received = word0
           fi;
           length = 0; word0 = 0; word1 = 0
       }
    od;
dead:
    goto start
}

#if REOPEN
active proctype opener()
{
    byte me = OPENER;
    memory[SERVER_READY];
    open(REOPEN);
dead:
    skip
}
#endif

#if ORDER
// Empties the buffers.
#define OLDEST(who) :: atomic { buffer[who]?place, value, _ -> leaveBuffer(who, place) }
#define ANY(who, where) :: atomic { buffer[who]??where, value, false -> leaveBuffer(who, where) }
#define ANY_PLACE(who) \
    ANY(who, DATA_READY) ANY(who, SEGMENT_FREE) ANY(who, SERVER_READY) ANY(who, CLIENT_READY) ANY(who, LENGTH) \
    ANY(who, WORD0) ANY(who, WORD1)
active proctype processor()
{
    byte place, value;
end:
    do
    OLDEST(WRITER)
    OLDEST(READER)
    OLDEST(OPENER)
#if ORDER == 2
    ANY_PLACE(WRITER)
    ANY_PLACE(READER)
    ANY_PLACE(OPENER)
#endif
    od
}
#endif

// Nothing can happen any more. Either all messages have been written and read, or a process was killed in Changing, and
// a server opens the mailbox again.
active proctype end()
{
    byte me = OPENER;
    do
    :: timeout ->
        if
        :: writerIsDone && STATE_EMPTY ->
            assert(!UNDISTURBED || received == 3);
            break
        :: else ->
            assert(killed && STATE_CHANGING);
            stuck = true;
            assert(!(NEVER));
            open(SIDE_SERVER)
        fi
    od;
dead:
    skip
}
