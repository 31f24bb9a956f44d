#pragma once
// One plane of a mosaic, gathered out of its picture into dense rows and
// woven back in.
//
// A plane is the samples at offset (x0, y0) of a pattern: cells of cellW x
// cellH samples whose top-left corners lie stepX samples and stepY rows
// apart (stepX = periodX x cellW for cells side by side; a channel of an
// interleaved picture is a pattern of step channels). Plane sample (i, r) is
// picture sample
//     x = x0 + (i / cellW) * stepX + i % cellW,  y = y0 + (r / cellH) * stepY + r % cellH.
// Coordinates count samples of a row, not pixels. Offsets may lie outside
// the picture: a gather writes 0 for every plane sample the picture does not
// hold, and a weave skips those samples, so neither reads nor writes outside
// either buffer. Rows may start at any byte (a 16-bit picture with odd row
// padding): samples move through memcpy, which the compiler turns into
// plain loads and stores.

#include "KitPicture.h"

#include <QtCore/qglobal.h>

#include <cstring>
#include <type_traits>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#include <immintrin.h>
#define QLAR_KIT_STREAMS_VBMI 1
#endif

#include "KitCpu.h"

namespace pixelkit {

// Rows of samples in memory: width and height in samples and rows.
template <class Byte>
struct SampleRows
{
    Byte* data = nullptr;
    quint64 pitch = 0;
    qint64 width = 0;
    qint64 height = 0;
};

template <class Pic>
SampleRows<const uchar> rowsOf(const Pic& p)
{
    return {p.data, p.effectiveLinePitch(), qint64(p.width) * p.channels, qint64(p.height)};
}

template <class Pic>
SampleRows<uchar> rowsOf(Pic& p)
{
    return {p.data, p.effectiveLinePitch(), qint64(p.width) * p.channels, qint64(p.height)};
}

struct MosaicPlane
{
    qint64 x0 = 0, y0 = 0;
    qint64 stepX = 2, stepY = 2;
    qint64 cellW = 1, cellH = 1;
};

namespace detail {

// Every picture dimension fits 32 bits, so a step at least this long leaves
// any picture in one go; capping there keeps the arithmetic of nonsense
// camera descriptions from overflowing.
constexpr qint64 FarAway = qint64(1) << 40;

inline qint64 cappedAdd(qint64 a, qint64 b)
{
    const qint64 s = a + (b < FarAway ? b : FarAway);
    return s < FarAway ? s : FarAway;
}

// Picture row of plane row r; FarAway or beyond when there is none.
inline qint64 pictureRow(const MosaicPlane& m, qint64 r)
{
    const qint64 group = r / m.cellH;
    const qint64 offset = m.stepY > 0 && group > FarAway / m.stepY ? FarAway : group * m.stepY;
    return cappedAdd(m.y0, offset) + r % m.cellH;
}

// Plane samples [first, last) of a single-sample-cell row land inside a
// picture row of width samples.
inline void insideRun(const MosaicPlane& m, qint64 n, qint64 width, qint64& first, qint64& last)
{
    const qint64 step = m.stepX;
    first = m.x0 >= 0 ? 0 : (-m.x0 + step - 1) / step;
    last = m.x0 >= width ? 0 : (width - m.x0 + step - 1) / step;
    first = first < n ? first : n;
    last = last < n ? last : n;
    if (last < first)
        last = first;
}

template <unsigned S>
inline void copySample(uchar* d, const uchar* s)
{
    std::memcpy(d, s, S);
}

// Not built as clones: their resolvers would be exported by every library
// that instantiates them.
template <class U>
void gatherEveryOtherWide(uchar* __restrict d, const uchar* __restrict s, qint64 n)
{
    for (qint64 i = 0; i < n; ++i)
        std::memcpy(d + i * sizeof(U), s + 2 * i * sizeof(U), sizeof(U));
}

// Every other sample of a row: n samples of a 2 x 2 mosaic cell. The vector
// loops stop a sample early: their last load reaches one sample past the
// last one taken, which may lie past the end of the picture.
template <unsigned S>
inline void gatherEveryOther(uchar* __restrict d, const uchar* __restrict s, qint64 n)
{
    qint64 i = 0;
    if constexpr (S == 4) {
        gatherEveryOtherWide<quint32>(d, s, n);
        return;
    } else if constexpr (S == 8) {
        gatherEveryOtherWide<quint64>(d, s, n);
        return;
    }
#if defined(__SSE2__)
    if constexpr (S == 1) {
        const __m128i low = _mm_set1_epi16(0x00ff);
        for (; i + 17 <= n; i += 16) {
            const __m128i v0 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 2 * i));
            const __m128i v1 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 2 * i + 16));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(d + i),
                             _mm_packus_epi16(_mm_and_si128(v0, low), _mm_and_si128(v1, low)));
        }
    } else if constexpr (S == 2) {
        // Sign-extended halves stay inside the signed 16-bit range, so the
        // saturating pack keeps their bit patterns.
        for (; i + 9 <= n; i += 8) {
            const __m128i v0 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 4 * i));
            const __m128i v1 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 4 * i + 16));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(d + 2 * i),
                             _mm_packs_epi32(_mm_srai_epi32(_mm_slli_epi32(v0, 16), 16),
                                             _mm_srai_epi32(_mm_slli_epi32(v1, 16), 16)));
        }
    }
#endif
    for (; i < n; ++i)
        copySample<S>(d + i * S, s + 2 * i * S);
}

} // namespace detail

// Product of two positive pattern sizes as a step, held at a distance beyond
// every picture.
inline qint64 cappedStep(qint64 a, qint64 b)
{
    return a > detail::FarAway / b ? detail::FarAway : qMin(a * b, detail::FarAway);
}

// Plane row r of m out of the picture in, into dst (out's width samples).
// The plane comes by value: stores through the byte pointers could alias a
// plane held by reference, and its steps would be reloaded for every sample.
template <unsigned S>
void gatherPlaneRow(SampleRows<const uchar> in, const MosaicPlane m, qint64 width, qint64 r, uchar* dst)
{
    const qint64 y = detail::pictureRow(m, r);
    if (y < 0 || y >= in.height) {
        std::memset(dst, 0, size_t(width * S));
        return;
    }
    const uchar* src = in.data + quint64(y) * in.pitch;
    if (m.cellW == 1) {
        // Single-sample cells: a plain stride, the common case, kept tight.
        qint64 first, last;
        detail::insideRun(m, width, in.width, first, last);
        if (first > 0)  // never negative; the test also tells the compiler so
            std::memset(dst, 0, size_t(first * S));
        const uchar* s = src + (m.x0 + first * m.stepX) * qint64(S);
        uchar* d = dst + first * S;
        const qint64 n = last - first;
        if (m.stepX == 2) {
            detail::gatherEveryOther<S>(d, s, n);
        } else {
            const qint64 step = m.stepX * qint64(S);
            for (qint64 i = 0; i < n; ++i)
                detail::copySample<S>(d + i * S, s + i * step);
        }
        std::memset(dst + last * S, 0, size_t((width - last) * S));
        return;
    }
    qint64 o = 0;
    for (qint64 runX = m.x0; o < width; runX = detail::cappedAdd(runX, m.stepX)) {
        for (qint64 j = 0; j < m.cellW && o < width; ++j, ++o) {
            const qint64 x = runX + j;
            if (x >= 0 && x < in.width)
                detail::copySample<S>(dst + o * S, src + x * S);
            else
                std::memset(dst + o * S, 0, S);
        }
    }
}

// The whole plane, row by row on the calling thread.
template <unsigned S>
void gatherPlane(SampleRows<const uchar> in, const MosaicPlane& m, SampleRows<uchar> out)
{
    for (qint64 r = 0; r < out.height; ++r)
        gatherPlaneRow<S>(in, m, out.width, r, out.data + quint64(r) * out.pitch);
}

// Plane row r back into the picture out: the samples out holds are written,
// the others dropped.
template <unsigned S>
void weavePlaneRow(const uchar* src, qint64 width, const MosaicPlane m, qint64 r, SampleRows<uchar> out)
{
    const qint64 y = detail::pictureRow(m, r);
    if (y < 0 || y >= out.height)
        return;
    uchar* dst = out.data + quint64(y) * out.pitch;
    if (m.cellW == 1) {
        qint64 first, last;
        detail::insideRun(m, width, out.width, first, last);
        uchar* d = dst + (m.x0 + first * m.stepX) * qint64(S);
        const uchar* s = src + first * S;
        const qint64 step = m.stepX * qint64(S);
        for (qint64 i = 0, n = last - first; i < n; ++i)
            detail::copySample<S>(d + i * step, s + i * S);
        return;
    }
    qint64 o = 0;
    for (qint64 runX = m.x0; o < width; runX = detail::cappedAdd(runX, m.stepX)) {
        for (qint64 j = 0; j < m.cellW && o < width; ++j, ++o) {
            const qint64 x = runX + j;
            if (x >= 0 && x < out.width)
                detail::copySample<S>(dst + x * S, src + o * S);
        }
    }
}

template <unsigned S>
void weavePlane(SampleRows<const uchar> plane, const MosaicPlane& m, SampleRows<uchar> out)
{
    for (qint64 r = 0; r < plane.height; ++r)
        weavePlaneRow<S>(plane.data + quint64(r) * plane.pitch, plane.width, m, r, out);
}

// Band totalBand of a hyperspectral mosaic (counted over all filter zones)
// as a dense one-channel picture of samples S bytes wide: the plane of its
// cell in its zone's pattern, starting at the zone's rectangle when it has
// one. Groups of cellHeight rows start patternHeight x cellHeight x
// cellHeight rows apart, as the cameras lay them out. The whole of out is
// written, 0 where the picture has no sample. False, with out untouched,
// without a description, a band, a pattern, or one-channel pictures of S
// bytes whose rows fit their memory. Meta is the host's picture description
// (anything with hsiCameraParams().filterZoneWithTotalBandIdx).
template <unsigned S, class Pic, class Meta>
bool gatherBand(Pic& out, const Pic& in, const Meta* meta, int totalBand)
{
    if (!meta || !in.data || in.channels != 1 || out.channels != 1)
        return false;
    if (in.bytesPerSample() != S || out.bytesPerSample() != S)
        return false;
    typename std::remove_cv_t<std::remove_reference_t<decltype(meta->hsiCameraParams())>>::SxBandIdx idx;
    const auto* zone = meta->hsiCameraParams().filterZoneWithTotalBandIdx(totalBand, &idx);
    if (!zone || idx.band < 0)
        return false;
    const qint64 px = zone->patternWidth, py = zone->patternHeight;
    const qint64 cellW = zone->cellWidth, cellH = zone->cellHeight;
    if (px <= 0 || py <= 0 || cellW <= 0 || cellH <= 0)
        return false;
    if (out.width == 0 || out.height == 0)
        return true;
    if (!out.data || !rowsFit(in) || !rowsFit(out))
        return false;

    qint64 x0 = (idx.band % px) * cellW;
    qint64 y0 = (idx.band / px) * cellH;
    const auto& rect = zone->rect;
    if (rect.left() <= rect.right() && rect.top() <= rect.bottom()) {
        x0 += rect.left();
        y0 += rect.top();
    }
    const MosaicPlane band{x0, y0, cappedStep(px, cellW), cappedStep(cappedStep(py, cellH), cellH), cellW, cellH};
    gatherPlane<S>(rowsOf(in), band, rowsOf(out));
    return true;
}

// The 2 x 2 fast path for passes that need both cells of a row at once:
// samples 2i and 2i + 1 of a picture row into a[i] and b[i], n pairs, and
// back. Plane rows are aligned, picture rows may start at any byte.
template <class T>
inline void splitPairs(const uchar* s, T* a, T* b, quint64 n)
{
    quint64 x = 0;
#if defined(__SSE2__)
    if constexpr (sizeof(T) == 1) {
        const __m128i low = _mm_set1_epi16(0x00ff);
        for (; x + 16 <= n; x += 16) {
            const __m128i v0 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 2 * x));
            const __m128i v1 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 2 * x + 16));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(a + x),
                             _mm_packus_epi16(_mm_and_si128(v0, low), _mm_and_si128(v1, low)));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(b + x),
                             _mm_packus_epi16(_mm_srli_epi16(v0, 8), _mm_srli_epi16(v1, 8)));
        }
    } else if constexpr (sizeof(T) == 2) {
        for (; x + 8 <= n; x += 8) {
            const __m128i v0 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 4 * x));
            const __m128i v1 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + 4 * x + 16));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(a + x),
                             _mm_packs_epi32(_mm_srai_epi32(_mm_slli_epi32(v0, 16), 16),
                                             _mm_srai_epi32(_mm_slli_epi32(v1, 16), 16)));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(b + x),
                             _mm_packs_epi32(_mm_srai_epi32(v0, 16), _mm_srai_epi32(v1, 16)));
        }
    }
#endif
    for (; x < n; ++x) {
        std::memcpy(a + x, s + 2 * x * sizeof(T), sizeof(T));
        std::memcpy(b + x, s + (2 * x + 1) * sizeof(T), sizeof(T));
    }
}

template <class T>
inline void weavePairs(const T* a, const T* b, uchar* d, quint64 n)
{
    quint64 x = 0;
#if defined(__SSE2__)
    if constexpr (sizeof(T) == 1) {
        for (; x + 16 <= n; x += 16) {
            const __m128i va = _mm_loadu_si128(reinterpret_cast<const __m128i*>(a + x));
            const __m128i vb = _mm_loadu_si128(reinterpret_cast<const __m128i*>(b + x));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(d + 2 * x), _mm_unpacklo_epi8(va, vb));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(d + 2 * x + 16), _mm_unpackhi_epi8(va, vb));
        }
    } else if constexpr (sizeof(T) == 2) {
        for (; x + 8 <= n; x += 8) {
            const __m128i va = _mm_loadu_si128(reinterpret_cast<const __m128i*>(a + x));
            const __m128i vb = _mm_loadu_si128(reinterpret_cast<const __m128i*>(b + x));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(d + 4 * x), _mm_unpacklo_epi16(va, vb));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(d + 4 * x + 16), _mm_unpackhi_epi16(va, vb));
        }
    }
#endif
    for (; x < n; ++x) {
        std::memcpy(d + 2 * x * sizeof(T), a + x, sizeof(T));
        std::memcpy(d + (2 * x + 1) * sizeof(T), b + x, sizeof(T));
    }
}

// Four streams of 1- or 2-byte samples (the channels of a colour picture):
// 64 bytes of a row, 16 / S samples of each stream, per step, through three
// rounds of interleaves that transpose them; the rest sample by sample.
template <unsigned S>
inline qint64 splitQuads(const uchar* row, qint64 n, uchar* const* streams)
{
    qint64 k = 0;
#if defined(__SSE2__)
    const auto unLo = [](__m128i a, __m128i b) { return S == 1 ? _mm_unpacklo_epi8(a, b) : _mm_unpacklo_epi16(a, b); };
    const auto unHi = [](__m128i a, __m128i b) { return S == 1 ? _mm_unpackhi_epi8(a, b) : _mm_unpackhi_epi16(a, b); };
    constexpr qint64 Step = 64 / S;
    for (; k + Step <= n; k += Step) {
        __m128i v[4];
        for (int j = 0; j < 4; ++j)
            v[j] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(row + k * S + 16 * j));
        const __m128i a0 = unLo(v[0], v[1]), a1 = unHi(v[0], v[1]), a2 = unLo(v[2], v[3]), a3 = unHi(v[2], v[3]);
        __m128i b0 = unLo(a0, a1), b1 = unHi(a0, a1), b2 = unLo(a2, a3), b3 = unHi(a2, a3);
        if constexpr (S == 1) {
            const __m128i c0 = unLo(b0, b1), c1 = unHi(b0, b1), c2 = unLo(b2, b3), c3 = unHi(b2, b3);
            b0 = c0, b1 = c1, b2 = c2, b3 = c3;
        }
        const qint64 at = k / 4 * S;
        _mm_storeu_si128(reinterpret_cast<__m128i*>(streams[0] + at), _mm_unpacklo_epi64(b0, b2));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(streams[1] + at), _mm_unpackhi_epi64(b0, b2));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(streams[2] + at), _mm_unpacklo_epi64(b1, b3));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(streams[3] + at), _mm_unpackhi_epi64(b1, b3));
    }
#endif
    return k;
}

template <unsigned S>
inline qint64 weaveQuads(const uchar* const* streams, qint64 n, uchar* row)
{
    qint64 k = 0;
#if defined(__SSE2__)
    constexpr qint64 Step = 64 / S;
    for (; k + Step <= n; k += Step) {
        const qint64 at = k / 4 * S;
        __m128i v[4];
        for (int j = 0; j < 4; ++j)
            v[j] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(streams[j] + at));
        const __m128i lo01 = S == 1 ? _mm_unpacklo_epi8(v[0], v[1]) : _mm_unpacklo_epi16(v[0], v[1]);
        const __m128i hi01 = S == 1 ? _mm_unpackhi_epi8(v[0], v[1]) : _mm_unpackhi_epi16(v[0], v[1]);
        const __m128i lo23 = S == 1 ? _mm_unpacklo_epi8(v[2], v[3]) : _mm_unpacklo_epi16(v[2], v[3]);
        const __m128i hi23 = S == 1 ? _mm_unpackhi_epi8(v[2], v[3]) : _mm_unpackhi_epi16(v[2], v[3]);
        const __m128i out[4] = {S == 1 ? _mm_unpacklo_epi16(lo01, lo23) : _mm_unpacklo_epi32(lo01, lo23),
                                S == 1 ? _mm_unpackhi_epi16(lo01, lo23) : _mm_unpackhi_epi32(lo01, lo23),
                                S == 1 ? _mm_unpacklo_epi16(hi01, hi23) : _mm_unpacklo_epi32(hi01, hi23),
                                S == 1 ? _mm_unpackhi_epi16(hi01, hi23) : _mm_unpackhi_epi32(hi01, hi23)};
        for (int j = 0; j < 4; ++j)
            _mm_storeu_si128(reinterpret_cast<__m128i*>(row + k * S + 16 * j), out[j]);
    }
#endif
    return k;
}

// All planes that share a row at once: sample k of a row of n samples (S
// bytes each) is sample k / p of stream k % p, so a row of a mosaic with
// period p (or of an interleaved picture, p = channels x period) splits into
// p plane rows in one pass, and p plane rows weave back into it. Stream s
// holds (n - s + p - 1) / p samples (none when s >= n); streams without
// samples are never touched. With the byte permutes of AVX-512 VBMI, blocks
// of p vectors move as whole vectors, the last one under masks that neither
// read nor write past any row; periods up to 16 of 1- and 2-byte samples.
// Everything else goes sample by sample. Build one per frame (the tables
// cost about as much as a row) and reuse it for every row. A weave told to
// bypass the cache writes the whole vectors of a row that starts on a cache
// line straight to memory, which saves reading the lines of a row written
// whole; call fence() before anyone else reads what it wrote.
template <unsigned S>
class RowStreams
{
public:
    static constexpr int MaxVectorPeriod = 16;

    explicit RowStreams(int period) : m_p(period > 0 ? period : 1)
    {
#if defined(QLAR_KIT_STREAMS_VBMI)
        m_vector = (S == 1 || S == 2) && m_p >= 2 && m_p <= MaxVectorPeriod
                   && cpuHas(CpuFeature::Avx512Vbmi);
        if (m_vector)
            buildTables();
#endif
    }

    int period() const { return m_p; }

    qint64 count(qint64 n, int s) const { return n > s ? (n - s + m_p - 1) / m_p : 0; }

    void split(const uchar* row, qint64 n, uchar* const* streams) const
    {
#if defined(QLAR_KIT_STREAMS_VBMI)
        if (m_vector) {
            switch (m_p) {
            case 2: splitVector<2>(row, n, streams); return;
            case 3: splitVector<3>(row, n, streams); return;
            case 4: splitVector<4>(row, n, streams); return;
            case 5: splitVector<5>(row, n, streams); return;
            default: splitVector<0>(row, n, streams); return;
            }
        }
#endif
        if constexpr (S == 1 || S == 2) {
            if (m_p == 2) {
                using T = std::conditional_t<S == 1, quint8, quint16>;
                splitPairs(row, reinterpret_cast<T*>(streams[0]), reinterpret_cast<T*>(streams[1]), quint64(n / 2));
                if (n & 1)
                    std::memcpy(streams[0] + (n / 2) * S, row + (n - 1) * S, S);
                return;
            }
            if (m_p == 4) {
                for (qint64 k = splitQuads<S>(row, n, streams); k < n; ++k)
                    std::memcpy(streams[k % 4] + (k / 4) * S, row + k * S, S);
                return;
            }
        }
        for (int s = 0; s < m_p; ++s) {
            const qint64 c = count(n, s);
            for (qint64 i = 0; i < c; ++i)
                std::memcpy(streams[s] + i * S, row + (i * m_p + s) * S, S);
        }
    }

    void weave(const uchar* const* streams, qint64 n, uchar* row, bool bypass = false) const
    {
#if defined(QLAR_KIT_STREAMS_VBMI)
        if (m_vector) {
            const bool stream = bypass && reinterpret_cast<quintptr>(row) % 64 == 0;
            switch (m_p) {
            case 2: stream ? weaveVector<2, true>(streams, n, row) : weaveVector<2, false>(streams, n, row); return;
            case 3: stream ? weaveVector<3, true>(streams, n, row) : weaveVector<3, false>(streams, n, row); return;
            case 4: stream ? weaveVector<4, true>(streams, n, row) : weaveVector<4, false>(streams, n, row); return;
            case 5: stream ? weaveVector<5, true>(streams, n, row) : weaveVector<5, false>(streams, n, row); return;
            default: weaveVector<0, false>(streams, n, row); return;
            }
        }
#else
        Q_UNUSED(bypass);
#endif
        if constexpr (S == 1 || S == 2) {
            if (m_p == 2) {
                using T = std::conditional_t<S == 1, quint8, quint16>;
                weavePairs(reinterpret_cast<const T*>(streams[0]), reinterpret_cast<const T*>(streams[1]), row,
                           quint64(n / 2));
                if (n & 1)
                    std::memcpy(row + (n - 1) * S, streams[0] + (n / 2) * S, S);
                return;
            }
            if (m_p == 4) {
                for (qint64 k = weaveQuads<S>(streams, n, row); k < n; ++k)
                    std::memcpy(row + k * S, streams[k % 4] + (k / 4) * S, S);
                return;
            }
        }
        for (int s = 0; s < m_p; ++s) {
            const qint64 c = count(n, s);
            for (qint64 i = 0; i < c; ++i)
                std::memcpy(row + (i * m_p + s) * S, streams[s] + i * S, S);
        }
    }

    static void fence()
    {
#if defined(__SSE2__)
        _mm_sfence();
#endif
    }

private:
    int m_p;
    bool m_vector = false;

#if defined(QLAR_KIT_STREAMS_VBMI)
    // Lanes of a 64-byte vector; a permute picks from a pair of vectors.
    static constexpr int L = 64 / int(S);
    static constexpr int MaxPairs = (MaxVectorPeriod + 1) / 2;
    struct Entry
    {
        alignas(64) uchar index[64];
        quint64 mask = 0;
    };
    int m_pairs = 0;
    Entry m_split[MaxVectorPeriod * MaxPairs];  // [stream][pair of input vectors]
    Entry m_weave[MaxVectorPeriod * MaxPairs];  // [output vector][pair of streams]

    static void setLane(Entry& e, int lane, int value)
    {
        if (S == 1)
            e.index[lane] = uchar(value);
        else
            std::memcpy(e.index + 2 * lane, &value, 2);  // little-endian: the low half
        e.mask |= quint64(1) << lane;
    }

    void buildTables()
    {
        m_pairs = (m_p + 1) / 2;
        for (int a = 0; a < m_p; ++a)
            for (int q = 0; q < m_pairs; ++q) {
                m_split[a * MaxPairs + q] = Entry();
                m_weave[a * MaxPairs + q] = Entry();
            }
        for (int s = 0; s < m_p; ++s)
            for (int i = 0; i < L; ++i) {
                const int g = s + m_p * i;  // lane of the block the sample comes from
                setLane(m_split[s * MaxPairs + g / (2 * L)], i, g % (2 * L));
            }
        for (int v = 0; v < m_p; ++v)
            for (int j = 0; j < L; ++j) {
                const int g = v * L + j, s = g % m_p, i = g / m_p;
                setLane(m_weave[v * MaxPairs + s / 2], j, i + (s % 2) * L);
            }
    }

    static quint64 lanes(qint64 n)
    {
        return n >= L ? ~quint64(0) >> (64 - L) : n <= 0 ? 0 : (quint64(1) << n) - 1;
    }

    __attribute__((target("avx512f,avx512bw,avx512vbmi"))) static __m512i
    permute(__m512i idx, quint64 mask, __m512i a, __m512i b)
    {
        if (S == 1)
            return _mm512_maskz_permutex2var_epi8(mask, a, idx, b);
        return _mm512_maskz_permutex2var_epi16(__mmask32(mask), a, idx, b);
    }

    __attribute__((target("avx512f,avx512bw,avx512vbmi"))) static __m512i
    permute(const Entry& e, __m512i a, __m512i b)
    {
        return permute(_mm512_load_si512(e.index), e.mask, a, b);
    }

    // Whole blocks of a period known at compile time, with the tables and
    // the plane rows held in registers: stores through the plane rows could
    // otherwise alias them, and they would be reloaded for every block.
    template <int P, bool Split, bool Stream = false>
    __attribute__((target("avx512f,avx512bw,avx512vbmi"))) void wholeBlocks(const uchar* from, qint64 blocks,
                                                                         uchar* to, const uchar* const* streamsIn,
                                                                         uchar* const* streamsOut) const
    {
        constexpr int Q = (P + 1) / 2;
        const Entry* table = Split ? m_split : m_weave;
        __m512i idx[P][Q];
        quint64 mask[P][Q];
        const uchar* in[P];
        uchar* out[P];
        for (int a = 0; a < P; ++a) {
            for (int q = 0; q < Q; ++q) {
                idx[a][q] = _mm512_load_si512(table[a * MaxPairs + q].index);
                mask[a][q] = table[a * MaxPairs + q].mask;
            }
            in[a] = Split ? nullptr : streamsIn[a];
            out[a] = Split ? streamsOut[a] : nullptr;
        }
        for (qint64 blk = 0; blk < blocks; ++blk) {
            __m512i v[2 * Q];
            for (int j = 0; j < P; ++j)
                v[j] = _mm512_loadu_si512(Split ? from + (blk * P + j) * 64 : in[j] + blk * 64);
            if (P % 2)
                v[P] = v[P - 1];
            for (int a = 0; a < P; ++a) {
                __m512i r = permute(idx[a][0], mask[a][0], v[0], v[1]);
                for (int q = 1; q < Q; ++q)
                    r = _mm512_or_si512(r, permute(idx[a][q], mask[a][q], v[2 * q], v[2 * q + 1]));
                if (Stream)
                    _mm512_stream_si512(reinterpret_cast<__m512i*>(to + (blk * P + a) * 64), r);
                else
                    _mm512_storeu_si512(Split ? out[a] + blk * 64 : to + (blk * P + a) * 64, r);
            }
        }
    }

    __attribute__((target("avx512f,avx512bw,avx512vbmi"))) static __m512i load(const uchar* p, quint64 k)
    {
        return S == 1 ? _mm512_maskz_loadu_epi8(k, p) : _mm512_maskz_loadu_epi16(__mmask32(k), p);
    }

    __attribute__((target("avx512f,avx512bw,avx512vbmi"))) static void store(uchar* p, quint64 k, __m512i v)
    {
        if (S == 1)
            _mm512_mask_storeu_epi8(p, k, v);
        else
            _mm512_mask_storeu_epi16(p, __mmask32(k), v);
    }

    // Blocks of p vectors; the last, partial one under masks. P is the period
    // when it is known at compile time (the vectors then stay in registers),
    // else 0.
    template <int P>
    __attribute__((target("avx512f,avx512bw,avx512vbmi"))) void splitVector(const uchar* row, qint64 n,
                                                                         uchar* const* streams) const
    {
        const int p = P > 0 ? P : m_p;
        const int pairs = P > 0 ? (P + 1) / 2 : m_pairs;
        const qint64 span = qint64(p) * L;
        __m512i v[MaxVectorPeriod + 1];
        auto block = [&](qint64 b, bool last) __attribute__((target("avx512f,avx512bw,avx512vbmi"))) {
            const qint64 left = n - b;
            for (int j = 0; j < p; ++j)
                v[j] = last ? load(row + (b + qint64(j) * L) * S, lanes(left - qint64(j) * L))
                            : _mm512_loadu_si512(row + (b + qint64(j) * L) * S);
            v[p] = v[p - 1];
            const qint64 at = qint64(b / p) * S;
            const int whole = last ? int(left / p) : L, extra = last ? int(left % p) : 0;
            for (int s = 0; s < p; ++s) {
                const qint64 c = whole + (s < extra ? 1 : 0);
                if (c == 0)
                    continue;
                __m512i r = permute(m_split[s * MaxPairs], v[0], v[1]);
                for (int q = 1; q < pairs; ++q)
                    r = _mm512_or_si512(r, permute(m_split[s * MaxPairs + q], v[2 * q], v[2 * q + 1]));
                if (last)
                    store(streams[s] + at, lanes(c), r);
                else
                    _mm512_storeu_si512(streams[s] + at, r);
            }
        };
        qint64 b = 0;
        if constexpr (P > 0) {
            b = n / span * span;
            wholeBlocks<P, true>(row, n / span, nullptr, nullptr, streams);
        }
        for (; b + span <= n; b += span)
            block(b, false);
        if (b < n)
            block(b, true);
    }

    template <int P, bool Stream>
    __attribute__((target("avx512f,avx512bw,avx512vbmi"))) void weaveVector(const uchar* const* streams, qint64 n,
                                                                         uchar* row) const
    {
        const int p = P > 0 ? P : m_p;
        const int pairs = P > 0 ? (P + 1) / 2 : m_pairs;
        const qint64 span = qint64(p) * L;
        __m512i w[MaxVectorPeriod + 1];
        auto block = [&](qint64 b, bool last) __attribute__((target("avx512f,avx512bw,avx512vbmi"))) {
            const qint64 left = n - b;
            const qint64 at = qint64(b / p) * S;
            const int whole = last ? int(left / p) : L, extra = last ? int(left % p) : 0;
            for (int s = 0; s < p; ++s) {
                const qint64 c = whole + (s < extra ? 1 : 0);
                w[s] = !last ? _mm512_loadu_si512(streams[s] + at)
                             : c ? load(streams[s] + at, lanes(c)) : _mm512_setzero_si512();
            }
            w[p] = w[p - 1];
            for (int j = 0; j < p && qint64(j) * L < left; ++j) {
                __m512i r = permute(m_weave[j * MaxPairs], w[0], w[1]);
                for (int q = 1; q < pairs; ++q)
                    r = _mm512_or_si512(r, permute(m_weave[j * MaxPairs + q], w[2 * q], w[2 * q + 1]));
                uchar* d = row + (b + qint64(j) * L) * S;
                if (last)
                    store(d, lanes(left - qint64(j) * L), r);
                else
                    _mm512_storeu_si512(d, r);
            }
        };
        qint64 b = 0;
        if constexpr (P > 0) {
            b = n / span * span;
            wholeBlocks<P, false, Stream>(nullptr, n / span, row, streams, nullptr);
        }
        for (; b + span <= n; b += span)
            block(b, false);
        if (b < n)
            block(b, true);
    }
#endif
};

} // namespace pixelkit
