#pragma once
#include <CxImageMetadata.h>
#include <SxPicBuf.h>

#include <QtCore/QString>
#include <QtGui/QImage>

// PNG pictures through QImage, 8 and 16 bits per sample, exact both ways.
//
// Written: unsigned 8- and 16-bit pictures of 1, 3 or 4 channels, as grey,
// RGB or RGBA. Colour pictures, stored blue first, are written red first as
// PNG has them; three or four channels that are not colour are written in
// their own order. Significant bits are not recorded: a 12-bit picture is
// written with its values as they are and looks dark.
//
// Read: grey and RGB(A) of 8 or 16 bits become one, three or four channels
// of unsigned 8- or 16-bit samples, colour pictures blue first (grey with
// alpha becomes RGBA); palette and low-bit pictures are expanded to 8 bits
// (grey when every entry is grey).
namespace PngIo {

// A deep copy of the pixels in the matching QImage format (red first), or a
// null image and the reason the picture has no PNG form. The format alone
// decides the colour order.
QImage toImage(const SxPicBuf& pic, QString* reason);
bool writeImage(const QString& path, const QImage& image, QString* error);
// pic becomes a heap picture (memory it already holds is reused when large
// enough); meta is replaced. Messages name the file.
bool read(const QString& path, SxPicBuf& pic, CxImageMetadata& meta, QString* error);

} // namespace PngIo
