#include "PnmIo.h"

#include "PictureFile.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QFile>

#include <cstring>

namespace {

QString tr(const char* text)
{
    return QCoreApplication::translate("PnmIo", text);
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
    static bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f'; }
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

} // namespace

namespace PnmIo {

bool read(const QString& path, SxPicBuf& pic, CxImageMetadata& meta, QString* error)
{
    const auto fail = [&](const QString& what) {
        *error = PictureFile::fileError(path, what);
        return false;
    };
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return fail(tr("cannot open the file (%1)").arg(file.errorString()));
    if (quint64(file.size()) > PictureFile::MaxBytes + 4096)
        return fail(tr("the file is larger than any picture this program reads"));
    const QByteArray bytes = file.readAll();
    if (bytes.size() != file.size())
        return fail(tr("cannot read the file (%1)").arg(file.errorString()));

    if (bytes.size() < 2 || bytes.at(0) != 'P' || (bytes.at(1) != '5' && bytes.at(1) != '6')) {
        if (bytes.size() >= 2 && bytes.at(0) == 'P' && bytes.at(1) >= '1' && bytes.at(1) <= '4')
            return fail(tr("ASCII and bitmap PNM (P%1) are not supported, only P5 and P6").arg(QChar(bytes.at(1))));
        return fail(tr("not a binary PGM or PPM"));
    }
    const quint32 channels = bytes.at(1) == '6' ? 3 : 1;
    CxPnmHeader header(bytes);
    header.skip(2);
    quint32 width = 0, height = 0, maxval = 0;
    if (!header.number(PictureFile::MaxSide, width) || !header.number(PictureFile::MaxSide, height)
        || !header.number(65535, maxval) || !header.endOfHeader() || width == 0 || height == 0 || maxval == 0)
        return fail(tr("the PNM header is malformed (width, height and maxval from 1, maxval at most 65535)"));

    SxPicBufInfo format;
    format.width = width;
    format.height = height;
    format.channels = channels;
    format.dataType = maxval > 255 ? IDT_UINT16 : IDT_UINT8;
    format.bitsPerSample = bitsForMaxval(maxval);
    format.isColor = channels == 3;
    const quint64 rowBytes = format.packedLineBytes();
    const quint64 need = rowBytes * height;
    const quint64 have = quint64(bytes.size() - header.position());
    if (have < need)
        return fail(tr("the file is truncated: %1 bytes of samples, %2 expected").arg(have).arg(need));
    QString why;
    if (!PictureFile::preparePicture(pic, format, &why))
        return fail(why);
    const uchar* src = reinterpret_cast<const uchar*>(bytes.constData()) + header.position();
    for (quint32 y = 0; y < height; ++y, src += rowBytes) {
        if (format.dataType == IDT_UINT8) {
            std::memcpy(pic.rowPtr(y), src, size_t(rowBytes));
            continue;
        }
        quint16* dst = pic.row<quint16>(y);
        for (quint64 i = 0; i < rowBytes / 2; ++i)
            dst[i] = quint16((quint16(src[2 * i]) << 8) | src[2 * i + 1]);
    }
    meta = CxImageMetadata();
    meta.updateFromPicBufInfo(&pic);
    meta.setChannelNames(PictureFile::colourChannelNames(channels));
    return true;
}

} // namespace PnmIo
