#pragma once
// Pictures for tests: formats, owning holders whose every byte is known,
// samples read and written whatever their type, and packets around them.
//
// A holder's memory ends where its last row's samples end, as a picture cut
// out of a larger frame does, so that AddressSanitizer catches a kernel that
// reads or writes one byte past it. Row padding is filled with kPad, so that
// padsIntact() tells whether a kernel wrote outside the samples.
#include <CxHsiCameraParams.h>
#include <CxImageData.h>
#include <CxImageMetadata.h>
#include <CxPicBufAPI.h>

#include <QtCore/QMetaType>
#include <QtCore/QRect>
#include <QtCore/QtGlobal>

#include <QtCore/QString>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <random>
#include <type_traits>
#include <vector>

namespace kit {

constexpr uchar kPad = 0xA5;

// padding: bytes after each row's samples; bits 0: all bits of the type.
inline SxPicBufInfo format(quint32 width, quint32 height, quint32 channels = 1, ExImageDataType type = IDT_UINT8,
                           quint32 padding = 0, ExColorFilterArray cfa = CFA_NONE,
                           ExDataStorageFormat storage = DSF_PACKED, bool isColor = false, quint32 bits = 0)
{
    SxPicBufInfo f;
    f.width = width;
    f.height = height;
    f.channels = channels;
    f.dataType = type;
    f.bitsPerSample = bits ? bits : bytesPerSampleOf(type) * 8;
    f.linePitch = quint32(f.packedLineBytes()) + padding;
    f.colorFilterArray = cfa;
    f.storageFormat = storage;
    f.isColor = isColor;
    return f;
}

// Calls f with a value of the C++ type that holds one sample of t (the raw
// 16 bits for half floats, a byte for unknown types).
template <class F>
decltype(auto) withSampleType(ExImageDataType t, F&& f)
{
    switch (t) {
    case IDT_INT8: return f(qint8());
    case IDT_INT16: return f(qint16());
    case IDT_UINT16: case IDT_HALF: return f(quint16());
    case IDT_INT32: return f(qint32());
    case IDT_UINT32: return f(quint32());
    case IDT_INT64: return f(qint64());
    case IDT_UINT64: return f(quint64());
    case IDT_FLOAT: return f(float());
    case IDT_DOUBLE: return f(double());
    default: return f(quint8());
    }
}

inline const uchar* sampleAt(const SxPicBuf& p, quint64 x, quint64 y, quint64 c = 0)
{
    return p.data + y * p.linePitch + (x * p.channels + c) * p.bytesPerSample();
}
inline uchar* sampleAt(SxPicBuf& p, quint64 x, quint64 y, quint64 c = 0)
{
    return p.data + y * p.linePitch + (x * p.channels + c) * p.bytesPerSample();
}

// At least bytes of padding, ending rows on whole 8 bytes, so that no sample
// straddles its alignment.
inline SxPicBufInfo padded(SxPicBufInfo f, quint32 bytes = 8)
{
    f.linePitch = quint32((f.packedLineBytes() + bytes + 7) / 8 * 8);
    return f;
}

// Read as long double, every sample of every type is exact, 64-bit ones too.
template <class N = double>
N sampleValue(const SxPicBuf& p, quint64 x, quint64 y, quint64 c = 0)
{
    return withSampleType(p.dataType, [&](auto zero) {
        decltype(zero) v;
        std::memcpy(&v, sampleAt(p, x, y, c), sizeof v);
        return N(v);
    });
}

// Stores v converted the plain C++ way (the caller keeps it in range).
inline void setSample(SxPicBuf& p, quint64 x, quint64 y, quint64 c, long double v)
{
    withSampleType(p.dataType, [&](auto zero) {
        const auto s = decltype(zero)(v);
        std::memcpy(sampleAt(p, x, y, c), &s, sizeof s);
    });
}

// A value that names its position: neighbours, rows and channels all differ,
// and it fits the type (floats hold it exactly).
inline double positionCode(ExImageDataType t, quint32 x, quint32 y, quint32 c)
{
    const quint64 v = quint64(y) * 1009u + quint64(x) * 17u + quint64(c) * 5u + 1u;
    return withSampleType(t, [&](auto zero) -> double {
        using T = decltype(zero);
        if constexpr (sizeof(T) == 1)
            return double(v % (std::is_signed_v<T> ? 127 : 251));
        else if constexpr (sizeof(T) == 2)
            return double(v % (std::is_signed_v<T> ? 32749 : 65521));
        else
            return double(v % 16777213u);
    });
}

// Half floats count as integers here, as withSampleType hands out their bits.
inline bool isFloat(ExImageDataType t)
{
    return withSampleType(t, [](auto zero) { return std::is_floating_point_v<decltype(zero)>; });
}

// The sample range; floats are kept to -100..100.
inline long double lowest(ExImageDataType t)
{
    return withSampleType(t, [](auto zero) -> long double {
        using T = decltype(zero);
        return std::is_integral_v<T> ? std::numeric_limits<T>::min() : -100;
    });
}
inline long double highest(ExImageDataType t)
{
    return withSampleType(t, [](auto zero) -> long double {
        using T = decltype(zero);
        return std::is_integral_v<T> ? std::numeric_limits<T>::max() : 100;
    });
}

// Integers near both ends of the type, small ones, and ones anywhere in the
// type or within its significant bits, so that saturation, rounding and
// overrange are all reached; floats anywhere in -100..100. With distinct,
// only that many values: ties and flat runs.
inline void fillRandom(SxPicBuf& p, quint32 seed, int distinct = 0)
{
    std::mt19937_64 rng(seed);
    const ExImageDataType t = p.dataType;
    const long double lo = lowest(t), hi = highest(t);
    const long double bitsHi = std::min(hi, std::ldexp(1.0L, int(p.bitsPerSample)) - 1);
    for (quint32 y = 0; y < p.height; ++y)
        for (quint32 x = 0; x < p.width; ++x)
            for (quint32 c = 0; c < p.channels; ++c) {
                const quint64 r = rng();
                const long double u = std::ldexp((long double)(r >> 11), -53), small = (r >> 8) % 300;
                const long double v = isFloat(t)  ? u * (hi - lo) + lo
                                      : distinct  ? lo + (long double)(r % quint64(distinct)) * 7
                                      : r % 5 == 0 ? hi - small
                                      : r % 5 == 1 ? lo + small
                                      : r % 5 == 2 ? small
                                      : r % 5 == 3 ? lo + std::floor(u * (hi - lo))
                                                   : std::floor(u * bitsHi);
                setSample(p, x, y, c, std::clamp(v, lo, hi));
            }
}

// Same geometry and sample type and the same bytes in every row (pitches may
// differ); why tells the first difference.
inline bool samePixels(const SxPicBuf& a, const SxPicBuf& b, QString* why = nullptr)
{
    QString scratch;
    QString& w = why ? *why : scratch;
    if (a.width != b.width || a.height != b.height || a.channels != b.channels || a.dataType != b.dataType)
        return w = QString("format %1 against %2").arg(a.describe(), b.describe()), false;
    if (!a.data || !b.data)
        return w = "no pixels", false;
    for (quint32 y = 0; y < a.height; ++y)
        if (std::memcmp(a.rowPtr(y), b.rowPtr(y), size_t(a.packedLineBytes())) != 0)
            return w = QString("row %1 differs").arg(y), false;
    return true;
}

// A zone of pw x ph bands of cell x cell pixels over rect (an invalid rect
// covers the whole sensor); band b is named prefix + b and has wavelength
// nm[b], or 400 + 10 b.
inline CxHsiCameraParams::CxFilterZone filterZone(const QRect& rect, int pw, int ph, int cell = 1,
                                                 const QString& prefix = QStringLiteral("b"),
                                                 const QList<double>& nm = {})
{
    CxHsiCameraParams::CxFilterZone z;
    z.rect = rect;
    z.patternWidth = pw;
    z.patternHeight = ph;
    z.cellWidth = z.cellHeight = cell;
    for (int b = 0; b < pw * ph; ++b)
        z.bands.append(CxHsiCameraParams::CxBand(prefix + QString::number(b), b < nm.size() ? nm[b] : 400 + 10 * b));
    return z;
}

// The description of a picture with that mosaic, and the camera's zones.
inline CxImageMetadata mosaicMeta(ExColorFilterArray cfa,
                                  const QList<CxHsiCameraParams::CxFilterZone>& zones = {})
{
    CxImageMetadata meta;
    meta.setColorFilterArray(cfa);
    CxHsiCameraParams hsi;
    hsi.setFilterZones(zones);
    meta.setHsiCameraParams(hsi);
    meta.setCameraName(QStringLiteral("test camera"));
    return meta;
}

// A packet that borrows pic's memory: deleting it frees nothing.
inline CxImageData* packet(const SxPicBuf& pic, const CxImageMetadata& meta = CxImageMetadata())
{
    auto* p = new CxImageData;
    p->setPicBuf(pic);
    p->setMetadata(&meta);
    return p;
}

// A packet that owns its picture on the heap, as a camera's does: whoever
// deletes it frees the memory.
inline CxImageData* heapPacket(const SxPicBufInfo& f, qint32 frameNumber, uchar fill)
{
    SxPicBuf p;
    CxPicBufAPI::AllocPicBufFromHeap(p, f, false, 0);
    std::memset(p.data, fill, size_t(p.dataSize()));
    p.frameNumber = frameNumber;
    auto* packet = new CxImageData;
    packet->setPicBuf(p);
    return packet;
}

// A picture that owns its memory; packets only borrow it, so one picture can
// feed any number of frames. Every frame carries the same per-frame values.
// A default-constructed one is empty for the API to allocate into; that
// memory is freed with it.
class CxPicture
{
public:
    using Fill = std::function<double(quint32 x, quint32 y, quint32 c)>;
    enum ExMemory { Tight, WholeRows };  // WholeRows: the last row's padding is memory too

    static constexpr qint32 FrameNumber = 77;
    static constexpr quint32 TimestampMs = 4242;
    static constexpr float ExposureUs = 12.5f;

    explicit CxPicture(const SxPicBufInfo& f, const Fill& fill = Fill(),
                       const CxImageMetadata& meta = CxImageMetadata(), ExMemory memory = Tight)
        : m_meta(meta)
    {
        const quint64 bytes = memory == Tight ? f.requiredBytes() : quint64(f.effectiveLinePitch()) * f.height;
        m_bytes.assign(size_t(qMax<quint64>(bytes, 1)), kPad);
        const bool wrapped = CxPicBufAPI::WrapPicBuf(m_pic, f, m_bytes.data(), m_bytes.size());
        Q_ASSERT(wrapped);
        Q_UNUSED(wrapped);
        refill(fill ? fill : [](quint32, quint32, quint32) { return 0.0; });
        m_pic.frameNumber = FrameNumber;
        m_pic.exposureTimeUs = ExposureUs;
        m_pic.timestampMs = TimestampMs;
    }
    CxPicture() = default;
    // Only pictures over memory of their own are copied, bytes and all.
    CxPicture(const CxPicture& o) : m_bytes(o.m_bytes), m_pic(o.m_pic), m_meta(o.m_meta)
    {
        Q_ASSERT(!m_bytes.empty() || !m_pic.data);
        m_pic.data = m_bytes.empty() ? nullptr : m_bytes.data();
    }
    CxPicture(CxPicture&& o) noexcept  // the rows stay where they are
        : m_bytes(std::move(o.m_bytes)), m_pic(o.m_pic), m_meta(std::move(o.m_meta))
    {
        o.m_pic = SxPicBuf();
    }
    CxPicture& operator=(const CxPicture&) = delete;
    ~CxPicture() { CxPicBufAPI::FreePicBuf(m_pic, true); }

    void refill(const Fill& fill)
    {
        for (quint32 y = 0; y < m_pic.height; ++y)
            for (quint32 x = 0; x < m_pic.width; ++x)
                for (quint32 c = 0; c < m_pic.channels; ++c)
                    setSample(m_pic, x, y, c, fill(x, y, c));
    }
    void fillPositions()
    {
        const ExImageDataType t = m_pic.dataType;
        refill([t](quint32 x, quint32 y, quint32 c) { return positionCode(t, x, y, c); });
    }
    // Every byte between a row's samples and the next row still holds kPad.
    bool padsIntact() const
    {
        const quint64 row = m_pic.packedLineBytes();
        if (m_pic.effectiveLinePitch() == 0)
            return true;
        for (quint64 at = 0; at < m_bytes.size(); ++at)
            if (at % m_pic.effectiveLinePitch() >= row && m_bytes[at] != kPad)
                return false;
        return true;
    }

    CxImageData* packet() const { return kit::packet(m_pic, m_meta); }
    SxPicBuf& pic() { return m_pic; }
    const SxPicBuf& pic() const { return m_pic; }
    CxImageMetadata& meta() { return m_meta; }
    uchar* bytes() { return m_bytes.data(); }
    const std::vector<uchar>& memory() const { return m_bytes; }

private:
    std::vector<uchar> m_bytes;
    SxPicBuf m_pic;
    CxImageMetadata m_meta;
};

} // namespace kit

Q_DECLARE_METATYPE(SxPicBufInfo)
Q_DECLARE_METATYPE(CxImageMetadata)
