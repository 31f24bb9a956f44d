#pragma once
// Pictures for the tests of the host and the programs: one format builder,
// one holder, one switch over the sample types and one filler. Samples are
// read and written as long double, which holds every sample of every type
// exactly.
#include <CxPicBufAPI.h>

#include <QtCore/QFloat16>
#include <QtCore/QString>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

using TstNum = long double;
constexpr uchar TstPadByte = 0xA5;

inline SxPicBufInfo tstFormat(quint32 w, quint32 h, ExImageDataType t = IDT_UINT8, quint32 ch = 1,
                              bool isColor = false, quint32 bits = 0)
{
    SxPicBufInfo f;
    f.width = w, f.height = h, f.channels = ch, f.dataType = t, f.isColor = isColor;
    f.bitsPerSample = bits ? bits : bytesPerSampleOf(t) * 8;
    return f;
}

// Either a picture over memory of its own, every byte TstPadByte until
// written, or (default-constructed) whatever the API allocates into it,
// freed with the holder. Padded rows carry padBytes more, rounded up to
// whole 8 bytes so that no sample straddles its alignment; a tight picture
// ends right after its last row's samples, so a kernel that touches a byte
// beyond them is a sanitizer report.
struct SxTstPic
{
    std::vector<uchar> mem;
    SxPicBuf pic;

    SxTstPic() = default;
    explicit SxTstPic(SxPicBufInfo f, quint32 padBytes = 0, bool tight = false)
    {
        const quint64 packed = f.packedLineBytes();
        f.linePitch = quint32(padBytes ? (packed + padBytes + 7) / 8 * 8 : packed);
        const quint64 bytes = tight ? f.requiredBytes() : quint64(f.linePitch) * f.height;
        mem.assign(size_t(std::max<quint64>(bytes, 1)), TstPadByte);
        CxPicBufAPI::WrapPicBuf(pic, f, mem.data(), bytes);
    }
    // Only pictures over their own memory are copied, bytes and all.
    SxTstPic(const SxTstPic& o) : mem(o.mem), pic(o.pic)
    {
        Q_ASSERT(!mem.empty() || !pic.data);
        pic.data = mem.empty() ? nullptr : mem.data();
    }
    SxTstPic& operator=(const SxTstPic&) = delete;
    ~SxTstPic() { CxPicBufAPI::FreePicBuf(pic, true); }

    uchar* at(quint32 x, quint32 y, quint32 c = 0) const
    {
        return const_cast<uchar*>(pic.rowPtr(y)) + (quint64(x) * pic.channels + c) * pic.bytesPerSample();
    }
    template <class T> T& px(quint32 x, quint32 y, quint32 c = 0) const { return *reinterpret_cast<T*>(at(x, y, c)); }
    bool paddingIntact() const
    {
        for (quint64 i = 0; i < mem.size() && pic.linePitch; ++i)
            if (i % pic.linePitch >= pic.packedLineBytes() && mem[i] != TstPadByte)
                return false;
        return true;
    }
    bool untouched() const
    {
        return std::all_of(mem.begin(), mem.end(), [](uchar b) { return b == TstPadByte; });
    }
};

// Calls f with a value of the sample type.
template <class F> auto tstOnType(ExImageDataType t, F&& f)
{
    switch (t) {
    case IDT_INT8: return f(qint8());
    case IDT_UINT8: return f(quint8());
    case IDT_INT16: return f(qint16());
    case IDT_UINT16: return f(quint16());
    case IDT_INT32: return f(qint32());
    case IDT_UINT32: return f(quint32());
    case IDT_INT64: return f(qint64());
    case IDT_UINT64: return f(quint64());
    case IDT_DOUBLE: return f(double());
    case IDT_HALF: return f(qfloat16());
    default: return f(float());
    }
}

inline bool tstIsFloat(ExImageDataType t) { return t == IDT_FLOAT || t == IDT_DOUBLE || t == IDT_HALF; }

inline TstNum tstSample(const SxPicBuf& p, quint32 x, quint32 y, quint32 c = 0)
{
    const uchar* at = p.rowPtr(y) + (quint64(x) * p.channels + c) * p.bytesPerSample();
    return tstOnType(p.dataType, [&](auto v) { std::memcpy(&v, at, sizeof v); return TstNum(v); });
}

inline void tstSetSample(SxPicBuf& p, quint32 x, quint32 y, quint32 c, TstNum n)
{
    uchar* at = p.rowPtr(y) + (quint64(x) * p.channels + c) * p.bytesPerSample();
    tstOnType(p.dataType, [&](auto v) { v = decltype(v)(n); std::memcpy(at, &v, sizeof v); return 0; });
}

// The sample range; floats are kept to -100..100.
inline TstNum tstLowest(ExImageDataType t)
{
    return tstOnType(t, [](auto v) {
        return std::is_integral_v<decltype(v)> ? TstNum(std::numeric_limits<decltype(v)>::min()) : TstNum(-100);
    });
}
inline TstNum tstHighest(ExImageDataType t)
{
    return tstOnType(t, [](auto v) {
        return std::is_integral_v<decltype(v)> ? TstNum(std::numeric_limits<decltype(v)>::max()) : TstNum(100);
    });
}

// Integers near both ends of the type, small ones, and ones anywhere in the
// type or within its significant bits, so that saturation, rounding and
// overrange are all reached; floats anywhere in -100..100. With distinct,
// only that many values: ties and flat runs.
inline void tstFillRandom(SxPicBuf& p, quint32 seed, int distinct = 0)
{
    std::mt19937_64 rng(seed);
    const ExImageDataType t = p.dataType;
    const TstNum lo = tstLowest(t), hi = tstHighest(t);
    const TstNum bitsHi = std::min(hi, std::ldexp(TstNum(1), int(p.bitsPerSample)) - 1);
    for (quint32 y = 0; y < p.height; ++y)
        for (quint32 x = 0; x < p.width; ++x)
            for (quint32 c = 0; c < p.channels; ++c) {
                const quint64 r = rng();
                const TstNum u = std::ldexp(TstNum(r >> 11), -53), small = TstNum((r >> 8) % 300);
                const TstNum v = tstIsFloat(t)  ? u * (hi - lo) + lo
                                 : distinct     ? lo + TstNum(r % quint64(distinct)) * 7
                                 : r % 5 == 0   ? hi - small
                                 : r % 5 == 1   ? lo + small
                                 : r % 5 == 2   ? small
                                 : r % 5 == 3   ? lo + std::floor(u * (hi - lo))
                                                : std::floor(u * bitsHi);
                tstSetSample(p, x, y, c, std::clamp(v, lo, hi));
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
