#pragma once
#include "SxPicBuf.h"

class QObject;
class QRect;

// Picture memory: memory pools, heap pictures and copies.
//
// Memory pools. A pool holds a fixed number of equally sized slots, each big
// enough for the format it was created with. AllocPicBufFromPool hands out a
// free slot (or answers false) and never blocks; a slot comes back when the
// picture is released (CxPicBufAPI::ReleasePicBuf, FreePicBuf, or deleting the
// packet that holds it). Pools are reference counted: ReleaseMemoryPool frees
// the free slots at once and each outstanding slot when it comes back, so a
// packet may outlive the chain run that made it. All pool operations are
// thread-safe.
//
// Heap pictures. Memory is 64-byte aligned; when the format's linePitch is 0
// it becomes the packed row length (width x channels x bytes per sample, no
// padding), which is what image files and other libraries expect.
class QLARCORE_EXPORT CxPicBufAPI
{
public:
    // Takes a free slot of the pool on behalf of owner and describes it with
    // format (a linePitch of 0 is computed). When format needs more bytes than
    // a slot holds: with growIfNeeded the slot is reallocated to fit (callers
    // whose output geometry follows a setting that may change between chain
    // restarts pass true), otherwise the call fails. False also when the pool
    // is null, closed or exhausted, or the format cannot be laid out (a line
    // pitch shorter than a row). A format of height or width 0 is legal: the
    // picture then holds no rows, as a one-row frame cut to its even rows does.
    static bool AllocPicBufFromPool(void* pool, QObject* owner, SxPicBuf& pic,
                                    const SxPicBufInfo& format, bool growIfNeeded);

    // Heap picture of format. clear fills it with zeros; minBytes asks for at
    // least that many bytes (0: exactly what the format needs).
    static bool AllocPicBufFromHeap(SxPicBuf& pic, const SxPicBufInfo& format, bool clear,
                                    unsigned long minBytes);
    // The same from loose fields. bitsPerSample 0 means all bits of the type;
    // linePitch 0 means packed; userFlags travels with the format.
    static bool AllocPicBufFromHeap(SxPicBuf& pic, unsigned int width, unsigned int height,
                                    unsigned int channels, ExImageDataType dataType,
                                    unsigned int bitsPerSample, unsigned int linePitch,
                                    unsigned int userFlags, ExDataStorageFormat storageFormat,
                                    ExColorFilterArray colorFilterArray, bool isColor, bool clear,
                                    unsigned long minBytes);

    // Gives the picture's memory back (heap freed, pool slot returned, borrowed
    // memory forgotten) and leaves pic without pixels. resetFormat also zeroes
    // the format fields. A picture without memory is accepted.
    static void FreePicBuf(SxPicBuf& pic, bool resetFormat);

    // Copies format and pixels of src into dst. When dst lacks the room:
    // with allowAlloc dst is (re)allocated on the heap, otherwise false.
    // Rows are copied one by one, so the two line pitches may differ.
    static bool CopyPicBuf(SxPicBuf& dst, const SxPicBuf& src, bool allowAlloc);

    // Describes memory owned by someone else; FreePicBuf only forgets it.
    static bool WrapPicBuf(SxPicBuf& pic, const SxPicBufInfo& format, void* data, quint64 bytes);

    // --- picture operations ---
    // Every operation answers false, and leaves its output untouched, for a
    // sample type or layout it does not support; none of them allocates
    // picture memory. The exact type pairs, rounding and saturation rules are
    // documented where the operations are implemented (CxPicBufAPI_*.cpp) and
    // summarised here.

    // Per-sample accumulation into acc: sum, sum of squares, running minimum
    // and maximum. Integer sums saturate; a 3-channel sum takes the colours of
    // a 4-channel colour frame and skips its alpha; a NaN never replaces a
    // number in Min/Max.
    static bool Add(SxPicBuf& acc, const SxPicBuf& frame);
    static bool AddSquares(SxPicBuf& acc, const SxPicBuf& frame);
    static bool Min(SxPicBuf& acc, const SxPicBuf& frame);
    static bool Max(SxPicBuf& acc, const SxPicBuf& frame);
    // out = sum / divisor (divisor >= 1), halves away from zero, clamped to
    // out's type; a 4-channel colour out from a 3-channel sum gets full-scale
    // alpha.
    static bool DivideByValue(const SxPicBuf& sum, int divisor, SxPicBuf& out);
    // Channel number channel (0-based) of a multi-channel picture into a
    // one-channel picture of the same sample type; also cells 0-3 of a raw
    // 2x2 mosaic into a half-size picture.
    static bool ExtractChannel(const SxPicBuf& in, SxPicBuf& out, unsigned int channel);
    // Mono, colour or Bayer picture into 8-bit 4-channel out: bytes B,G,R,A
    // (QImage::Format_RGB32 on little-endian), alpha 255; integers shifted
    // down by their significant bits, floats over [floatMin, floatMax], Bayer
    // demosaiced bilinearly at full size.
    static bool ConvertPicToRGB(const SxPicBuf& in, SxPicBuf& out);
    // The value is clamped to the sample type.
    static bool FillChannelsValue(SxPicBuf& pic, unsigned int value);
    static bool FillChannelWithValue(SxPicBuf& pic, unsigned int channel, unsigned short value);
    // Smallest and largest sample of a float or double picture; NaN is
    // skipped, and with ignoreNonFinite infinities too. False, min and max
    // untouched, when no sample counts.
    static bool CalcFloatDataMinMax(const SxPicBuf& pic, float& min, float& max, bool ignoreNonFinite);
    // Copies a width x height rectangle (pixels) from src at (sx, sy) into dst
    // at (dx, dy); both pictures must share sample type and channel count.
    static bool CopyRect(SxPicBuf& dst, unsigned int dx, unsigned int dy, const SxPicBuf& src,
                         unsigned int sx, unsigned int sy, unsigned int width, unsigned int height);

    // Per-hyperpixel statistics of a mosaic inside rect, with the mosaic period
    // (periodX x periodY samples) into out.
    static bool FilterAvgOnMosaicPicBuf(const SxPicBuf& in, const QRect& rect, int periodX, int periodY, SxPicBuf& out);
    static bool FilterMinOnMosaicPicBuf(const SxPicBuf& in, const QRect& rect, int periodX, int periodY, SxPicBuf& out);
    static bool FilterMaxOnMosaicPicBuf(const SxPicBuf& in, const QRect& rect, int periodX, int periodY, SxPicBuf& out);
    static bool FilterNormalizeOnMosaicPicBuf(const SxPicBuf& in, const QRect& rect, int periodX, int periodY, SxPicBuf& out);

    // Median filter of a one-channel 8- or 16-bit unsigned picture. The work
    // buffer is made once per format and kernel radius (kernel 2r + 1).
    static bool MedianAllocBuffer(const SxPicBufInfo& format, int radius, void** buffer);
    static bool Median(const SxPicBuf& in, SxPicBuf& out, int radius, void* buffer);
    static void MedianFreeBuffer(void* buffer);

    // --- pools (host side) ---
    static void* CreateMemoryPool(const SxPicBufInfo& format, int count, const QString& name);
    static void ReleaseMemoryPool(void* pool);
    static int MemoryPoolSize(void* pool);
    static int MemoryPoolFreeCount(void* pool);
    // Process-wide count of pool slots handed out and not yet returned, and of
    // pools not yet destroyed; a leak check for tests and the runner.
    static qint64 OutstandingPoolPictures();
    static qint64 LivePoolCount();
};
