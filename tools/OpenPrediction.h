/// \file
/// Predicts the result of an OsSharedMemoryOpen that this user would make now, with the limits and privileges of this
/// process.
#ifndef OQ_TOOLS_OPEN_PREDICTION_H
#define OQ_TOOLS_OPEN_PREDICTION_H

#include <string>

#include "OQLinux.h"

struct OpenPrediction {
    int mError = 0;      ///< errno of the call that fails; 0 if the open succeeds
    bool mKnown = true;  ///< false if mError only prevented the trial of the call
    const char* mpException = "OQCOpenFailedEx";
    unsigned int mCode = OQErrorCode<OQCOpenFailedEx>::value;
    const char* mpReason = "";  ///< identifier of the reason
    std::string mRemedy;        ///< explains the reason and names a command
};

/// Makes those calls of the open that change nothing. Makes the others on a private segment, which is removed at once.
OpenPrediction predictOpen(key_t aKey, unsigned long aSize, OQEConnectionMode aSide);

#endif
