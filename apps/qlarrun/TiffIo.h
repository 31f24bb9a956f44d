#pragma once
#include <CxImageMetadata.h>
#include <SxPicBuf.h>

#include <QtCore/QString>

// TIFF pictures through libtiff, with the exact sample type and values both
// ways.
//
// Written: 8-, 16- and 32-bit signed and unsigned integers and 32-bit float
// (SampleFormat INT, UINT, IEEEFP), any channel count, channels interleaved
// in the picture's own order, one strip of about 8 KiB after another, no
// compression or deflate. Three or four channels of a colour picture are
// written as RGB (the fourth as unassociated alpha); everything else as
// min-is-black with the channels after the first as unspecified extra
// samples. What TIFF has no tag for (significant bits, filter array, storage
// format, the hyperspectral description) goes into ImageDescription as a
// QlarPicture element, which reading restores, so a raw frame written here
// comes back as the same raw frame.
//
// Read: the first image of the file, striped or tiled, contiguous planes
// (separate planes only for one channel), any compression libtiff decodes;
// 8-, 16- and 32-bit integers and 32-bit float; min-is-black or RGB. Other
// layouts (bit depths like 1, 12 or 64, palette, min-is-white, YCbCr,
// separate colour planes) are refused with a message that says which.
// Truncated and corrupt files are refused with libtiff's first complaint.
namespace TiffIo {

bool canWrite(const SxPicBufInfo& format, QString* reason);
// The file is removed again when writing fails half way.
bool write(const QString& path, const SxPicBuf& pic, const CxImageMetadata* meta, bool deflate, QString* error);
// pic becomes a heap picture (memory it already holds is reused when large
// enough); meta is replaced. Messages name the file.
bool read(const QString& path, SxPicBuf& pic, CxImageMetadata& meta, QString* error);

} // namespace TiffIo
