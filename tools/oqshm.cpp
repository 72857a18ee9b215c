// oqshm: shows the shared-memory channels of this host and reports problems. It changes no byte of a segment.
//
// Most data comes from /proc, without attaching. The mailbox is copied through a short read-only attachment. The
// attachment disturbs no channel: the layer never checks the number of attachments, and a segment marked for removal
// disappears with the last detach, even if that is the detach of this tool. Two kinds of segment are not attached:
// - Segments that cannot be channels: other programs may count the attachments of their segments.
// - Segments that no process has attached, unless --attach is given. The detach would overwrite the time of the last
//   detach, which shows how long the channel has been idle. With kernel.shm_rmid_forced it would remove the segment.

#include <errno.h>
#include <getopt.h>
#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/shm.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "OpenPrediction.h"

namespace
{

typedef std::chrono::steady_clock Clock;

const unsigned int cMode = 0666;  // of every segment that the layer creates
const long cLargest = 65535;      // bytes: the layer's shm_size has 16 bits
const double cPatience = 3;       // seconds until a writer gives up; an older message is stuck

const char* const cUsage =
    "usage: oqshm [OPTION]... [KEY]...\n"
    "       oqshm [OPTION]... KEY... --size=BYTES --as=server|client\n"
    "Shows the shared-memory channels of this host, or those of the given keys (1234 or 0x4d2), and reports problems.\n"
    "With --as, reports whether this user can open the channel now, and why not. Changes no byte of a channel.\n\n"
    "  -s, --size=BYTES       the size that the open passes, 1 to 65535\n"
    "      --as=SIDE          the side that opens: server or client\n"
    "  -w, --watch[=SECONDS]  look again every second, or every SECONDS (0.001 to 1000), and show every change\n"
    "  -j, --json             show JSON, one line per look\n"
    "  -a, --attach           also read channels that no process has attached\n"
    "  -h, --help             show this text\n"
    "  -V, --version          show the version\n\n"
    "To read a channel, oqshm attaches it for a moment. The attachment counts in shm_nattch during that time, and it\n"
    "changes shm_atime, shm_dtime and shm_lpid. An OQCMailbox server that opens the channel at that moment may refuse\n"
    "it. Without --attach, a channel that no process has attached keeps these values: the time of the last detach\n"
    "shows how long the channel is idle.\n\n"
    "Exit status: 0 no problem in the channels shown; 1 a problem, or a possible problem; 2 wrong arguments, or the\n"
    "channels cannot be examined. With --as, only problems of the open count.\n";

struct Channel {
    int mKey = 0, mId = -1;  // an id of -1 means that there is no segment
    unsigned int mMode = 0;
    unsigned long mSize = 0, mAttached = 0, mSeen = 0;  // all attachments; those of the processes found
    int mCreator = 0;
    long mDetached = 0;  // time of the last detach
    std::vector<int> mPids;
    std::vector<std::string> mProcesses, mIds, mFindings;  // one identifier for each finding
    bool mWrong = false;
    OpenPrediction mOpen;

    bool mRead = false, mSame = false;  // whether the next members are valid; are unchanged since the last look
    OQSSharedMemoryHeader mHeader = {};
    size_t mHash = 0;                  // of the waiting message
    Clock::time_point mSince, mUntil;  // all looks between these times found the same

    bool isRemoved() const { return 0 != (mMode & SHM_DEST); }
    bool isForeign() const { return cMode != (mMode & 0777) || cLargest < mSize; }
    unsigned long capacity() const { return mSize - sizeof mHeader; }
    /// Adds a finding. Programs rely on its identifier, which the manual page lists.
    void note(const std::string& acrId, const std::string& acrText)
    {
        mIds.push_back(acrId);
        std::string lWords = acrId;
        std::replace(lWords.begin(), lWords.end(), '-', ' ');
        mFindings.push_back(lWords + ": " + acrText);
    }
    void wrong(const std::string& acrId, const std::string& acrText)
    {
        mWrong = true;
        note(acrId, acrText);
    }
};
typedef std::vector<Channel> Channels;

struct Request {
    bool mJson = false, mAttach = false;
    double mSeconds = 0;  // between two looks; 0 means one look
    std::vector<int> mKeys;
    unsigned long mSize = 0;  // of the open to predict; 0 means none
    OQEConnectionMode mSide = OQCM_Client;
};

__attribute__((format(printf, 1, 2))) std::string text(const char* acFormat, ...)
{
    char lText[1024];
    va_list lArguments;
    va_start(lArguments, acFormat);
    vsnprintf(lText, sizeof lText, acFormat, lArguments);
    va_end(lArguments);
    return lText;
}

// ---- Looking --------------------------------------------------------------------------------------------------------

Channels findSegments()
{
    std::ifstream lFile("/proc/sysvipc/shm");
    std::string lLine;
    if (!std::getline(lFile, lLine)) {
        throw std::runtime_error("cannot read /proc/sysvipc/shm");
    }
    Channels lFound;
    while (std::getline(lFile, lLine)) {
        Channel lOne;
        // NOLINTNEXTLINE(cert-err34-c): the kernel wrote these numbers
        if (7 == sscanf(lLine.c_str(), "%d %d %o %lu %d %*d %lu %*u %*u %*u %*u %*d %ld", &lOne.mKey, &lOne.mId,
                        &lOne.mMode, &lOne.mSize, &lOne.mCreator, &lOne.mAttached, &lOne.mDetached)) {
            lFound.push_back(lOne);
        }
    }
    return lFound;
}

/// Records a process that has a segment attached. A stopped process adds a finding.
/// \return whether the process still exists
bool noteProcess(Channel& arChannel, int aPid, const std::filesystem::path& acrDirectory)
{
    std::ostringstream lText;
    lText << std::ifstream(acrDirectory / "stat").rdbuf();  // empty if the process has been reaped meanwhile
    const std::string lStat = lText.str();
    const size_t lBegin = lStat.find('('), lEnd = lStat.rfind(") ");  // the name itself may contain brackets
    if (std::string::npos == lBegin || std::string::npos == lEnd) {
        return false;
    }
    std::string lName = lStat.substr(lBegin + 1, lEnd - lBegin - 1);
    std::replace_if(
        lName.begin(), lName.end(), [](char aLetter) { return aLetter < ' ' || '~' < aLetter; }, '?');
    arChannel.mPids.push_back(aPid);
    arChannel.mProcesses.push_back(
        text("%d %s%s", aPid, lName.c_str(), aPid == arChannel.mCreator ? " (creator)" : ""));
    if ('T' == lStat[lEnd + 2] || 't' == lStat[lEnd + 2]) {
        arChannel.wrong("stopped", text("process %d; if no debugger holds it: kill -CONT %d", aPid, aPid));
    }
    return true;
}

/// Parses the id and the key of a segment from a line of a maps file. Each attachment has one mapping with offset 0.
/// The kernel shows the id in the inode column.
bool isAttachment(const std::string& acrLine, int& arId, int& arKey)
{
    unsigned int lKey;
    // NOLINTNEXTLINE(cert-err34-c): the kernel wrote these numbers
    if (2 != sscanf(acrLine.c_str(), "%*s %*s 00000000 %*s %d /SYSV%x", &arId, &lKey)) {
        return false;
    }
    arKey = static_cast<int>(lKey);
    return true;
}

/// Finds the key of a segment that is marked for removal. The kernel's table no longer holds the key; only the map of a
/// process that has the segment attached shows it. In another process's map the id may mean another segment, so this
/// function attaches the segment and reads its own map.
/// \return the key, or 0 if it is not known
int keyOfRemoved(int aId)
{
    const void* const lpSegment = shmat(aId, NULL, SHM_RDONLY);
    if (reinterpret_cast<void*>(-1) == lpSegment) {
        return 0;
    }
    std::ifstream lMaps("/proc/self/maps");
    std::string lLine;
    int lId = -1, lKey = 0;
    while (std::getline(lMaps, lLine) && !(isAttachment(lLine, lId, lKey) && aId == lId)) {
    }
    shmdt(lpSegment);
    return aId == lId ? lKey : 0;
}

/// Finds the processes that have the segments attached. Processes that this user may not examine are missing. A
/// matching id in a map is not sufficient: a process can have memory from another IPC namespace, where the same id is
/// another segment.
void findProcesses(Channels& arChannels)
{
    std::error_code lError;
    const auto cOwnNamespace = std::filesystem::read_symlink("/proc/self/ns/ipc", lError);
    for (const auto& acrEntry : std::filesystem::directory_iterator("/proc")) {
        const int lPid = static_cast<int>(strtol(acrEntry.path().filename().c_str(), NULL, 10));
        if (lPid <= 0 || cOwnNamespace != std::filesystem::read_symlink(acrEntry.path() / "ns/ipc", lError)) {
            continue;  // in another namespace the id is another segment
        }
        std::ifstream lMaps(acrEntry.path() / "maps");
        std::string lLine;
        while (std::getline(lMaps, lLine)) {
            int lId, lKey;
            if (!isAttachment(lLine, lId, lKey)) {
                continue;
            }
            for (Channel& lrChannel : arChannels) {
                if (lId != lrChannel.mId) {
                    continue;
                }
                if (0 == lrChannel.mKey && 0 < lKey && lrChannel.isRemoved() && !lrChannel.isForeign()) {
                    lrChannel.mKey = keyOfRemoved(lId);
                }
                const bool lKnown = !lrChannel.mPids.empty() && lPid == lrChannel.mPids.back();
                if (lKey == lrChannel.mKey && (lKnown || noteProcess(lrChannel, lPid, acrEntry.path()))) {
                    ++lrChannel.mSeen;
                }
            }
        }
    }
}

/// Copies the header. The four flags are copied at one moment. The length is read after the flags, so it may already
/// belong to the next message, but a full slot never shows the length from before its message.
OQSSharedMemoryHeader copyHeader(const void* acSegment)
{
    const uint32_t lFlags = __atomic_load_n(static_cast<const uint32_t*>(acSegment), __ATOMIC_ACQUIRE);
    OQSSharedMemoryHeader lHeader = *static_cast<const OQSSharedMemoryHeader*>(acSegment);
    memcpy(&lHeader, &lFlags, sizeof lFlags);
    return lHeader;
}

void readMailbox(Channel& arChannel, const Channels& acrBefore)
{
    arChannel.mUntil = Clock::now();
    const void* const lpSegment = shmat(arChannel.mId, NULL, SHM_RDONLY);
    if (reinterpret_cast<void*>(-1) == lpSegment) {
        if (EINVAL == errno || EIDRM == errno) {
            arChannel.mId = -1;  // removed meanwhile
        } else {
            arChannel.wrong("cannot-be-read", strerror(errno));
        }
        return;
    }
    arChannel.mRead = true;
    arChannel.mHeader = copyHeader(lpSegment);
    if (0 != arChannel.mHeader.data_ready) {
        const char* const lpData = static_cast<const char*>(lpSegment) + sizeof arChannel.mHeader;
        const size_t lLength = std::min<size_t>(arChannel.mHeader.data_length, arChannel.capacity());
        arChannel.mHash = std::hash<std::string_view>()(std::string_view(lpData, lLength));
    }
    // Read after the flags, because a side attaches before it marks itself ready.
    shmid_ds lState;
    if (0 == shmctl(arChannel.mId, IPC_STAT, &lState)) {
        arChannel.mAttached = lState.shm_nattch - 1;
    }
    shmdt(lpSegment);
    arChannel.mSince = Clock::now();
    for (const Channel& acrOld : acrBefore) {
        if (acrOld.mId == arChannel.mId && acrOld.mRead && acrOld.mHash == arChannel.mHash &&
            0 == memcmp(&acrOld.mHeader, &arChannel.mHeader, sizeof acrOld.mHeader)) {
            arChannel.mSince = acrOld.mSince;
            arChannel.mSame = true;
        }
    }
}

/// Returns whether the kernel removes every segment with its last detach, even one that is not marked for removal.
bool detachRemoves()
{
    char lValue = '0';
    std::ifstream("/proc/sys/kernel/shm_rmid_forced") >> lValue;
    return '0' != lValue;
}

// ---- Judging --------------------------------------------------------------------------------------------------------

const char* stateOf(const Channel& acrChannel)
{
    const OQSSharedMemoryHeader& lrHeader = acrChannel.mHeader;
    if (0 != lrHeader.data_ready) {
        return 0 != lrHeader.segment_free ? "invalid" : "full";
    }
    return 0 != lrHeader.segment_free ? "empty" : 0 != lrHeader.server_ready ? "changing" : "new";
}

double sameSeconds(const Channel& acrChannel)
{
    return std::chrono::duration<double>(acrChannel.mUntil - acrChannel.mSince).count();
}

void judgeAttachments(Channel& arChannel)
{
    const bool lServer = 0 != arChannel.mHeader.server_ready, lClient = 0 != arChannel.mHeader.client_ready;
    if (arChannel.isRemoved()) {
        arChannel.wrong("removed", "closed by the server; who has it still attached meets nobody and should close it");
    } else if (0 == arChannel.mAttached) {
        arChannel.wrong("stale",
                        text("nobody has it attached; start the server, or remove it: ipcrm -m %d", arChannel.mId));
    } else if (arChannel.mRead && !(lServer && lClient)) {
        arChannel.note("not-ready", text("no %s has opened it, writes are cancelled", lServer ? "client" : "server"));
    } else if (arChannel.mRead && 1 == arChannel.mAttached) {
        if (arChannel.mPids.empty() || arChannel.mSeen != arChannel.mAttached) {  // not visible, or gone meanwhile
            arChannel.wrong("peer-gone", "one side has closed or died; for which one look again, as root");
        } else if (arChannel.mCreator != arChannel.mPids.front()) {
            arChannel.wrong("peer-gone",
                            text("process %d, which made it, has closed it or died; start the server, unless "
                                 "it is who has it attached",
                                 arChannel.mCreator));
        } else if (0 != arChannel.mHeader.segment_free) {
            arChannel.note("no-client", "it has closed or died, and its mark stays");
        } else {
            arChannel.wrong("peer-gone", "the client has closed or died, and a message waits; start the client");
        }
    }
}

void judgeMailbox(Channel& arChannel)
{
    const OQSSharedMemoryHeader& lrHeader = arChannel.mHeader;
    const std::string lState = stateOf(arChannel);
    const bool lLong = cPatience <= sameSeconds(arChannel);
    if (1 < (lrHeader.data_ready | lrHeader.segment_free | lrHeader.server_ready | lrHeader.client_ready) ||
        ("full" == lState && arChannel.capacity() < lrHeader.data_length)) {
        arChannel.wrong("foreign-contents",
                        text("marks %u %u %u %u, length %u", lrHeader.data_ready, lrHeader.segment_free,
                             lrHeader.server_ready, lrHeader.client_ready, lrHeader.data_length));
    } else if ("invalid" == lState) {
        arChannel.wrong(
            "invalid",
            "full and free at once: a server opened again while a client wrote, or two sides wrote at once; "
            "open the server again, or read the message and discard it");
    } else if ("full" == lState && 0 == lrHeader.data_length) {
        arChannel.wrong("empty-message",
                        "full with length 0: a server opened again while a client wrote, or a side wrote 0 bytes; "
                        "open the server again, or read the message and discard it");
    } else if ("full" == lState && lLong) {
        arChannel.wrong("stuck", "the same bytes wait for 3 seconds and more; nobody reads (or equal messages pass)");
    } else if ("changing" == lState && lLong) {
        arChannel.wrong("stuck", "a side stands or died between its two stores; the server's next open puts it right");
    }
}

void judgeChannel(Channel& arChannel)
{
    if (arChannel.mId < 0) {
        arChannel.wrong("no-segment", "the server has not opened it, or has closed it; start the server");
    } else if (arChannel.isForeign()) {
        arChannel.wrong("foreign-segment",
                        text("mode %04o, %lu bytes (a channel: 0666, at most 65535); choose another key",
                             arChannel.mMode & 0777, arChannel.mSize));
    } else {
        judgeAttachments(arChannel);
    }
    if (arChannel.mRead) {
        judgeMailbox(arChannel);
    } else if (0 <= arChannel.mId && arChannel.mSize < sizeof arChannel.mHeader) {
        arChannel.wrong("too-small", "the header alone has 6 bytes");
    }
}

void judgeOpen(Channel& arChannel, unsigned long aSize, OQEConnectionMode aSide)
{
    arChannel.mOpen = predictOpen(arChannel.mKey, aSize, aSide);
    if (0 != arChannel.mOpen.mError) {
        arChannel.wrong(arChannel.mOpen.mpReason, arChannel.mOpen.mRemedy);
    } else if (OQCM_Client == aSide || (0 <= arChannel.mId && arChannel.isForeign())) {
        judgeChannel(arChannel);
    } else if (0 < std::count(arChannel.mPids.begin(), arChannel.mPids.end(), arChannel.mCreator)) {
        arChannel.wrong("in-use", text("the open would empty the mailbox of the server, process %d; end that server "
                                       "first: kill %d",
                                       arChannel.mCreator, arChannel.mCreator));
    } else if (0 < arChannel.mAttached) {
        arChannel.wrong("in-use",
                        "if a server has it attached, the open would empty its mailbox; end that server first: "
                        "kill PID");
    }
    if (aSize < sizeof arChannel.mHeader) {
        arChannel.wrong("too-small", "the header alone has 6 bytes");
    }
}

Channels look(const Request& acrRequest, const Channels& acrBefore)
{
    const std::vector<int>& lrKeys = acrRequest.mKeys;
    Channels lFound = findSegments(), lChannels;
    findProcesses(lFound);
    for (const Channel& acrOne : lFound) {
        if (0 < acrRequest.mSize && acrOne.isRemoved()) {
            continue;  // an open does not find it
        }
        if (lrKeys.empty() ? 0 < acrOne.mKey && !acrOne.isForeign()
                           : 0 < std::count(lrKeys.begin(), lrKeys.end(), acrOne.mKey)) {
            lChannels.push_back(acrOne);
        }
    }
    for (const int lKey : lrKeys) {
        if (std::none_of(lChannels.begin(), lChannels.end(),
                         [&](const Channel& acrOne) { return lKey == acrOne.mKey && !acrOne.isRemoved(); })) {
            lChannels.emplace_back().mKey = lKey;
        }
    }
    for (Channel& lrOne : lChannels) {
        const bool lFits = 0 <= lrOne.mId && !lrOne.isForeign() && sizeof lrOne.mHeader <= lrOne.mSize;
        if (lFits && (0 < lrOne.mAttached || (acrRequest.mAttach && !detachRemoves()))) {
            readMailbox(lrOne, acrBefore);
        }
        if (0 < acrRequest.mSize) {
            judgeOpen(lrOne, acrRequest.mSize, acrRequest.mSide);
        } else {
            judgeChannel(lrOne);
        }
    }
    return lChannels;
}

// ---- Showing --------------------------------------------------------------------------------------------------------

/// Formats a list of texts as JSON. The texts contain only printable ASCII.
std::string listed(const std::vector<std::string>& acrTexts)
{
    std::string lList;
    for (const std::string& acrText : acrTexts) {
        lList += lList.empty() ? "\"" : ", \"";
        for (const char lLetter : acrText) {
            lList += std::string('"' == lLetter || '\\' == lLetter ? "\\" : "") + lLetter;
        }
        lList += '"';
    }
    return "[" + lList + "]";
}

struct Column {
    const char* mpName;
    int mWidth;
    std::string mValue;  // as JSON
};

/// Returns the values shown for a channel, as a table row or as JSON.
/// \param aAges whether to include the ages, which grow even if nothing changes
std::vector<Column> columns(const Channel& acrOne, bool aAges)
{
    const bool lExists = 0 <= acrOne.mId;
    const auto lIf = [](bool aKnown, const std::string& acrValue) { return aKnown ? acrValue : "null"; };
    const auto lMark = [&](unsigned char aMark) { return lIf(acrOne.mRead, 0 != aMark ? "true" : "false"); };
    const double lStill = std::max(0.0, difftime(time(NULL), acrOne.mDetached) - 1);  // both times are whole seconds
    return {{"key", 10, text("\"0x%08x\"", acrOne.mKey)},
            {"id", 10, lIf(lExists, std::to_string(acrOne.mId))},
            {"size", 5, lIf(lExists, std::to_string(acrOne.mSize))},
            {"attached", 8, lIf(lExists, std::to_string(acrOne.mAttached))},
            {"server", 6, lMark(acrOne.mHeader.server_ready)},
            {"client", 6, lMark(acrOne.mHeader.client_ready)},
            {"mailbox", 8, lIf(acrOne.mRead, text("\"%s\"", stateOf(acrOne)))},
            {"length", 6, lIf(0 != acrOne.mHeader.data_ready, std::to_string(acrOne.mHeader.data_length))},
            {"still", 7, lIf(aAges && lExists && 0 == acrOne.mAttached && 0 != acrOne.mDetached, text("%.0f", lStill))},
            {"same", 6, lIf(aAges && acrOne.mSame, text("%.1f", sameSeconds(acrOne)))}};
}

/// Returns the result of the predicted open, as JSON.
std::vector<Column> resultOf(const OpenPrediction& acrOpen)
{
    const bool lThrows = 0 != acrOpen.mError && acrOpen.mKnown;
    const char* const lSucceeds = lThrows ? "false" : "true";
    return {{"succeeds", 0, acrOpen.mKnown ? lSucceeds : "null"},
            {"exception", 0, lThrows ? text("\"%s\"", acrOpen.mpException) : "null"},
            {"code", 0, lThrows ? std::to_string(acrOpen.mCode) : "null"},
            {"text", 0, lThrows ? text("\"%s\"", strerror(acrOpen.mError)) : "null"}};
}

std::string json(const Channels& acrChannels, bool aOpen)
{
    const auto lMembers = [](const std::vector<Column>& acrColumns) {
        std::string lText;
        for (const Column& acrColumn : acrColumns) {
            lText += text("%s\"%s\": ", lText.empty() ? "" : ", ", acrColumn.mpName) + acrColumn.mValue;
        }
        return lText;
    };
    std::string lJson;
    for (const Channel& acrOne : acrChannels) {
        lJson += (lJson.empty() ? "{" : ", {") + lMembers(columns(acrOne, true)) +
                 ", \"processes\": " + listed(acrOne.mProcesses) +
                 ", \"wrong\": " + (acrOne.mWrong ? "true" : "false") + ", \"findings\": " + listed(acrOne.mFindings) +
                 ", \"ids\": " + listed(acrOne.mIds) +
                 (aOpen ? ", \"open\": {" + lMembers(resultOf(acrOne.mOpen)) + "}" : "") + "}";
    }
    return "[" + lJson + "]";
}

std::string table(const Channels& acrChannels, bool aOpen, bool aAges)
{
    if (acrChannels.empty()) {
        return "no channel\n";
    }
    std::string lTable;
    for (const Column& acrColumn : columns(Channel(), false)) {
        lTable += text("%*s  ", acrColumn.mWidth, acrColumn.mpName);
    }
    lTable += "processes\n";
    for (const Channel& acrOne : acrChannels) {
        for (Column& lrColumn : columns(acrOne, aAges)) {
            std::string& lrValue = lrColumn.mValue;
            lrValue.erase(std::remove(lrValue.begin(), lrValue.end(), '"'), lrValue.end());
            lrValue = "null" == lrValue ? "-" : "true" == lrValue ? "ready" : "false" == lrValue ? "no" : lrValue;
            lTable += text("%*s  ", lrColumn.mWidth, lrValue.c_str());
        }
        for (const std::string& acrProcess : acrOne.mProcesses) {
            lTable += acrProcess + "  ";
        }
        lTable += acrOne.mSeen < acrOne.mAttached ? text("%lu unseen\n", acrOne.mAttached - acrOne.mSeen) : "\n";
        if (aOpen) {
            const OpenPrediction& lrOpen = acrOne.mOpen;
            lTable += !lrOpen.mKnown       ? "  the result of the open is not known\n"
                      : 0 == lrOpen.mError ? "  the open succeeds\n"
                                           : text("  the open throws %s %u \"%s\"\n", lrOpen.mpException, lrOpen.mCode,
                                                  strerror(lrOpen.mError));
        }
        for (const std::string& acrFinding : acrOne.mFindings) {
            lTable += "  " + acrFinding + "\n";
        }
    }
    return lTable;
}

void flushOutput()
{
    if (0 != fflush(stdout)) {
        throw std::runtime_error(text("cannot write: %s", strerror(errno)));
    }
}

void show(const Channels& acrChannels, const Request& acrRequest)
{
    const time_t lNow = time(NULL);
    tm lLocal;
    char lTime[32] = "";
    strftime(lTime, sizeof lTime, "%FT%T%z", localtime_r(&lNow, &lLocal));
    const bool lOpen = 0 < acrRequest.mSize, lWatch = 0 < acrRequest.mSeconds;
    if (acrRequest.mJson) {
        printf("{\"time\": \"%s\", \"channels\": %s}\n", lTime, json(acrChannels, lOpen).c_str());
    } else {
        printf("%s%s%s", lWatch ? lTime : "", lWatch ? "\n" : "", table(acrChannels, lOpen, true).c_str());
    }
    flushOutput();
}

// ---- The command ----------------------------------------------------------------------------------------------------

int refuse(const char* acWord, const char* acReason)
{
    fprintf(stderr, "oqshm: '%s' %s\nTry 'oqshm --help'.\n", acWord, acReason);
    return 2;
}

int watch(const Request& acrRequest)
{
    Channels lChannels;
    for (std::string lShown;;) {
        lChannels = look(acrRequest, lChannels);
        std::string lWhole = table(lChannels, 0 < acrRequest.mSize, false);
        for (const Channel& acrOne : lChannels) {
            lWhole += text(" %zu", acrOne.mHash);  // another message of the same length is also a change
        }
        if (lShown != lWhole) {
            show(lChannels, acrRequest);
            lShown = lWhole;
        }
        if (0 == acrRequest.mSeconds) {
            return std::any_of(lChannels.begin(), lChannels.end(), [](const Channel& acrOne) { return acrOne.mWrong; });
        }
        usleep(static_cast<useconds_t>(acrRequest.mSeconds * 1e6));
    }
}

/// Parses a number from 1 to aMost. \return 0 if the word is something else
long numberIn(const char* acWord, long aMost)
{
    char* lpEnd = NULL;
    errno = 0;
    const long lNumber = strtol(acWord, &lpEnd, 0);
    return 0 != errno || 0 != *lpEnd || lNumber < 1 || aMost < lNumber ? 0 : lNumber;
}

int run(int aCount, char** apWords)
{
    const option cOptions[] = {{"watch", optional_argument, NULL, 'w'}, {"json", no_argument, NULL, 'j'},
                               {"attach", no_argument, NULL, 'a'},      {"size", required_argument, NULL, 's'},
                               {"as", required_argument, NULL, 'A'},    {"help", no_argument, NULL, 'h'},
                               {"version", no_argument, NULL, 'V'},     {NULL, 0, NULL, 0}};
    Request lRequest;
    const char* lpSide = NULL;
    for (int lOption; 0 <= (lOption = getopt_long(aCount, apWords, "w::jas:hV", cOptions, NULL));) {
        lRequest.mJson = lRequest.mJson || 'j' == lOption;
        lRequest.mAttach = lRequest.mAttach || 'a' == lOption;
        if ('w' == lOption) {
            char* lpEnd = NULL;
            lRequest.mSeconds = NULL == optarg ? 1 : strtod(optarg, &lpEnd);
            if (!(0.001 <= lRequest.mSeconds && lRequest.mSeconds <= 1000) || (NULL != optarg && 0 != *lpEnd)) {
                return refuse(optarg, "is not a number of seconds from 0.001 to 1000");
            }
        } else if ('s' == lOption && 0 == (lRequest.mSize = static_cast<unsigned long>(numberIn(optarg, cLargest)))) {
            return refuse(optarg, "is not a size from 1 to 65535");
        } else if ('A' == lOption) {
            lpSide = optarg;
            lRequest.mSide = 0 == strcmp(lpSide, "server") ? OQCM_Server : OQCM_Client;
            if (OQCM_Client == lRequest.mSide && 0 != strcmp(lpSide, "client")) {
                return refuse(lpSide, "is neither server nor client");
            }
        } else if ('h' == lOption || 'V' == lOption) {
            fputs('h' == lOption ? cUsage : "oqshm " OQ_VERSION "\n", stdout);
            flushOutput();
            return 0;
        } else if ('?' == lOption) {
            fputs("Try 'oqshm --help'.\n", stderr);  // getopt_long has printed the reason
            return 2;
        }
    }
    for (; optind < aCount; ++optind) {
        lRequest.mKeys.push_back(static_cast<int>(numberIn(apWords[optind], INT_MAX)));
        if (0 == lRequest.mKeys.back()) {
            return refuse(apWords[optind], "is not a key from 1 to 0x7fffffff");
        }
    }
    const bool lSized = 0 < lRequest.mSize;
    if (lSized != (NULL != lpSide) || (lSized && lRequest.mKeys.empty())) {
        return refuse(lSized ? "--size" : "--as", "requires --size, --as and a key");
    }
    return watch(lRequest);
}

}  // namespace

int main(int aCount, char** apWords)
{
    try {
        return run(aCount, apWords);
    } catch (const std::exception& acrFailure) {
        fprintf(stderr, "oqshm: %s\n", acrFailure.what());
        return 2;
    }
}
