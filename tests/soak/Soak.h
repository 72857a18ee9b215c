/// \file
/// Shared code of the soak programs: a check that ends the program, and messages with a checksum.
#ifndef OQ_SOAK_H
#define OQ_SOAK_H

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "OQLinux.h"

#define CHECK(condition)                                                                        \
    do {                                                                                        \
        if (!(condition)) {                                                                     \
            fprintf(stderr, "%s:%d: CHECK(%s) in process %d\n", __FILE__, __LINE__, #condition, \
                    static_cast<int>(getpid()));                                                \
            exit(1);                                                                            \
        }                                                                                       \
    } while (false)

const unsigned short cSegmentSize = 2048;  // bytes
const unsigned int cCapacity = cSegmentSize - sizeof(OQSSharedMemoryHeader);

inline double secondsNow()
{
    timespec lNow;
    clock_gettime(CLOCK_MONOTONIC, &lNow);
    return static_cast<double>(lNow.tv_sec) + static_cast<double>(lNow.tv_nsec) / 1e9;
}

/// Returns a System V key of this process.
inline key_t keyOfProcess(int aNumber) { return ((getpid() << 8) | aNumber) & 0x7fffffff; }

/// A message: number, length, a body that is computed from the number, checksum.
class Message
{
public:
    Message() : mLength(0) {}

    void make(uint64_t aNumber)
    {
        mLength = lengthOf(aNumber);
        memcpy(mBytes, &aNumber, 8);
        memcpy(mBytes + 8, &mLength, 4);
        for (unsigned int lIndex = 12; lIndex < mLength - 4; ++lIndex) {
            mBytes[lIndex] = static_cast<unsigned char>(aNumber * 31 + lIndex * 7);
        }
        const uint32_t lSum = checksum();
        memcpy(mBytes + mLength - 4, &lSum, 4);
    }

    /// Returns whether the length and the checksum are those that make() stores for the number.
    bool isWhole(uint64_t& arNumber) const
    {
        uint32_t lLength;
        uint32_t lSum;
        memcpy(&arNumber, mBytes, 8);
        memcpy(&lLength, mBytes + 8, 4);
        if (lLength != mLength || mLength != lengthOf(arNumber)) {
            return false;
        }
        memcpy(&lSum, mBytes + mLength - 4, 4);
        return lSum == checksum();
    }

    unsigned char mBytes[cCapacity];
    unsigned int mLength;

private:
    static unsigned int lengthOf(uint64_t aNumber)
    {
        return 16 + static_cast<unsigned int>((aNumber * 0x9E3779B97F4A7C15u) >> 40) % (cCapacity / 4);
    }

    uint32_t checksum() const
    {
        uint32_t lSum = 2166136261u;
        for (unsigned int lIndex = 0; lIndex < mLength - 4; ++lIndex) {
            lSum = (lSum ^ mBytes[lIndex]) * 16777619u;
        }
        return lSum;
    }
};

#endif
