#pragma once
#include <CxImageMetadata.h>
#include <SxPicBuf.h>

#include <QtCore/QString>
#include <QtCore/QStringList>

// What every picture file reader and writer shares.
namespace PictureFile {

// Pictures beyond these bounds are taken as corrupt headers rather than real
// frames: their byte counts would strain the 32-bit pitch of the format.
constexpr quint32 MaxSide = 65535;
constexpr quint64 MaxBytes = quint64(1) << 31;
// The most samples a picture read from a file may have (2^28, a 16384 x
// 16384 mono frame), so that a small file whose header claims a huge picture
// is refused before any memory is taken. QLAR_MAX_PICTURE_SAMPLES raises it.
constexpr quint64 DefaultMaxSamples = quint64(1) << 28;
quint64 maxSamples();
// Empty when a picture of format may be read; else why not.
QString beyondLimits(const SxPicBufInfo& format);

// "path: what", the shape of every file message.
QString fileError(const QString& path, const QString& what);

// Makes pic a packed heap picture of format, reusing the memory pic already
// holds from the heap when it is large enough, so that reading a folder of
// equal frames allocates once. The format must be valid and within the
// bounds above; false with a message (not naming any file) otherwise.
bool preparePicture(SxPicBuf& pic, const SxPicBufInfo& format, QString* error);

// The reader's view of a sample type: 8, 16 or 32-bit integers of either
// signedness and 32-bit float, the types the files carry both ways.
bool isFileSampleType(ExImageDataType type);

// How a frame of a file of several is named in messages: "stack.tif (page 3
// of 20)", counting from 1; count 0 when the total is not known yet. A file
// of one frame is named by its bare path.
enum ExFrameUnit { UnitPage, UnitImage, UnitFrame };
QString frameName(const QString& path, ExFrameUnit unit, qint64 index, qint64 count);

// Exchanges the first and third sample of each pixel: the red-first rows of
// files become the host's blue-first rows (SxPicBufInfo::isBlueFirstColour)
// and back. Any alignment.
void swapRedBlue(uchar* row, quint64 pixels, quint32 channels, quint32 sampleBytes);

} // namespace PictureFile
