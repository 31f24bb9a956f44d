#pragma once
#include <CxImageMetadata.h>
#include <SxPicBuf.h>

#include <QtCore/QString>

// Binary PGM (P5) and PPM (P6) pictures: one or three channels, unsigned 8-bit
// for a maxval up to 255, else 16-bit stored big-endian as the format has it.
// The maxval decides the significant bits (255 gives 8, 4095 gives 12, 1000
// gives 10). Only the first picture of a file is read; the ASCII variants and
// bitmaps (P1 to P4) are refused.
namespace PnmIo {

// pic becomes a heap picture (memory it already holds is reused when large
// enough); meta is replaced. Messages name the file.
bool read(const QString& path, SxPicBuf& pic, CxImageMetadata& meta, QString* error);

} // namespace PnmIo
