#pragma once
#include <CxImageMetadata.h>
#include <SxPicBuf.h>

#include <QtCore/QString>

#include <vector>

// TIFF pictures through libtiff, with the exact sample type and values both
// ways.
//
// Written: 8-, 16- and 32-bit signed and unsigned integers and 32-bit float
// (SampleFormat INT, UINT, IEEEFP), any channel count, one strip of about
// 8 KiB after another, no compression or deflate. A colour picture of three
// or four channels (stored blue first) is written as RGB in red, green, blue
// order, the fourth channel as unassociated alpha; everything else as
// min-is-black in the picture's own channel order, the channels after the
// first as unspecified extra samples. What TIFF has no tag for (significant
// bits, filter array, storage format, the hyperspectral description) goes
// into ImageDescription as a QlarPicture element, which reading restores, so
// a raw frame written here comes back as the same raw frame.
//
// Read: every page of the main chain of directories is a frame, in file
// order; pages marked as reduced-resolution versions (SubfileType bit 0, or
// the old SubfileType 2: thumbnails, previews) are not frames. Pages of one
// file may differ in format. ImageJ stacks and hyperstacks are read page by
// page in file order; ImageJ's stacks with a single directory and images=N in
// their "ImageJ=" description hold N uncompressed frames back to back from
// the first strip, in the file's byte order, and are read as N frames (a
// compressed or tiled first page, or a file too short for N frames, is
// refused). Pages may be striped or tiled, with contiguous planes (separate
// planes only for one channel), in any compression libtiff decodes; 8-, 16-
// and 32-bit integers and 32-bit float; min-is-black or RGB. RGB pages of
// three or four samples become colour pictures, blue first; RGB pages of more
// than four samples become plain numbered channels in the file's order, not
// colour. Other layouts (bit depths like 1, 12 or 64, palette, min-is-white,
// YCbCr, separate colour planes) are refused with a message that says which.
// Truncated and corrupt files are refused with libtiff's first complaint.
namespace TiffIo {

// Where the frames of a file are.
struct SxPages
{
    std::vector<quint64> directories;  // offsets of the full-resolution pages
    qint64 imageJImages = 0;           // > 0: frames behind the single directory's first strip
    qint64 count() const { return imageJImages > 0 ? imageJImages : qint64(directories.size()); }
};

bool canWrite(const SxPicBufInfo& format, QString* reason);
// The file is removed again when writing fails half way.
bool write(const QString& path, const SxPicBuf& pic, const CxImageMetadata* meta, bool deflate, QString* error);
// Walks the directories, reading no samples. Messages name the file and,
// for a broken directory, the page.
bool scan(const QString& path, SxPages& pages, QString* error);
// Page counts from 0; name is the file and page as messages call it. pic
// becomes a heap picture (memory it already holds is reused when large
// enough); meta is replaced.
bool readPage(const QString& path, const SxPages& pages, qint64 page, const QString& name, SxPicBuf& pic,
              CxImageMetadata& meta, QString* error);
// The first frame of the file.
bool read(const QString& path, SxPicBuf& pic, CxImageMetadata& meta, QString* error);

} // namespace TiffIo
