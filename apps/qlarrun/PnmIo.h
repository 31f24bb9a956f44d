#pragma once
#include <CxImageMetadata.h>
#include <SxPicBuf.h>

#include <QtCore/QString>

#include <vector>

// Binary PGM (P5) and PPM (P6) pictures: one or three channels, unsigned 8-bit
// for a maxval up to 255, else 16-bit stored big-endian as the format has it.
// The maxval decides the significant bits (255 gives 8, 4095 gives 12, 1000
// gives 10). PPM colour becomes a colour picture, blue first.
//
// A file may hold several images one after another, each with its own
// header (P5 and P6 may mix); each image is a frame. Whitespace between and
// after the images is allowed, anything else after an image is refused as a
// malformed header. The ASCII variants and bitmaps (P1 to P4) are refused.
namespace PnmIo {

// Walks the headers, reading no samples: images gets the offset of each
// image's header. Messages name the file and the image at fault.
bool scan(const QString& path, std::vector<quint64>& images, QString* error);
// The image whose header starts at offset; name is how messages call it.
// pic becomes a heap picture (memory it already holds is reused when large
// enough); meta is replaced.
bool read(const QString& path, quint64 offset, const QString& name, SxPicBuf& pic, CxImageMetadata& meta,
          QString* error);

} // namespace PnmIo
