#include "PictureSamples.h"

namespace picturesamples {

namespace {

// More channels than this is a corrupt format, not a picture.
constexpr quint32 MaxChannels = 4096;

// The bytes the picture says it holds. Heap and pool pictures know their
// size; otherwise the format's own need is all there is to go on.
quint64 availableBytes(const SxPicBuf& pic)
{
    return pic.memCapacity ? pic.memCapacity : pic.requiredBytes();
}

// rows rows of rowBytes each, pitch apart, inside available bytes.
bool rowsFit(quint64 pitch, quint64 rowBytes, quint64 rows, quint64 available)
{
    if (rows == 0 || rowBytes > available || pitch < rowBytes)
        return false;
    return rows == 1 || (rows - 1) <= (available - rowBytes) / pitch;
}

// Planes of a picture with the sample size bytes, or none when they do not fit.
QList<SxPlane> planesOf(const SxPicBuf& pic, unsigned bytes, bool planar)
{
    QList<SxPlane> planes;
    const quint64 w = pic.width, h = pic.height, ch = pic.channels;
    const quint64 available = availableBytes(pic);
    if (planar && ch > 1) {
        const quint64 planeBytes = w * bytes * h;
        if (h == 0 || planeBytes / h != w * bytes || planeBytes > available / ch)
            return planes;
        for (quint64 c = 0; c < ch; ++c)
            planes.append(SxPlane{pic.data + c * planeBytes, qint64(w * bytes), qint64(bytes)});
        return planes;
    }
    const quint64 rowBytes = w * ch * bytes;
    const quint64 pitch = pic.linePitch ? pic.linePitch : rowBytes;
    if (!rowsFit(pitch, rowBytes, h, available))
        return planes;
    for (quint64 c = 0; c < ch; ++c)
        planes.append(SxPlane{pic.data + c * bytes, qint64(pitch), qint64(ch * bytes)});
    return planes;
}

} // namespace

SxLayout layoutOf(const SxViewFrame& frame)
{
    SxLayout l;
    const SxPicBuf& pic = frame.pic;
    if (!pic.data || pic.width == 0 || pic.height == 0 || pic.channels == 0 || pic.channels > MaxChannels)
        return l;
    // Spectrum samples are floats whatever the format announces.
    const ExImageDataType type = frame.spectrum ? IDT_FLOAT : pic.dataType;
    if (!isSupportedType(type) || (frame.spectrum && pic.channels != 1))
        return l;
    const unsigned bytes = bytesPerSampleOf(type);
    l.planes = planesOf(pic, bytes, pic.storageFormat == DSF_PLANAR);
    if (l.planes.isEmpty())
        return l;
    if (frame.spectrum) {
        const SxPicBuf& im = frame.im;
        if (!im.data || im.width != pic.width || im.height != pic.height || im.channels != 1)
            return SxLayout();
        const QList<SxPlane> imPlanes = planesOf(im, bytes, false);
        if (imPlanes.isEmpty())
            return SxLayout();
        l.planes.append(imPlanes.first());
        l.spectrum = true;
    }
    l.width = pic.width;
    l.height = pic.height;
    l.type = type;
    l.bits = int(pic.bitsPerSample);
    if (l.bits <= 0 || l.bits > typeBits(type))
        l.bits = typeBits(type);
    if (!frame.spectrum && pic.isBlueFirstColour()) {
        l.colour = true;
        l.planes.swapItemsAt(0, 2);
    }
    if (!frame.spectrum && !l.colour && pic.channels == 1 && pic.storageFormat != DSF_NOT_RAW
        && pic.colorFilterArray >= CFA_BAYER_RGGB && pic.colorFilterArray <= CFA_HSI_MOSAIC)
        l.mosaic = pic.colorFilterArray;
    l.valid = true;
    return l;
}

} // namespace picturesamples
