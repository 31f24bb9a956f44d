#include "CxLut.h"
#include "SxPicBuf.h"

#include <KitCpu.h>
#include <KitRows.h>

#include <QtCore/QtEndian>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <type_traits>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

// GCC 12's byte-permute intrinsics pass an undefined vector as the source of
// masked-off lanes, and then warn that it may be used uninitialised.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

namespace {

double clamp01(double v) { return v < 0.0 ? 0.0 : (v > 1.0 ? 1.0 : v); }

quint8 to8(double v) { return quint8(std::lround(clamp01(v) * 255.0)); }

quint32 argb(quint8 r, quint8 g, quint8 b) { return 0xFF000000u | (quint32(r) << 16) | (quint32(g) << 8) | b; }

// Pixel for the output picture: the bytes blue, green, red, alpha in memory
// whatever the machine's byte order.
quint32 bgraPixel(quint32 argbValue)
{
    const quint8 bytes[4] = {quint8(argbValue), quint8(argbValue >> 8), quint8(argbValue >> 16), quint8(argbValue >> 24)};
    quint32 p;
    std::memcpy(&p, bytes, 4);
    return p;
}

// The classic piecewise-linear "jet" rainbow: dark blue, blue, cyan,
// yellow, red, dark red.
quint32 rainbowAt(int i)
{
    const double t = i / 255.0;
    return argb(to8(1.5 - std::fabs(4.0 * t - 3.0)), to8(1.5 - std::fabs(4.0 * t - 2.0)),
                to8(1.5 - std::fabs(4.0 * t - 1.0)));
}

// The classic "hot" map of length m = 256 with n = 3m/8: red rises over the
// first n entries, green over the next n, blue over the rest.
quint32 hotAt(int i)
{
    constexpr int m = 256, n = 3 * m / 8;
    const double k = i + 1;
    return argb(to8(k / n), to8((k - n) / n), to8((k - 2 * n) / (m - 2 * n)));
}

// Viridis from the published degree-6 polynomial fit of its 256-entry table
// (coefficients per channel, constant term first); it stays within a couple
// of 8-bit levels of the tabulated colours.
quint32 viridisAt(int i)
{
    static const double c[7][3] = {
        {0.2777273272234177, 0.005407344544966578, 0.3340998053353061},
        {0.1050930431085774, 1.404613529898575, 1.384590162594685},
        {-0.3308618287255563, 0.214847559468213, 0.09509516302823659},
        {-4.634230498983486, -5.799100973351585, -19.33244095627987},
        {6.228269936347081, 14.17993336680509, 56.69055260068105},
        {4.776384997670288, -13.74514537774601, -65.35303263337234},
        {-5.435455855934631, 4.645852612178535, 26.3124352495832},
    };
    const double t = i / 255.0;
    double rgb[3];
    for (int ch = 0; ch < 3; ++ch) {
        double v = c[6][ch];
        for (int k = 5; k >= 0; --k)
            v = v * t + c[k][ch];
        rgb[ch] = v;
    }
    return argb(to8(rgb[0]), to8(rgb[1]), to8(rgb[2]));
}

constexpr int kPseudoCount = 4;

const std::array<std::array<quint32, 256>, kPseudoCount>& pseudoTables()
{
    static const auto tables = [] {
        std::array<std::array<quint32, 256>, kPseudoCount> t{};
        for (int i = 0; i < 256; ++i) {
            t[CxLut::PseudoGrey][i] = argb(quint8(i), quint8(i), quint8(i));
            t[CxLut::PseudoRainbow][i] = rainbowAt(i);
            t[CxLut::PseudoHot][i] = hotAt(i);
            t[CxLut::PseudoViridis][i] = viridisAt(i);
        }
        return t;
    }();
    return tables;
}

// Value of table index k: the sample whose bit pattern is k.
qint64 valueOfIndex(size_t k, ExImageDataType t)
{
    switch (t) {
    case IDT_INT8: return qint8(quint8(k));
    case IDT_INT16: return qint16(quint16(k));
    default: return qint64(k);
    }
}

bool aligned(const SxPicBuf& p, unsigned bytes)
{
    return quintptr(p.data) % bytes == 0 && p.effectiveLinePitch() % bytes == 0;
}

// bytesPerRow: samples read and written by a row; 0 keeps the pass on the
// calling thread.
template <class Fn>
void forRows(int height, quint64 bytesPerRow, Fn&& fn)
{
    pixelkit::forEachRow(quint32(height), bytesPerRow, [&](quint32 y) { fn(int(y)); });
}

// One flat run of samples through one table. The scalar loops read and
// write eight bytes at a time: the table loads then need not wait for
// stores that might alias them, which byte-wide loops cannot rule out.
inline void mapRow8(const quint8* __restrict s, quint8* __restrict d, const quint8* __restrict t, qint64 n)
{
    qint64 i = 0;
    for (; i + 8 <= n; i += 8) {
        quint64 v;
        std::memcpy(&v, s + i, 8);
        const quint64 r = quint64(t[v & 255]) | quint64(t[(v >> 8) & 255]) << 8 | quint64(t[(v >> 16) & 255]) << 16
                          | quint64(t[(v >> 24) & 255]) << 24 | quint64(t[(v >> 32) & 255]) << 32
                          | quint64(t[(v >> 40) & 255]) << 40 | quint64(t[(v >> 48) & 255]) << 48
                          | quint64(t[v >> 56]) << 56;
        std::memcpy(d + i, &r, 8);
    }
    for (; i < n; ++i)
        d[i] = t[s[i]];
}

// Rows of 16-bit samples ask for the samples two kilobytes ahead once per
// line: with the table loads in flight the hardware does not fetch the row
// far enough ahead, and the passes waited on memory (a third slower).
// Asking never faults, so the last lines of a picture may ask past its end.
// Always inline: GCC drops calls to a function of nothing but prefetches.
[[gnu::always_inline]] inline void askAhead(const void* p)
{
    __builtin_prefetch(reinterpret_cast<const void*>(quintptr(p) + 2048));
}

inline void mapRow16(const quint16* __restrict s, quint16* __restrict d, const quint16* __restrict t, qint64 n)
{
    const auto four = [&](qint64 i) {
        quint64 v;
        std::memcpy(&v, s + i, 8);
        const quint64 r = quint64(t[v & 0xffff]) | quint64(t[(v >> 16) & 0xffff]) << 16
                          | quint64(t[(v >> 32) & 0xffff]) << 32 | quint64(t[v >> 48]) << 48;
        std::memcpy(d + i, &r, 8);
    };
    qint64 i = 0;
    for (; i + 32 <= n; i += 32) {
        askAhead(s + i);
        for (int k = 0; k < 32; k += 4)
            four(i + k);
    }
    for (; i + 4 <= n; i += 4)
        four(i);
    for (; i < n; ++i)
        d[i] = t[s[i]];
}

#if defined(__x86_64__)
// The whole 256-byte table sits in four registers; two two-table byte
// permutes and a blend on the top index bit map 64 samples, so the pass runs
// at memory speed. Gathers do not pay off for 16-bit tables on the cores
// measured, so those stay scalar.
__attribute__((target("avx512f,avx512bw,avx512vbmi"))) void mapRow8Vbmi(const quint8* __restrict s, quint8* __restrict d,
                                                                        const quint8* __restrict t, qint64 n)
{
    const __m512i t0 = _mm512_loadu_si512(t), t1 = _mm512_loadu_si512(t + 64);
    const __m512i t2 = _mm512_loadu_si512(t + 128), t3 = _mm512_loadu_si512(t + 192);
    qint64 i = 0;
    for (; i + 64 <= n; i += 64) {
        const __m512i v = _mm512_loadu_si512(s + i);
        const __m512i lo = _mm512_permutex2var_epi8(t0, v, t1);
        const __m512i hi = _mm512_permutex2var_epi8(t2, v, t3);
        _mm512_storeu_si512(d + i, _mm512_mask_blend_epi8(_mm512_movepi8_mask(v), lo, hi));
    }
    for (; i < n; ++i)
        d[i] = t[s[i]];
}

// 64 bytes through four 256-byte tables, lane j through table j % 4. Each
// table is a full two-level permute; the lanes then pick their own table's
// result, which costs less than splitting the channels apart and back.
struct SxLanes4
{
    __m512i t[4][4];
};

__attribute__((target("avx512f,avx512bw,avx512vbmi"))) inline __m512i lookup4(const SxLanes4& tabs, __m512i v)
{
    constexpr __mmask64 lane1 = 0x2222222222222222ull, lane2 = 0x4444444444444444ull, lane3 = 0x8888888888888888ull;
    const __mmask64 top = _mm512_movepi8_mask(v);
    __m512i r[4];
    for (int c = 0; c < 4; ++c) {
        const __m512i lo = _mm512_permutex2var_epi8(tabs.t[c][0], v, tabs.t[c][1]);
        const __m512i hi = _mm512_permutex2var_epi8(tabs.t[c][2], v, tabs.t[c][3]);
        r[c] = _mm512_mask_blend_epi8(top, lo, hi);
    }
    __m512i out = _mm512_mask_blend_epi8(lane1, r[0], r[1]);
    out = _mm512_mask_blend_epi8(lane2, out, r[2]);
    return _mm512_mask_blend_epi8(lane3, out, r[3]);
}

// n pixels of four 8-bit samples each, sample c through table c.
__attribute__((target("avx512f,avx512bw,avx512vbmi"))) void mapPixels4Vbmi(const quint8* __restrict s,
                                                                          quint8* __restrict d,
                                                                          const quint8* const t[4], qint64 n)
{
    SxLanes4 tabs;
    for (int c = 0; c < 4; ++c)
        for (int q = 0; q < 4; ++q)
            tabs.t[c][q] = _mm512_loadu_si512(t[c] + 64 * q);
    qint64 x = 0;
    for (; x + 16 <= n; x += 16)
        _mm512_storeu_si512(d + 4 * x, lookup4(tabs, _mm512_loadu_si512(s + 4 * x)));
    for (; x < n; ++x)
        for (int c = 0; c < 4; ++c)
            d[4 * x + c] = t[c][s[4 * x + c]];
}

// 64 grey samples into 64 four-byte colours: each of the four byte tables
// looked up once for all 64, then woven into pixels by unpacking. Unpacking
// interleaves within 128-bit lanes only, so the samples are first put in the
// order that makes output register q hold the pixels from 16 q on. With
// stream, d is 64-byte aligned and written past the caches.
__attribute__((target("avx512f,avx512bw,avx512vbmi"))) void mapGreyToPixelsVbmi(const quint8* __restrict s,
                                                                               quint8* __restrict d,
                                                                               const quint8* const t[4], qint64 n,
                                                                               bool stream)
{
    __m512i tabs[4][4];
    for (int c = 0; c < 4; ++c)
        for (int q = 0; q < 4; ++q)
            tabs[c][q] = _mm512_loadu_si512(t[c] + 64 * q);
    alignas(64) quint32 order[16];
    for (int i = 0; i < 16; ++i)
        order[i] = quint32((i % 4) * 4 + i / 4);
    const __m512i orderIdx = _mm512_load_si512(order);
    qint64 x = 0;
    for (; x + 64 <= n; x += 64) {
        const __m512i v = _mm512_permutexvar_epi32(orderIdx, _mm512_loadu_si512(s + x));
        const __mmask64 top = _mm512_movepi8_mask(v);
        __m512i b[4];
        for (int c = 0; c < 4; ++c) {
            const __m512i lo = _mm512_permutex2var_epi8(tabs[c][0], v, tabs[c][1]);
            const __m512i hi = _mm512_permutex2var_epi8(tabs[c][2], v, tabs[c][3]);
            b[c] = _mm512_mask_blend_epi8(top, lo, hi);
        }
        const __m512i lo01 = _mm512_unpacklo_epi8(b[0], b[1]), hi01 = _mm512_unpackhi_epi8(b[0], b[1]);
        const __m512i lo23 = _mm512_unpacklo_epi8(b[2], b[3]), hi23 = _mm512_unpackhi_epi8(b[2], b[3]);
        const __m512i px[4] = {_mm512_unpacklo_epi16(lo01, lo23), _mm512_unpackhi_epi16(lo01, lo23),
                               _mm512_unpacklo_epi16(hi01, hi23), _mm512_unpackhi_epi16(hi01, hi23)};
        for (int i = 0; i < 4; ++i) {
            if (stream)
                _mm512_stream_si512(reinterpret_cast<__m512i*>(d + 4 * x + 64 * i), px[i]);
            else
                _mm512_storeu_si512(d + 4 * x + 64 * i, px[i]);
        }
    }
    for (; x < n; ++x)
        for (int c = 0; c < 4; ++c)
            d[4 * x + c] = t[c][s[x]];
}

bool hasVbmi()
{
    return pixelkit::cpuHas(pixelkit::CpuFeature::Avx512Vbmi);
}
#endif

template <class TIn, class TOut>
inline void mapRow_T(const TIn* __restrict s, TOut* __restrict d, const TOut* __restrict tab, qint64 n)
{
    if constexpr (std::is_same_v<TIn, quint8> && std::is_same_v<TOut, quint8>) {
#if defined(__x86_64__)
        if (hasVbmi())
            return mapRow8Vbmi(s, d, tab, n);
#endif
        mapRow8(s, d, tab, n);
    } else if constexpr (std::is_same_v<TIn, quint16> && std::is_same_v<TOut, quint16>) {
        mapRow16(s, d, tab, n);
    } else {
        for (qint64 i = 0; i < n; ++i)
            d[i] = tab[s[i]];
    }
}

// Same layout out: every sample through the table of its channel.
template <class TIn, class TOut>
void applySame_T(const SxPicBuf& in, SxPicBuf& out, const TOut* tab, size_t entries, bool shared, int channels)
{
    const qint64 inPitch = qint64(in.effectiveLinePitch());
    const qint64 outPitch = qint64(out.effectiveLinePitch());
    const qint64 w = in.width;
    // The permute path already runs at memory speed on one core; a second
    // thread would add nothing but the wait for it at the end of the pass,
    // which on a machine busy with other chain threads costs more than the
    // whole pass.
    constexpr bool bytes = std::is_same_v<TIn, quint8> && std::is_same_v<TOut, quint8>;
    bool memoryBound = false, fourTables = false;
#if defined(__x86_64__)
    fourTables = bytes && !shared && channels == 4 && entries == 256 && hasVbmi();
    memoryBound = (shared && bytes && hasVbmi()) || fourTables;
#endif
    forRows(int(in.height), memoryBound ? 0 : quint64(w) * channels * (sizeof(TIn) + sizeof(TOut)), [&](int y) {
        const TIn* s = reinterpret_cast<const TIn*>(in.data + y * inPitch);
        TOut* d = reinterpret_cast<TOut*>(out.data + y * outPitch);
        if (shared)
            return mapRow_T(s, d, tab, w * channels);
#if defined(__x86_64__)
        if constexpr (bytes) {
            if (fourTables) {
                const quint8* const t[4] = {tab, tab + 256, tab + 512, tab + 768};
                return mapPixels4Vbmi(s, d, t, w);
            }
        }
#endif
        const TOut* __restrict t = tab;
        const qint64 n = w;
        const int ch = channels;
        const size_t e = entries;
        for (qint64 x = 0; x < n; ++x)
            for (int c = 0; c < ch; ++c)
                d[x * ch + c] = t[size_t(c) * e + s[x * ch + c]];
    });
}

template <class TIn>
void applyRgbMono_T(const SxPicBuf& in, SxPicBuf& out, const quint32* tab)
{
    const qint64 inPitch = qint64(in.effectiveLinePitch());
    const qint64 outPitch = qint64(out.effectiveLinePitch());
    const qint64 w = in.width;
#if defined(__x86_64__)
    if constexpr (sizeof(TIn) == 1) {
        if (hasVbmi()) {
            // The colour table as four byte tables, one per output byte.
            alignas(64) quint8 bytes[4][256];
            for (int k = 0; k < 256; ++k)
                for (int c = 0; c < 4; ++c)
                    bytes[c][k] = quint8(qFromLittleEndian(tab[k]) >> (8 * c));
            const quint8* const t[4] = {bytes[0], bytes[1], bytes[2], bytes[3]};
            // A colour picture several times the second-level cache would
            // otherwise be read in line by line only to be overwritten.
            const bool large = quint64(out.effectiveLinePitch()) * out.height >= (quint64(4) << 20);
            forRows(int(in.height), 0, [&](int y) {
                uchar* d = out.data + y * outPitch;
                mapGreyToPixelsVbmi(in.data + y * inPitch, d, t, w, large && quintptr(d) % 64 == 0);
            });
            _mm_sfence();
            return;
        }
    }
#endif
    forRows(int(in.height), quint64(w) * (sizeof(TIn) + 4), [&](int y) {
        // Locals, not captures: the byte stores could alias a captured
        // width or table, which would then be reloaded for every pixel.
        const TIn* __restrict s = reinterpret_cast<const TIn*>(in.data + y * inPitch);
        uchar* __restrict d = out.data + y * outPitch;
        const quint32* __restrict t = tab;
        const qint64 n = w;
        qint64 x = 0;
        if constexpr (sizeof(TIn) == 2) {
            for (; x + 32 <= n; x += 32) {
                askAhead(s + x);
                for (int k = 0; k < 32; ++k)
                    std::memcpy(d + 4 * (x + k), &t[s[x + k]], 4);
            }
        }
        for (; x < n; ++x)
            std::memcpy(d + 4 * x, &t[s[x]], 4);
    });
}

template <class TIn>
void applyRgbColour_T(const SxPicBuf& in, SxPicBuf& out, const quint8* tab, size_t entries, bool shared, int channels)
{
    const qint64 inPitch = qint64(in.effectiveLinePitch());
    const qint64 outPitch = qint64(out.effectiveLinePitch());
    const qint64 w = in.width;
    const quint8* t0 = tab;
    const quint8* t1 = shared ? tab : tab + entries;
    const quint8* t2 = shared ? tab : tab + 2 * entries;
#if defined(__x86_64__)
    if constexpr (sizeof(TIn) == 1) {
        if (channels == 4 && entries == 256 && hasVbmi()) {
            alignas(64) quint8 opaque[256];
            std::memset(opaque, 255, sizeof opaque);
            const quint8* const t[4] = {t0, t1, t2, opaque};
            forRows(int(in.height), 0, [&](int y) {
                mapPixels4Vbmi(in.data + y * inPitch, out.data + y * outPitch, t, w);
            });
            return;
        }
    }
#endif
    forRows(int(in.height), quint64(w) * (channels * sizeof(TIn) + 4), [&](int y) {
        const TIn* __restrict s = reinterpret_cast<const TIn*>(in.data + y * inPitch);
        uchar* __restrict d = out.data + y * outPitch;
        const quint8* __restrict r0 = t0;
        const quint8* __restrict r1 = t1;
        const quint8* __restrict r2 = t2;
        const qint64 n = w;
        const int ch = channels;
        for (qint64 x = 0; x < n; ++x) {
            const TIn* p = s + x * ch;
            d[4 * x + 0] = r0[p[0]];
            d[4 * x + 1] = r1[p[1]];
            d[4 * x + 2] = r2[p[2]];
            d[4 * x + 3] = 255;
        }
    });
}

} // namespace

CxLut::CxLut(unsigned int bits, unsigned int channels, bool isColor, ExImageDataType dataType)
    : m_channels(channels), m_isColor(isColor), m_type(dataType)
{
    const unsigned typeBits = bytesPerSampleOf(dataType) * 8;
    m_inBits = (bits == 0 || bits > typeBits) ? typeBits : bits;
    m_outBits = m_inBits;
    resetRecords();
}

CxLut::~CxLut() = default;

quint64 CxLut::inFullScale() const
{
    return (quint64(1) << std::min(m_inBits, 32u)) - 1;
}

void CxLut::resetRecords()
{
    CxCompContrast r;
    r.srcMax = qint64(inFullScale());
    r.dstMax = qint64((quint64(1) << std::min(m_outBits, 32u)) - 1);
    m_records.assign(std::max<size_t>(m_channels, 1), r);
}

void CxLut::setInputBits(unsigned int bits)
{
    const unsigned typeBits = bytesPerSampleOf(m_type) * 8;
    m_inBits = (bits == 0 || bits > typeBits) ? typeBits : bits;
}

void CxLut::setOutputBits(unsigned int bits) { m_outBits = bits ? bits : m_inBits; }

void CxLut::setChannels(unsigned int channels)
{
    m_channels = channels;
    m_records.resize(std::max<size_t>(channels, 1), m_records.front());
}

CxLut::CxCompContrast& CxLut::compContrast(int channel)
{
    return m_records[channel >= 0 && size_t(channel) < m_records.size() ? size_t(channel) : 0];
}

const CxLut::CxCompContrast& CxLut::compContrast(int channel) const
{
    return m_records[channel >= 0 && size_t(channel) < m_records.size() ? size_t(channel) : 0];
}

int CxLut::pseudoColorLutCount() { return kPseudoCount; }

QString CxLut::pseudoColorName(int index)
{
    switch (index) {
    case PseudoGrey: return QStringLiteral("Grey");
    case PseudoRainbow: return QStringLiteral("Rainbow");
    case PseudoHot: return QStringLiteral("Hot");
    case PseudoViridis: return QStringLiteral("Viridis");
    default: return QString();
    }
}

quint32 CxLut::pseudoColorEntry(int index, int level)
{
    level = std::clamp(level, 0, 255);
    if (index < 0 || index >= kPseudoCount)
        index = PseudoGrey;
    return pseudoTables()[size_t(index)][size_t(level)];
}

void CxLut::setPseudoColor(int index)
{
    m_pseudo = index;
    if (m_built != BuiltRgb || m_levels.empty())
        return;
    // Palette first, so the per-entry loop is a plain gather.
    quint32 palette[256];
    for (int i = 0; i < 256; ++i)
        palette[i] = bgraPixel(pseudoColorEntry(index, i));
    for (size_t k = 0; k < m_tab32.size(); ++k)
        m_tab32[k] = palette[m_levels[k]];
}

int CxLut::recordFor(int channel) const
{
    return m_independent && channel >= 0 && size_t(channel) < m_records.size() ? channel : 0;
}

double CxLut::window01(const CxCompContrast& r, qint64 v) const
{
    double t;
    if (r.srcMax > r.srcMin)
        t = clamp01((double(v) - double(r.srcMin)) / (double(r.srcMax) - double(r.srcMin)));
    else
        t = v > r.srcMin ? 1.0 : 0.0;
    const double g = (std::isfinite(r.gamma) && r.gamma > 0.0) ? r.gamma : 1.0;
    if (g != 1.0 && t > 0.0 && t < 1.0)
        t = std::pow(t, 1.0 / g);
    return t;
}

void CxLut::free()
{
    m_built = BuiltNone;
    m_entries = 0;
    m_tab8 = {};
    m_tab16 = {};
    m_tab32 = {};
    m_levels = {};
    m_sharedTable = false;
}

bool CxLut::alloc()
{
    free();
    const unsigned inBytes = inputBytes();
    const bool intType = m_type >= IDT_INT8 && m_type <= IDT_UINT16;
    if (!intType || m_channels == 0 || m_channels > 64 || m_outBits == 0 || m_outBits > 16)
        return false;
    if (m_inBits == 0 || m_inBits > inBytes * 8)
        return false;
    m_entries = size_t(1) << (8 * inBytes);
    m_outBytes = m_outBits <= 8 ? 1 : 2;
    const qint64 outFull = (qint64(1) << m_outBits) - 1;
    const bool alpha = m_isColor && m_channels == 4;
    m_sharedTable = !m_independent && !alpha;
    const unsigned tables = m_sharedTable ? 1 : m_channels;

    std::vector<quint16> levels(size_t(tables) * m_entries);
    for (unsigned c = 0; c < tables; ++c) {
        CxCompContrast r = m_records[size_t(recordFor(int(c)))];
        if (alpha && c == 3)
            r = CxCompContrast{0, qint64(inFullScale()), 1.0, 0, outFull};
        for (size_t k = 0; k < m_entries; ++k) {
            const double o = double(r.dstMin) + (double(r.dstMax) - double(r.dstMin)) * window01(r, valueOfIndex(k, m_type));
            levels[c * m_entries + k] = quint16(std::clamp<qint64>(qint64(std::floor(o + 0.5)), 0, outFull));
        }
    }
    if (m_outBytes == 1)
        m_tab8.assign(levels.begin(), levels.end());
    else
        m_tab16.swap(levels);
    m_built = BuiltSame;
    return true;
}

bool CxLut::allocRgb(unsigned int bitsPerPixel)
{
    free();
    const unsigned inBytes = inputBytes();
    const bool intType = m_type >= IDT_INT8 && m_type <= IDT_UINT16;
    if (bitsPerPixel != 32 || !intType || !(m_channels == 1 || m_channels == 3 || m_channels == 4))
        return false;
    if (m_inBits == 0 || m_inBits > inBytes * 8)
        return false;
    m_entries = size_t(1) << (8 * inBytes);
    m_outBytes = 1;
    auto level = [this](int channel, size_t k) {
        const CxCompContrast& r = m_records[size_t(recordFor(channel))];
        return quint8(std::lround(255.0 * window01(r, valueOfIndex(k, m_type))));
    };
    if (m_channels == 1) {
        m_levels.resize(m_entries);
        for (size_t k = 0; k < m_entries; ++k)
            m_levels[k] = level(0, k);
        m_tab32.resize(m_entries);
        m_sharedTable = true;
        m_built = BuiltRgb;
        setPseudoColor(m_pseudo);
    } else {
        m_sharedTable = !m_independent;
        const unsigned tables = m_sharedTable ? 1 : 3;
        m_tab8.resize(size_t(tables) * m_entries);
        for (unsigned c = 0; c < tables; ++c)
            for (size_t k = 0; k < m_entries; ++k)
                m_tab8[c * m_entries + k] = level(int(c), k);
    }
    m_built = BuiltRgb;
    return true;
}

quint32 CxLut::map(int channel, qint64 value) const
{
    if (m_built == BuiltNone || channel < 0 || unsigned(channel) >= std::max(m_channels, 1u))
        return 0;
    const size_t k = size_t(quint64(value) & (m_entries - 1));
    if (m_built == BuiltRgb) {
        if (m_channels == 1) {
            const quint32 p = m_tab32[k];
            quint8 b[4];
            std::memcpy(b, &p, 4);
            return (quint32(b[3]) << 24) | (quint32(b[2]) << 16) | (quint32(b[1]) << 8) | b[0];
        }
        if (channel >= 3)
            return 255;
        const size_t t = m_sharedTable ? 0 : size_t(channel);
        return m_tab8[t * m_entries + k];
    }
    const size_t t = m_sharedTable ? 0 : size_t(channel);
    return m_outBytes == 1 ? m_tab8[t * m_entries + k] : m_tab16[t * m_entries + k];
}

bool CxLut::isCompatibleWith(const SxPicBuf* out, const SxPicBuf* in) const
{
    if (!out || !in || m_built == BuiltNone)
        return false;
    const unsigned typeBits = bytesPerSampleOf(in->dataType) * 8;
    const unsigned inBits = (in->bitsPerSample == 0 || in->bitsPerSample > typeBits) ? typeBits : in->bitsPerSample;
    if (in->dataType != m_type || in->channels != m_channels || inBits != m_inBits || in->isColor != m_isColor)
        return false;
    if (out->width != in->width || out->height != in->height)
        return false;
    if (m_built == BuiltRgb)
        return out->channels == 4 && out->bytesPerSample() == 1;
    return out->channels == m_channels && out->bytesPerSample() == m_outBytes;
}

bool CxLut::apply(SxPicBuf* out, const SxPicBuf* in, const CxImageMetadata* /*metadata*/) const
{
    if (!isCompatibleWith(out, in) || !in->data || !out->data)
        return false;
    if (!in->isValidFormat() || !out->isValidFormat())
        return false;
    if (!aligned(*in, inputBytes()) || !aligned(*out, m_outBytes))
        return false;
    const int ch = int(m_channels);
    const bool in16 = inputBytes() == 2;
    if (m_built == BuiltRgb) {
        if (ch == 1) {
            if (in16)
                applyRgbMono_T<quint16>(*in, *out, m_tab32.data());
            else
                applyRgbMono_T<quint8>(*in, *out, m_tab32.data());
        } else if (in16) {
            applyRgbColour_T<quint16>(*in, *out, m_tab8.data(), m_entries, m_sharedTable, ch);
        } else {
            applyRgbColour_T<quint8>(*in, *out, m_tab8.data(), m_entries, m_sharedTable, ch);
        }
        return true;
    }
    if (in16) {
        if (m_outBytes == 2)
            applySame_T<quint16, quint16>(*in, *out, m_tab16.data(), m_entries, m_sharedTable, ch);
        else
            applySame_T<quint16, quint8>(*in, *out, m_tab8.data(), m_entries, m_sharedTable, ch);
    } else {
        if (m_outBytes == 2)
            applySame_T<quint8, quint16>(*in, *out, m_tab16.data(), m_entries, m_sharedTable, ch);
        else
            applySame_T<quint8, quint8>(*in, *out, m_tab8.data(), m_entries, m_sharedTable, ch);
    }
    return true;
}
