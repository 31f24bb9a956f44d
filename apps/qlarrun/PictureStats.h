#pragma once
#include <SxPicBuf.h>

#include <QtCore/QString>

// Smallest, largest and mean sample of a picture, over every channel.
// NaN and infinite float samples are left out and counted apart.
struct SxPictureStats
{
    double min = 0.0;
    double max = 0.0;
    double mean = 0.0;
    quint64 samples = 0;    // samples counted
    quint64 nonFinite = 0;  // float samples left out

    // False for sample types without a kernel here (64-bit, half) and for
    // pictures without pixels.
    static bool measure(const SxPicBuf& pic, SxPictureStats& stats);
    // "320x240 u8 x1 min 3 max 251 mean 97.42"
    static QString summaryLine(const SxPicBufInfo& format, const SxPictureStats& stats);
};
