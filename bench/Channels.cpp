// Named pipes, shared-memory segments and file locks.

#include <fcntl.h>
#include <mqueue.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/select.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>

#include <fstream>
#include <vector>

#include "Bench.h"
#include "Fixed.h"

#ifdef BENCH_APR
#include <apr_file_io.h>
#include <apr_portable.h>
#include <apr_support.h>
#endif
#ifdef BENCH_BOOST
#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
#include <boost/interprocess/ipc/message_queue.hpp>
#include <boost/interprocess/sync/file_lock.hpp>
#endif
#ifdef BENCH_GLIB
#include <glib.h>
#endif
#ifdef BENCH_POCO
#include <Poco/Pipe.h>
#endif

namespace
{

const unsigned int cSeconds = 3;          // longest wait for a message; never reached
const unsigned int cMessage = 64;         // bytes
const unsigned int cLongest = 65535 - 6;  // bytes: the size has 16 bits, the header 6 bytes

typedef unsigned char Byte;

// --- FIFO ------------------------------------------------------------------------------------------------------------

class FifoFile
{
public:
    FifoFile() : mPath(directory() + "/fifo") { check(0 == mkfifo(mPath.c_str(), 0600), "mkfifo"); }
    ~FifoFile() { unlink(mPath.c_str()); }

    const std::string mPath;
};

struct RawFifo {
    RawFifo() : mPipe(open(mFile.mPath.c_str(), O_RDWR | O_DSYNC)) { check(0 <= mPipe, "open"); }
    ~RawFifo() { close(mPipe); }
    void send(const Byte* acData, unsigned int aLength) { check(aLength == write(mPipe, acData, aLength), "write"); }
    void wait()
    {
        fd_set lSet;
        FD_ZERO(&lSet);
        FD_SET(mPipe, &lSet);
        timeval lTime = {static_cast<time_t>(cSeconds), 0};
        check(1 == select(mPipe + 1, &lSet, nullptr, nullptr, &lTime), "select");
    }
    void receive(Byte* apData, unsigned int aLength) { check(aLength == read(mPipe, apData, aLength), "read"); }

    FifoFile mFile;
    int mPipe;
};

struct LayerFifo {
    LayerFifo() : mPath((directory() + "/fifo").c_str()), mPipe(-1)
    {
        OsNamedPipeCreate(mPath, mPipe);
        OsNamedPipeOpen(mPipe, mPath, OQFM_Mode1, OQPS_Blocking, OQCM_Server);
        check(0 <= mPipe, "OsNamedPipeOpen");
    }
    ~LayerFifo()
    {
        OsNamedPipeClose(mPipe, OQCM_Server);
        OsNamedPipeDestroy(mPath, mPipe);
    }
    void send(const Byte* acData, unsigned int aLength)
    {
        unsigned int lDone = 0;
        OsNamedPipeWrite(mPipe, acData, aLength, lDone);
        check(aLength == lDone, "OsNamedPipeWrite");
    }
    void wait() { OsNamedPipeWaitForActivity(mPipe, cSeconds); }
    void receive(Byte* apData, unsigned int aLength)
    {
        unsigned int lDone = 0;
        OsNamedPipeRead(mPipe, apData, aLength, lDone);
        check(aLength == lDone, "OsNamedPipeRead");
    }

    OQCString mPath;
    int mPipe;
};

/// One stream buffer per direction: a buffer that has read must seek before it writes.
struct StdFifo {
    StdFifo()
    {
        for (std::filebuf* lpStream : {&mOut, &mIn}) {
            lpStream->pubsetbuf(nullptr, 0);
            const bool lOpen = nullptr != lpStream->open(mFile.mPath, std::ios::in | std::ios::out | std::ios::binary);
            check(lOpen, "filebuf::open");
        }
    }
    void send(const Byte* acData, unsigned int aLength)
    {
        check(aLength == mOut.sputn(reinterpret_cast<const char*>(acData), aLength), "sputn");
    }
    void receive(Byte* apData, unsigned int aLength)
    {
        check(aLength == mIn.sgetn(reinterpret_cast<char*>(apData), aLength), "sgetn");
    }

    FifoFile mFile;
    std::filebuf mOut, mIn;
};

#ifdef BENCH_BOOST
struct BoostFifo : RawFifo {
    BoostFifo() : mDescriptor(mContext, mPipe) {}
    ~BoostFifo() { mDescriptor.release(); }
    void send(const Byte* acData, unsigned int aLength)
    {
        check(aLength == boost::asio::write(mDescriptor, boost::asio::buffer(acData, aLength)), "write");
    }
    void wait() { mDescriptor.wait(boost::asio::posix::stream_descriptor::wait_read); }
    void receive(Byte* apData, unsigned int aLength)
    {
        check(aLength == boost::asio::read(mDescriptor, boost::asio::buffer(apData, aLength)), "read");
    }

    boost::asio::io_context mContext;
    boost::asio::posix::stream_descriptor mDescriptor;
};
#endif

#ifdef BENCH_POCO
/// This library has only unnamed pipes, which cost the kernel less than a FIFO.
struct PocoPipe {
    void send(const Byte* acData, unsigned int aLength)
    {
        check(static_cast<int>(aLength) == mPipe.writeBytes(acData, static_cast<int>(aLength)), "writeBytes");
    }
    void receive(Byte* apData, unsigned int aLength)
    {
        check(static_cast<int>(aLength) == mPipe.readBytes(apData, static_cast<int>(aLength)), "readBytes");
    }

    Poco::Pipe mPipe;
};
#endif

#ifdef BENCH_APR
struct AprFifo : RawFifo {
    AprFifo() : mPool(), mFile()
    {
        apr_pool_create(&mPool, nullptr);
        check(APR_SUCCESS == apr_os_pipe_put(&mFile, &mPipe, mPool), "apr_os_pipe_put");
    }
    ~AprFifo() { apr_pool_destroy(mPool); }
    void send(const Byte* acData, unsigned int aLength)
    {
        apr_size_t lLength = aLength;
        check(APR_SUCCESS == apr_file_write(mFile, acData, &lLength) && aLength == lLength, "apr_file_write");
    }
    void wait() { check(APR_SUCCESS == apr_wait_for_io_or_timeout(mFile, nullptr, 1), "apr_wait_for_io_or_timeout"); }
    void receive(Byte* apData, unsigned int aLength)
    {
        apr_size_t lLength = aLength;
        check(APR_SUCCESS == apr_file_read(mFile, apData, &lLength) && aLength == lLength, "apr_file_read");
    }

    apr_pool_t* mPool;
    apr_file_t* mFile;
};
#endif

#ifdef BENCH_GLIB
struct GlibFifo : RawFifo {
    GlibFifo() : mChannel(g_io_channel_unix_new(mPipe))
    {
        g_io_channel_set_encoding(mChannel, nullptr, nullptr);
        g_io_channel_set_buffered(mChannel, FALSE);
    }
    ~GlibFifo() { g_io_channel_unref(mChannel); }
    void send(const Byte* acData, unsigned int aLength)
    {
        gsize lDone = 0;
        g_io_channel_write_chars(mChannel, reinterpret_cast<const char*>(acData), aLength, &lDone, nullptr);
        check(aLength == lDone, "g_io_channel_write_chars");
    }
    void wait()
    {
        GPollFD lDescriptor = {mPipe, G_IO_IN, 0};
        check(1 == g_poll(&lDescriptor, 1, cSeconds * 1000), "g_poll");
    }
    void receive(Byte* apData, unsigned int aLength)
    {
        gsize lDone = 0;
        g_io_channel_read_chars(mChannel, reinterpret_cast<char*>(apData), aLength, &lDone, nullptr);
        check(aLength == lDone, "g_io_channel_read_chars");
    }

    GIOChannel* mChannel;
};
#endif

// --- mailboxes -------------------------------------------------------------------------------------------------------

/// The plain calls: a private segment with the layer's header, without its checks and its trace.
struct PolledSegment {
    PolledSegment() : mHeader()
    {
        const int lId = shmget(IPC_PRIVATE, 65535, IPC_CREAT | 0600);
        check(0 <= lId, "shmget");
        void* const lpMemory = shmat(lId, nullptr, 0);
        shmctl(lId, IPC_RMID, nullptr);
        check(reinterpret_cast<void*>(-1) != lpMemory, "shmat");
        mHeader = static_cast<OQSSharedMemoryHeader*>(lpMemory);
        mHeader->segment_free = mHeader->server_ready = mHeader->client_ready = 1;
    }
    ~PolledSegment() { shmdt(mHeader); }
    PolledSegment(const PolledSegment&) = delete;
    PolledSegment& operator=(const PolledSegment&) = delete;

    static void store(Byte& arFlag, Byte aValue) { __atomic_store_n(&arFlag, aValue, __ATOMIC_RELEASE); }
    static bool load(const Byte& acrFlag) { return 0 != __atomic_load_n(&acrFlag, __ATOMIC_ACQUIRE); }
    Byte* data() const { return reinterpret_cast<Byte*>(mHeader + 1); }

    static void poll(const Byte& acrFlag)
    {
        timespec lStart;
        clock_gettime(CLOCK_REALTIME, &lStart);
        while (!load(acrFlag)) {
            const timespec lMillisecond = {0, 1000000};
            clock_nanosleep(CLOCK_MONOTONIC, 0, &lMillisecond, nullptr);
            timespec lNow;
            clock_gettime(CLOCK_REALTIME, &lNow);
            check(lNow.tv_sec - lStart.tv_sec <= cSeconds, "nothing came");
        }
    }
    void send(const Byte* acData, unsigned int aLength)
    {
        poll(mHeader->segment_free);
        memcpy(data(), acData, aLength);
        mHeader->data_length = static_cast<uint16_t>(aLength);
        store(mHeader->segment_free, 0);
        store(mHeader->data_ready, 1);
    }
    void receive(Byte* apData, unsigned int aLength)
    {
        poll(mHeader->data_ready);
        check(aLength == mHeader->data_length, "length");
        memcpy(apData, data(), aLength);
        store(mHeader->data_ready, 0);
        store(mHeader->segment_free, 1);
    }

    OQSSharedMemoryHeader* mHeader;
};

/// Only the steps that the layer's design requires: its three functions with every log line, check, clock reading and
/// copy, in the same order.
struct FixedSegment : PolledSegment {
    static void trace(const char* acText) { fixedLog(OQLL_Trace, "-T-", __LINE__, __func__, __FILE__, "%s", acText); }
    static void wait(const Byte& acrFlag)
    {
        trace("Entered");
        long lSeconds;
        unsigned short lMilliseconds;
        fixedTime(lSeconds, lMilliseconds);
        benchmark::DoNotOptimize(lSeconds);
        check(load(acrFlag), "flag");
        trace("Left");
    }
    [[gnu::noinline]] void send(const Byte* acData, unsigned int aLength)
    {
        trace("Entered");
        check(aLength <= cLongest, "fits");
        check(load(mHeader->client_ready) && load(mHeader->server_ready), "peers");
        wait(mHeader->segment_free);
        fixedCopy(data(), acData, aLength);
        mHeader->data_length = static_cast<uint16_t>(aLength);
        store(mHeader->segment_free, 0);
        store(mHeader->data_ready, 1);
        trace("Left");
    }
    [[gnu::noinline]] void waitForData() { wait(mHeader->data_ready); }
    [[gnu::noinline]] void take(Byte* apData, unsigned int aLength)
    {
        trace("Entered");
        check(aLength <= cLongest, "fits");
        check(load(mHeader->data_ready), "ready");
        check(aLength == mHeader->data_length, "length");
        fixedCopy(apData, data(), aLength);
        store(mHeader->data_ready, 0);
        store(mHeader->segment_free, 1);
        trace("Left");
    }
    void receive(Byte* apData, unsigned int aLength)
    {
        waitForData();
        take(apData, aLength);
    }
};

struct LayerSegment {
    LayerSegment() : mServer(), mClient()
    {
        static int sKeys;
        mServer.shm_key = ((getpid() & 0x3fffff) << 8) + (++sKeys & 0xff) + 1;
        mServer.shm_size = 65535;
        mClient = mServer;
        OsSharedMemoryOpen(mServer, OQCM_Server);
        OsSharedMemoryOpen(mClient, OQCM_Client);
    }
    ~LayerSegment()
    {
        OsSharedMemoryClose(mClient, OQCM_Client);
        OsSharedMemoryClose(mServer, OQCM_Server);
    }
    void send(const Byte* acData, unsigned int aLength)
    {
        unsigned int lDone = 0;
        OsSharedMemoryWrite(mServer, acData, aLength, lDone);
        check(aLength == lDone, "OsSharedMemoryWrite");
    }
    void receive(Byte* apData, unsigned int aLength)
    {
        unsigned int lDone = 0;
        OsSharedMemoryWaitForActivity(mClient, cSeconds);
        OsSharedMemoryRead(mClient, apData, aLength, lDone);
        check(aLength == lDone, "OsSharedMemoryRead");
    }

    OQShmDesc mServer, mClient;
};

#ifdef BENCH_BOOST
/// A queue of one message, which makes it a mailbox. The name is removed at once; the mapping stays.
struct BoostQueue {
    typedef boost::interprocess::message_queue Queue;

    BoostQueue() : mName("oqbench-" + std::to_string(getpid())), mQueue(fresh(mName), mName.c_str(), 1, 65536)
    {
        Queue::remove(mName.c_str());
    }
    static boost::interprocess::create_only_t fresh(const std::string& acrName)
    {
        Queue::remove(acrName.c_str());
        return boost::interprocess::create_only;
    }
    void send(const Byte* acData, unsigned int aLength) { mQueue.send(acData, aLength, 0); }
    void receive(Byte* apData, unsigned int aLength)
    {
        Queue::size_type lLength;
        unsigned int lPriority;
        mBuffer.resize(65536);  // a receiver must have room for the longest message
        mQueue.receive(mBuffer.data(), mBuffer.size(), lLength, lPriority);
        check(aLength == lLength, "receive");
        memcpy(apData, mBuffer.data(), lLength);
    }

    std::string mName;
    Queue mQueue;
    std::vector<Byte> mBuffer;
};
#endif

/// The system's own queue.
struct PosixQueue {
    PosixQueue() : mQueue(-1)
    {
        const std::string lName = "/oqbench-" + std::to_string(getpid());
        mq_attr lAttributes = {};
        lAttributes.mq_maxmsg = 1;
        lAttributes.mq_msgsize = cMessage;
        mQueue = mq_open(lName.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600, &lAttributes);
        check(0 <= mQueue, "mq_open");
        mq_unlink(lName.c_str());
    }
    ~PosixQueue() { mq_close(mQueue); }
    void send(const Byte* acData, unsigned int aLength)
    {
        check(0 == mq_send(mQueue, reinterpret_cast<const char*>(acData), aLength, 0), "mq_send");
    }
    void receive(Byte* apData, unsigned int aLength)
    {
        check(aLength == mq_receive(mQueue, reinterpret_cast<char*>(apData), aLength, nullptr), "mq_receive");
    }

    mqd_t mQueue;
};

// --- operations on a channel -----------------------------------------------------------------------------------------

std::vector<Byte> pattern(unsigned int aLength)
{
    std::vector<Byte> lData(aLength);
    for (unsigned int lIndex = 0; lIndex < aLength; ++lIndex) {
        lData[lIndex] = static_cast<Byte>(lIndex * 31 + 1);
    }
    return lData;
}

/// Sends and receives a message in one process. The row's argument is the length of the message.
template <class Channel, bool Wait = false>
void exchange(benchmark::State& arState)
{
    Channel lChannel;
    const unsigned int lLength = static_cast<unsigned int>(arState.range(0));
    const std::vector<Byte> lOut = pattern(lLength);
    std::vector<Byte> lIn(lLength);
    for (auto lIteration : arState) {
        lChannel.send(lOut.data(), lLength);
        if constexpr (Wait) {
            lChannel.wait();
        }
        lChannel.receive(lIn.data(), lLength);
    }
    check(lOut == lIn, "another message came out");
}

/// Sends a message to another process, which returns it through a second channel.
template <class Channel>
void roundTrip(benchmark::State& arState)
{
    Channel lThere, lBack;
    std::vector<Byte> lOut = pattern(cMessage);
    std::vector<Byte> lIn(cMessage);
    const pid_t lEcho = fork();
    if (0 == lEcho) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        try {
            do {
                lThere.receive(lIn.data(), cMessage);
                lBack.send(lIn.data(), cMessage);
            } while (0 != lIn[0]);
            _exit(0);
        } catch (...) {
            _exit(1);
        }
    }
    for (auto lIteration : arState) {
        lThere.send(lOut.data(), cMessage);
        lBack.receive(lIn.data(), cMessage);
    }
    check(lOut == lIn, "another message came back");
    lOut[0] = 0;
    lThere.send(lOut.data(), cMessage);
    lBack.receive(lIn.data(), cMessage);
    int lStatus = -1;
    check(lEcho == waitpid(lEcho, &lStatus, 0) && 0 == lStatus, "the other process failed");
}

void lengths(Row* apRow)
{
    for (const unsigned int lLength : {1u, 16u, 256u, 1024u, 4096u, 16384u, 32768u, cLongest}) {
        apRow->Arg(lLength);
    }
}

template <class Channel>
void fifo(const char* acRow)
{
    row("fifo", acRow, exchange<Channel>)->Arg(cMessage);
    row("fifo-by-length", acRow, exchange<Channel>)->Apply(lengths);
}

template <class Channel>
void fifoWait(const char* acRow)
{
    row("fifo-wait", acRow, exchange<Channel, true>)->Arg(cMessage);
}

template <class Channel>
void segment(const char* acRow)
{
    row("segment", acRow, exchange<Channel>)->Arg(cMessage);
    row("segment-by-length", acRow, exchange<Channel>)->Apply(lengths);
}

template <class Channel>
void between(const char* acRow)
{
    row("segment-roundtrip", acRow, roundTrip<Channel>)->UseRealTime();
}

// --- file locks ------------------------------------------------------------------------------------------------------

class LockFile
{
public:
    LockFile() : mPath(directory() + "/locked"), mFile(open(mPath.c_str(), O_RDWR | O_CREAT, 0600))
    {
        check(0 <= mFile, "open");
    }
    ~LockFile()
    {
        close(mFile);
        unlink(mPath.c_str());
    }

    const std::string mPath;
    const int mFile;
};

template <class Lock, class Unlock>
void lockRow(const char* acRow, Lock aLock, Unlock aUnlock)
{
    row("filelock", acRow, [=](benchmark::State& arState) {
        const LockFile lFile;
        for (auto lIteration : arState) {
            aLock(lFile.mFile);
            aUnlock(lFile.mFile);
        }
    });
}

void fileLocks()
{
    lockRow(
        "raw", [](int aFile) { check(0 == lockf(aFile, F_TLOCK, 0), "lockf"); },
        [](int aFile) { check(0 == lockf(aFile, F_ULOCK, 0), "lockf"); });
    lockRow("OQLinux", OsLockFile, OsUnlockFile);
#ifdef BENCH_BOOST
    row("filelock", "Boost", [](benchmark::State& arState) {
        const LockFile lFile;
        boost::interprocess::file_lock lLock(lFile.mPath.c_str());
        for (auto lIteration : arState) {
            check(lLock.try_lock(), "try_lock");
            lLock.unlock();
        }
    });
#endif
#ifdef BENCH_APR
    row("filelock", "APR", [](benchmark::State& arState) {
        const LockFile lFile;
        apr_pool_t* lpPool;
        apr_file_t* lpFile;
        apr_pool_create(&lpPool, nullptr);
        const apr_int32_t lFlags = APR_FOPEN_READ | APR_FOPEN_WRITE;
        check(APR_SUCCESS == apr_file_open(&lpFile, lFile.mPath.c_str(), lFlags, 0, lpPool), "apr_file_open");
        for (auto lIteration : arState) {
            check(APR_SUCCESS == apr_file_lock(lpFile, APR_FLOCK_EXCLUSIVE | APR_FLOCK_NONBLOCK), "apr_file_lock");
            check(APR_SUCCESS == apr_file_unlock(lpFile), "apr_file_unlock");
        }
        apr_pool_destroy(lpPool);
    });
#endif
}

}  // namespace

void registerChannels()
{
    fifo<RawFifo>("raw");
    fifo<LayerFifo>("OQLinux");
    fifo<StdFifo>("std");
    fifoWait<RawFifo>("raw");
    fifoWait<LayerFifo>("OQLinux");
    segment<PolledSegment>("raw");
    segment<FixedSegment>("fixed");
    segment<LayerSegment>("OQLinux");
    row("segment", "POSIX queue", exchange<PosixQueue>)->Arg(cMessage);
    between<PolledSegment>("raw");
    between<LayerSegment>("OQLinux");
    between<PosixQueue>("POSIX queue");
#ifdef BENCH_BOOST
    fifo<BoostFifo>("Boost");
    fifoWait<BoostFifo>("Boost");
    segment<BoostQueue>("Boost");
    between<BoostQueue>("Boost");
#endif
#ifdef BENCH_POCO
    fifo<PocoPipe>("POCO pipe");
#endif
#ifdef BENCH_APR
    fifo<AprFifo>("APR");
    fifoWait<AprFifo>("APR");
#endif
#ifdef BENCH_GLIB
    fifo<GlibFifo>("GLib");
    fifoWait<GlibFifo>("GLib");
#endif
    fileLocks();
}
