#include "PnmIo.h"

#include "PictureFile.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QFile>
#include <QtCore/QtEndian>

namespace {

QString tr(const char* text)
{
    return QCoreApplication::translate("PnmIo", text);
}

bool isSpace(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

// The header: magic, width, height, maxval, separated by whitespace and
// comments, and one whitespace byte before the samples.
class CxPnmHeader
{
public:
    explicit CxPnmHeader(const QByteArray& bytes) : m_bytes(bytes) {}

    // False at the end of the data or on a token that is not a number.
    bool number(quint32 limit, quint32& value)
    {
        skipSpaceAndComments();
        quint64 v = 0;
        qsizetype digits = 0;
        while (m_pos < m_bytes.size() && m_bytes.at(m_pos) >= '0' && m_bytes.at(m_pos) <= '9') {
            v = v * 10 + quint64(m_bytes.at(m_pos) - '0');
            if (v > limit)
                return false;
            ++m_pos;
            ++digits;
        }
        value = quint32(v);
        return digits > 0;
    }
    // The single whitespace byte that ends the header.
    bool endOfHeader()
    {
        if (m_pos >= m_bytes.size() || !isSpace(m_bytes.at(m_pos)))
            return false;
        ++m_pos;
        return true;
    }
    qsizetype position() const { return m_pos; }
    void skip(qsizetype n) { m_pos += n; }

private:
    void skipSpaceAndComments()
    {
        while (m_pos < m_bytes.size()) {
            const char c = m_bytes.at(m_pos);
            if (c == '#') {
                while (m_pos < m_bytes.size() && m_bytes.at(m_pos) != '\n')
                    ++m_pos;
            } else if (isSpace(c)) {
                ++m_pos;
            } else {
                break;
            }
        }
    }

    const QByteArray& m_bytes;
    qsizetype m_pos = 0;
};

quint32 bitsForMaxval(quint32 maxval)
{
    quint32 bits = 0;
    while (bits < 16 && (quint32(1) << bits) <= maxval)
        ++bits;
    return bits;
}

struct SxImage
{
    SxPicBufInfo format;
    quint64 samples = 0;  // file offset of the first sample
    quint64 bytes = 0;    // of samples
};

// Headers are short; comments may make them longer, but not beyond this.
constexpr qint64 MaxHeader = 256 * 1024;

// The header at offset; false with the reason.
bool readHeader(QFile& file, quint64 offset, SxImage& image, QString* why)
{
    QByteArray bytes;
    for (qint64 window = 512;; window *= 8) {
        if (!file.seek(qint64(offset))) {
            *why = tr("cannot read the file (%1)").arg(file.errorString());
            return false;
        }
        bytes = file.read(window);
        const bool whole = bytes.size() < window || window >= MaxHeader;
        if (bytes.size() < 2 || bytes.at(0) != 'P' || (bytes.at(1) != '5' && bytes.at(1) != '6')) {
            if (bytes.size() >= 2 && bytes.at(0) == 'P' && bytes.at(1) >= '1' && bytes.at(1) <= '4')
                *why = tr("ASCII and bitmap PNM (P%1) are not supported, only P5 and P6").arg(QChar(bytes.at(1)));
            else
                *why = tr("not a binary PGM or PPM");
            return false;
        }
        CxPnmHeader header(bytes);
        header.skip(2);
        quint32 width = 0, height = 0, maxval = 0;
        const bool parsed = header.number(PictureFile::MaxSide, width) && header.number(PictureFile::MaxSide, height)
                            && header.number(65535, maxval) && header.endOfHeader();
        // A header cut by the window rather than by the file: read more.
        if (!parsed && !whole)
            continue;
        if (!parsed || width == 0 || height == 0 || maxval == 0) {
            *why = tr("the PNM header is malformed (width, height and maxval from 1, maxval at most 65535)");
            return false;
        }
        SxPicBufInfo& format = image.format;
        format = SxPicBufInfo();
        format.width = width;
        format.height = height;
        format.channels = bytes.at(1) == '6' ? 3 : 1;
        format.dataType = maxval > 255 ? IDT_UINT16 : IDT_UINT8;
        format.bitsPerSample = bitsForMaxval(maxval);
        format.isColor = format.channels == 3;
        image.samples = offset + quint64(header.position());
        image.bytes = format.packedLineBytes() * height;
        return true;
    }
}

// Where the next image starts after whitespace from offset; 0 at the end of
// the file.
quint64 nextImage(QFile& file, quint64 offset)
{
    while (file.seek(qint64(offset))) {
        const QByteArray bytes = file.read(4096);
        if (bytes.isEmpty())
            return 0;
        for (qsizetype i = 0; i < bytes.size(); ++i) {
            if (!isSpace(bytes.at(i)))
                return offset + quint64(i);
        }
        offset += quint64(bytes.size());
    }
    return 0;
}

} // namespace

namespace PnmIo {

bool scan(const QString& path, std::vector<quint64>& images, QString* error)
{
    images.clear();
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = PictureFile::fileError(path, tr("cannot open the file (%1)").arg(file.errorString()));
        return false;
    }
    const quint64 size = quint64(file.size());
    for (quint64 offset = 0;;) {
        SxImage image;
        QString why;
        if (readHeader(file, offset, image, &why) && size - image.samples < image.bytes)
            why = tr("the file is truncated: %1 bytes of samples, %2 expected").arg(size - image.samples).arg(image.bytes);
        if (!why.isEmpty()) {
            const qint64 index = qint64(images.size());
            *error = PictureFile::fileError(
                index == 0 ? path : PictureFile::frameName(path, PictureFile::UnitImage, index, 0), why);
            return false;
        }
        images.push_back(offset);
        offset = nextImage(file, image.samples + image.bytes);
        if (offset == 0)
            return true;
    }
}

bool read(const QString& path, quint64 offset, const QString& name, SxPicBuf& pic, CxImageMetadata& meta,
          QString* error)
{
    const auto fail = [&](const QString& what) {
        *error = PictureFile::fileError(name, what);
        return false;
    };
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return fail(tr("cannot open the file (%1)").arg(file.errorString()));
    SxImage image;
    QString why;
    if (!readHeader(file, offset, image, &why) || !PictureFile::preparePicture(pic, image.format, &why))
        return fail(why);
    if (!file.seek(qint64(image.samples))
        || file.read(reinterpret_cast<char*>(pic.data), qint64(image.bytes)) != qint64(image.bytes))
        return fail(tr("the file is truncated: fewer than %1 bytes of samples").arg(image.bytes));
    if (pic.dataType == IDT_UINT16)
        qFromBigEndian<quint16>(pic.data, qsizetype(image.bytes / 2), pic.data);
    if (pic.isColor) {
        for (quint32 y = 0; y < pic.height; ++y)
            PictureFile::swapRedBlue(pic.rowPtr(y), pic.width, pic.channels, pic.bytesPerSample());
    }
    meta = CxImageMetadata();
    meta.updateFromPicBufInfo(&pic);
    return true;
}

} // namespace PnmIo
