#pragma once
#include <CxImageMetadata.h>
#include <SxPicBuf.h>

#include <QtCore/QString>

// Raw frame files: nothing but the samples of one-channel frames, rows packed
// one after another, in this machine's byte order (little-endian on the
// machines we build for). What the file cannot say comes from the command
// line. A file whose size is a whole multiple (1 or more) of the frame's
// bytes is a recording of that many frames back to back; any other size is
// refused.
namespace RawIo {

struct SxRawFormat
{
    quint32 width = 0;
    quint32 height = 0;
    ExImageDataType dataType = IDT_UINT8;
    quint32 bitsPerSample = 0;  // 0: every bit of the type
    ExColorFilterArray colorFilterArray = CFA_NONE;

    SxPicBufInfo info() const;
};

// Sample type names as the command line takes them: u8, s8, u16, s16, u32,
// s32, f32; IDT_UNKNOWN for anything else.
ExImageDataType typeFromName(const QString& name);
QString typeNames();

// The frames the file holds, from its size; a message naming the file when
// the size does not fit.
bool frameCount(const QString& path, const SxRawFormat& format, qint64& count, QString* error);
// Frame counts from 0; name is how messages call it. pic becomes a heap
// picture (memory it already holds is reused when large enough); meta is
// replaced.
bool read(const QString& path, const SxRawFormat& format, qint64 frame, const QString& name, SxPicBuf& pic,
          CxImageMetadata& meta, QString* error);

} // namespace RawIo
