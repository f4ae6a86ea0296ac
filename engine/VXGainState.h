#pragma once

#include <QtGlobal>

// The states an item's job goes through, as its `state` property and the
// report callback carry them. The numbers are the property's values.
enum VXGainState : qint32 {
    VXGainIdle = 0,
    VXGainStarted = 1,
    VXGainRunning = 2,   // retCode is the progress, 0..100
    VXGainFinished = 3,  // retCode is one of the results below
};

// A finished job's retCode.
enum VXGainEnd : qint64 {
    VXGainSucceeded = 0,
    VXGainFailed = -1,
    VXGainCancelled = -2,
};
