#pragma once
#include "SxPicBufInfo.h"

#include <QtCore/QVariantMap>

// A picture: its format followed by the pixels and the per-frame data.
//
// SxPicBuf is a plain record that is copied freely; copying never duplicates
// or frees pixel memory. Who frees the memory is decided by where it came from
// (memOrigin): a pool picture goes back to its pool and a heap picture is freed
// when CxPicBufAPI::FreePicBuf is called on one copy, or when the packet that
// took the picture over is deleted. Borrowed memory is never freed here.
struct QLARCORE_EXPORT SxPicBuf : public SxPicBufInfo
{
    enum ExMemOrigin : quint32 { MemNone = 0, MemBorrowed = 1, MemHeap = 2, MemPool = 3 };

    uchar* data = nullptr;      // first byte of row 0; null when the picture holds no pixels

    // Host bookkeeping: where the bytes came from. Only CxPicBufAPI touches these.
    void* memBlock = nullptr;   // heap block start, or the pool slot
    quint64 memCapacity = 0;    // bytes available at data
    ExMemOrigin memOrigin = MemNone;

    qint32 frameNumber = 0;     // running frame number of the acquisition
    float exposureTimeUs = 0.f; // per-frame acquisition values; copied by the nodes themselves
    quint32 timestampMs = 0;    // milliseconds since the acquisition started (wraps after ~49 days)

    float floatMin = 0.f;       // filled by CxPicBufAPI::CalcFloatDataMinMax
    float floatMax = 0.f;

    QVariantMap attachments;    // host's per-frame attachments (implicitly shared, cheap to copy)

    SxPicBuf() = default;

    // The per-frame data that follows a frame through the chain: frame number
    // and attachments. The two acquisition values are copied by the callers.
    void copyPicAdditionalData(const SxPicBuf& src);
    // Sets the format fields only; the pixel memory is left as it is.
    void setPicFormat(const SxPicBufInfo& info);
    const SxPicBufInfo& picFormat() const { return *this; }
    // Bytes of pixel data: linePitch x height. Pictures from pools and the
    // heap own that much, but a picture wrapped around foreign memory (a cut
    // out of a larger frame) may end right after the packed bytes of its last
    // row: kernels that copy whole pitches must stop there on the last row.
    quint64 dataSize() const { return quint64(linePitch) * height; }

    uchar* rowPtr(quint32 y) { return data + quint64(y) * linePitch; }
    const uchar* rowPtr(quint32 y) const { return data + quint64(y) * linePitch; }
    template <class T> T* row(quint32 y) { return reinterpret_cast<T*>(rowPtr(y)); }
    template <class T> const T* row(quint32 y) const { return reinterpret_cast<const T*>(rowPtr(y)); }
};
