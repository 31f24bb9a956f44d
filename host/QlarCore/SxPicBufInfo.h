#pragma once
#include "QlarCoreExport.h"
#include "ExImageDataType.h"
#include "ExDataStorageFormat.h"
#include "ExColorFilterArray.h"

#include <QtCore/QString>

// Format of a picture. Field order and widths are part of the host contract:
// nodes build this record on the stack and copy it field by field.
struct QLARCORE_EXPORT SxPicBufInfo
{
    quint32 width = 0;
    quint32 height = 0;
    quint32 linePitch = 0;      // bytes from one row to the next; 0 = let the allocator compute it
    quint32 channels = 0;
    quint32 bitsPerSample = 0;  // significant bits; full scale is (1 << bitsPerSample) - 1
    quint32 userFlags = 0;      // opaque to the host operations; travels with the format
    ExImageDataType dataType = IDT_UNKNOWN;
    ExDataStorageFormat storageFormat = DSF_PACKED;
    ExColorFilterArray colorFilterArray = CFA_NONE;
    bool isColor = false;

    unsigned bytesPerSample() const { return bytesPerSampleOf(dataType); }
    unsigned bytesPerPixel() const { return bytesPerSample() * channels; }
    // Row length without padding.
    quint64 packedLineBytes() const { return quint64(width) * bytesPerPixel(); }
    // linePitch, or the packed row length when linePitch is 0.
    quint64 effectiveLinePitch() const { return linePitch ? linePitch : packedLineBytes(); }
    // Bytes that hold the pixels: every row's pitch except the last row, which
    // needs only its packed bytes (a picture cut out of a larger one has no
    // padding after its last row).
    quint64 requiredBytes() const;
    // Full scale of a sample: (1 << bitsPerSample) - 1, saturated at 32 bits.
    quint64 fullScale() const;

    bool isValidFormat() const;        // non-empty geometry, a known type, pitch >= packed row
    bool sameFormat(const SxPicBufInfo& o) const;  // every field equal
    QString describe() const;          // "640x480 u8 x1 (bayer RGGB)" for messages and logs
};

QLARCORE_EXPORT QString dataTypeName(ExImageDataType t);
