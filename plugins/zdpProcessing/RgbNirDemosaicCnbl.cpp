#include "RgbNirDemosaicCnbl.h"
#include "RgbNirDemosaicWidget.h"

#include <KitCpu.h>
#include <KitDispatch.h>
#include <KitPicture.h>

#include <QtXml/QDomDocument>

#include <algorithm>
#include <cstring>
#ifdef __SSE2__
#include <emmintrin.h>
#endif
#if defined(__x86_64__)
#include <immintrin.h>
#endif
#include <limits>
#include <type_traits>
#include <utility>
#include <vector>

// Vector types stay inside the functions that use them.
#pragma GCC diagnostic ignored "-Wpsabi"
// GCC 12's intrinsics that narrow or widen registers pass an undefined
// vector as the source of unused lanes, and then warn that it may be used
// uninitialised.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

#define RGBNIR_INLINE inline __attribute__((always_inline))

namespace {

const QString kChannelAttribute = QStringLiteral("channel");

constexpr nodekit::FrameRules kFrame{nodekit::ForeignPassed, nodekit::StoppingDropped, nodekit::PoolFixed};

// The layout of a sensor without description: NIR, B / R, G.
constexpr unsigned kFixedNir = 0, kFixedB = 1, kFixedR = 2, kFixedG = 3;

// Wide enough for the sum of four samples.
template <class TIn>
using AccOf = std::conditional_t<sizeof(TIn) == 1, quint16,
                                 std::conditional_t<sizeof(TIn) == 2, quint32, quint64>>;

template <class T>
constexpr bool isSampleOf(ExImageDataType t)
{
    return bytesPerSampleOf(t) == sizeof(T) && (t == IDT_UINT8 || t == IDT_UINT16 || t == IDT_UINT32);
}

bool rowsFit(const SxPicBuf& pic)
{
    return pic.data && pixelkit::rowsFit(pic);
}

bool alignedFor(const SxPicBuf& pic, size_t size)
{
    return quintptr(pic.data) % size == 0 && pic.effectiveLinePitch() % size == 0;
}

// Mirror partner of a neighbour index outside [0, n); a picture one sample
// long has none and falls back to the sample itself.
RGBNIR_INLINE qint64 mirrored(qint64 i, qint64 n)
{
    if (i < 0)
        i = -i;
    if (i >= n)
        i = 2 * (n - 1) - i;
    return i < 0 ? 0 : (i >= n ? n - 1 : i);
}

// Rows of the input as aligned sample pointers; a picture whose rows are not
// aligned for its sample type is read through copies.
template <class TIn>
class CxRowReader
{
public:
    explicit CxRowReader(const SxPicBuf& in)
        : m_in(in), m_pitch(in.effectiveLinePitch()), m_direct(alignedFor(in, sizeof(TIn)))
    {
        if (!m_direct)
            for (auto& s : m_scratch)
                s.resize(size_t(in.width));
    }
    // slot tells apart the rows that must be valid at the same time.
    RGBNIR_INLINE const TIn* row(qint64 y, int slot)
    {
        const uchar* at = m_in.data + quint64(y) * m_pitch;
        if (m_direct)
            return reinterpret_cast<const TIn*>(at);
        std::memcpy(m_scratch[slot].data(), at, size_t(m_in.width) * sizeof(TIn));
        return m_scratch[slot].data();
    }

private:
    const SxPicBuf& m_in;
    quint64 m_pitch;
    bool m_direct;
    std::vector<TIn> m_scratch[3];
};

// The row of doubled samples (the component's cells lie on this row) or of
// vertical pair sums (they lie on the rows above and below). Both halve to
// the vertical interpolation, and a pair of them quarters to the diagonal one.
// v has one slot before and after the row, filled with the mirror partners,
// so the horizontal pass needs no edge cases.
template <class TIn, class Acc>
RGBNIR_INLINE void verticalSums(Acc* v, const TIn* up, const TIn* mid, const TIn* dn, bool onRow, qint64 w)
{
    if (onRow) {
        for (qint64 x = 0; x < w; ++x)
            v[x] = Acc(Acc(mid[x]) << 1);
    } else {
        for (qint64 x = 0; x < w; ++x)
            v[x] = Acc(Acc(up[x]) + Acc(dn[x]));
    }
    v[-1] = v[mirrored(-1, w)];
    v[w] = v[mirrored(w, w)];
}

// Fetches an input row the loop needs next while the current row's output
// goes out, so its loads do not wait on memory.
RGBNIR_INLINE void prefetchRow(const SxPicBuf& in, qint64 y, quint64 rowBytes)
{
    if (y >= qint64(in.height))
        return;
    const uchar* ahead = in.data + quint64(y) * in.effectiveLinePitch();
    for (quint64 i = 0; i < rowBytes; i += 64)
        __builtin_prefetch(ahead + i);
}

// Colour outputs from this size on are written past the caches.
constexpr qint64 kStreamBytes = qint64(16) << 20;

// Lanes per step of the row loops; an even count keeps the column parity of
// every lane fixed.
constexpr int kLanes = 16;

template <class T, int L = kLanes>
struct SxLanes
{
    typedef T type __attribute__((vector_size(L * sizeof(T))));
};
template <class T, int L = kLanes>
using LanesOf = typename SxLanes<T, L>::type;

// All ones in the lanes of the component's own columns.
template <class Acc, int L = kLanes>
RGBNIR_INLINE LanesOf<Acc, L> ownColumns(unsigned ck)
{
    LanesOf<Acc, L> own;
    for (int j = 0; j < L; ++j)
        own[j] = unsigned(j & 1) == ck ? Acc(~Acc(0)) : Acc(0);
    return own;
}

// kLanes samples of a component from x on: the component's own columns halve
// their sum, the others quarter the sums left and right of them.
template <class Acc>
RGBNIR_INLINE LanesOf<Acc> interpolateLanes(const Acc* v, qint64 x, LanesOf<Acc> own, unsigned s1, unsigned s2)
{
    LanesOf<Acc> l, c, r;
    std::memcpy(&l, v + x - 1, sizeof l);
    std::memcpy(&c, v + x, sizeof c);
    std::memcpy(&r, v + x + 1, sizeof r);
    return ((c >> s1) & own) | (((l + r) >> s2) & ~own);
}

template <class Acc>
RGBNIR_INLINE Acc interpolateOne(const Acc* v, qint64 x, unsigned ck, unsigned s1, unsigned s2)
{
    return unsigned(x & 1) == ck ? Acc(v[x] >> s1) : Acc((v[x - 1] + v[x + 1]) >> s2);
}

// Writes v to the 16-byte aligned p past the caches: in 16-byte parts, or,
// with Wide (only from the builds for AVX and up), as one store of the
// whole register, which spares the extraction of every part. Clang rejects
// the wide register operand in a template built for SSE2 too, so its builds
// (the fuzzers) store in parts.
template <bool Wide, class V>
RGBNIR_INLINE void streamOut(uchar* p, const V& v)
{
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)
    if constexpr (Wide && (sizeof(V) == 32 || sizeof(V) == 64)) {
        if (quintptr(p) % sizeof(V) == 0) {
            asm volatile("vmovntdq %1, %0" : "=m"(*reinterpret_cast<V*>(p)) : "v"(v));
            return;
        }
    }
#endif
#ifdef __SSE2__
    __m128i parts[sizeof(V) / 16];
    std::memcpy(parts, &v, sizeof v);
    for (size_t i = 0; i < sizeof(V) / 16; ++i)
        _mm_stream_si128(reinterpret_cast<__m128i*>(p) + i, parts[i]);
#else
    std::memcpy(p, &v, sizeof v);
#endif
}

// One output row of a component from its padded vertical sums.
template <class TOut, class Acc>
RGBNIR_INLINE void horizontalPass(TOut* o, const Acc* v, unsigned ck, qint64 w, unsigned shift,
                                  bool stream = false)
{
    constexpr bool narrowing = sizeof(TOut) < sizeof(Acc) / 2;
    constexpr Acc maxOut = Acc(std::numeric_limits<TOut>::max());
    const unsigned s1 = shift + 1, s2 = shift + 2;
    const LanesOf<Acc> own = ownColumns<Acc>(ck);
    const LanesOf<Acc> maxV = LanesOf<Acc>{} + maxOut;
    qint64 x = 0;
    for (; x + kLanes <= w; x += kLanes) {
        LanesOf<Acc> value = interpolateLanes(v, x, own, s1, s2);
        if constexpr (narrowing)
            value = value < maxV ? value : maxV;
        const LanesOf<TOut> out = __builtin_convertvector(value, LanesOf<TOut>);
        if (stream)
            streamOut<false>(reinterpret_cast<uchar*>(o + x), out);
        else
            std::memcpy(o + x, &out, sizeof out);
    }
    for (; x < w; ++x) {
        Acc value = interpolateOne(v, x, ck, s1, s2);
        if constexpr (narrowing)
            value = value < maxOut ? value : maxOut;
        o[x] = TOut(value);
    }
}

// Half H of the lanes of a and b taken in turns: a[H * n / 2], b[H * n / 2],
// a[H * n / 2 + 1], ...
template <int H, class V, size_t... I>
RGBNIR_INLINE V interleaved(V a, V b, std::index_sequence<I...>)
{
    constexpr size_t n = sizeof...(I);
    return __builtin_shufflevector(a, b, (I % 2 ? n + H * n / 2 + I / 2 : H * n / 2 + I / 2)...);
}

// One row of B, G, R, alpha bytes. Each colour reads one of the two padded
// sum rows; the halves and quarters of both rows are shared by the colours
// that read them. With stream, o is 16-byte aligned and written past the
// caches.
template <class Acc, int L, bool Wide>
RGBNIR_INLINE void packBgraRow(uchar* o, const Acc* on, const Acc* off, const bool fromOn[3],
                               const unsigned ck[3], qint64 w, unsigned shift, bool stream)
{
    using Samples = LanesOf<quint16, L>;
    using Sums = LanesOf<Acc, L>;
    const unsigned s1 = shift + 1, s2 = shift + 2;
    qint64 x = 0;
    if constexpr (Q_BYTE_ORDER == Q_LITTLE_ENDIAN) {
        const Sums own[3] = {ownColumns<Acc, L>(ck[0]), ownColumns<Acc, L>(ck[1]), ownColumns<Acc, L>(ck[2])};
        const Sums maxV = Sums{} + Acc(255);
        for (; x + L <= w; x += L) {
            Sums half[2], quarter[2];
            const Acc* rows[2] = {on, off};
            for (int i = 0; i < 2; ++i) {
                Sums l, c, r;
                std::memcpy(&l, rows[i] + x - 1, sizeof l);
                std::memcpy(&c, rows[i] + x, sizeof c);
                std::memcpy(&r, rows[i] + x + 1, sizeof r);
                half[i] = c >> s1;
                quarter[i] = (l + r) >> s2;
            }
            Samples bgr[3];
            for (int c = 0; c < 3; ++c) {
                const int i = fromOn[c] ? 0 : 1;
                Sums value = (half[i] & own[c]) | (quarter[i] & ~own[c]);
                // Interpolated 8-bit samples never exceed 255.
                if constexpr (sizeof(Acc) > 2)
                    value = value < maxV ? value : maxV;
                bgr[c] = __builtin_convertvector(value, Samples);
            }
            // Pixel j is the 16-bit pair (B | G << 8, R | A << 8).
            const Samples bg = bgr[0] | (bgr[1] << 8);
            const Samples ra = bgr[2] | quint16(0xFF00);
            const Samples lo = interleaved<0>(bg, ra, std::make_index_sequence<L>());
            const Samples hi = interleaved<1>(bg, ra, std::make_index_sequence<L>());
            if (stream) {
                streamOut<Wide>(o + 4 * x, lo);
                streamOut<Wide>(o + 4 * x + sizeof lo, hi);
                continue;
            }
            std::memcpy(o + 4 * x, &lo, sizeof lo);
            std::memcpy(o + 4 * x + sizeof lo, &hi, sizeof hi);
        }
    }
    for (; x < w; ++x) {
        for (int c = 0; c < 3; ++c) {
            const Acc value = interpolateOne(fromOn[c] ? on : off, x, ck[c], s1, s2);
            o[4 * x + c] = uchar(value < 255 ? value : 255);
        }
        o[4 * x + 3] = 255;
    }
}

template <class TIn>
unsigned shiftFor(const SxPicBufInfo& in, const SxPicBufInfo& out)
{
    // Beyond the type's width every sample shifts to 0 anyway; capping keeps
    // the shift defined for nonsense bit counts.
    const quint64 diff = in.bitsPerSample > out.bitsPerSample ? in.bitsPerSample - out.bitsPerSample : 0;
    return unsigned(qMin<quint64>(diff, 8 * sizeof(TIn)));
}

// Positions: the cell row of k is k >= 2, its column k odd (so -1 as an
// unsigned number reads as the bottom-right cell).
inline unsigned cellRow(unsigned k) { return k >= 2 ? 1u : 0u; }
inline unsigned cellColumn(unsigned k) { return k & 1u; }

template <class TOut, class TIn>
RGBNIR_INLINE void extractChannelRows(SxPicBuf& out, unsigned int outChannel, const SxPicBuf& in, unsigned int k)
{
    using Acc = AccOf<TIn>;
    const qint64 w = in.width, h = in.height;
    const unsigned rk = cellRow(k), ck = cellColumn(k);
    const unsigned shift = shiftFor<TIn>(in, out);
    const quint64 outPitch = out.effectiveLinePitch();
    const quint64 outStride = out.channels;
    const bool direct = outStride == 1 && alignedFor(out, sizeof(TOut));
    // As the colour rows: a large plane is written past the caches.
    const bool stream = direct && w * h * qint64(sizeof(TOut)) >= kStreamBytes && alignedFor(out, 16);

    CxRowReader<TIn> rows(in);
    std::vector<Acc> sums(static_cast<size_t>(w) + 2);
    Acc* v = sums.data() + 1;
    std::vector<TOut> plane(direct ? 0 : size_t(w));
    for (qint64 y = 0; y < h; ++y) {
        prefetchRow(in, y + 2, quint64(w) * sizeof(TIn));
        const bool onRow = unsigned(y & 1) == rk;
        const TIn* mid = onRow ? rows.row(y, 1) : nullptr;
        const TIn* up = onRow ? nullptr : rows.row(mirrored(y - 1, h), 0);
        const TIn* dn = onRow ? nullptr : rows.row(mirrored(y + 1, h), 2);
        verticalSums<TIn, Acc>(v, up, mid, dn, onRow, w);

        uchar* outRow = out.data + quint64(y) * outPitch;
        if (direct) {
            horizontalPass<TOut, Acc>(reinterpret_cast<TOut*>(outRow), v, ck, w, shift, stream);
            continue;
        }
        horizontalPass<TOut, Acc>(plane.data(), v, ck, w, shift);
        uchar* at = outRow + quint64(outChannel) * sizeof(TOut);
        const quint64 step = outStride * sizeof(TOut);
        for (qint64 x = 0; x < w; ++x, at += step)
            std::memcpy(at, &plane[size_t(x)], sizeof(TOut));
    }
#ifdef __SSE2__
    if (stream)
        _mm_sfence();
#endif
}

// Built for the wider vector units like the colour rows below.
template <class TOut, class TIn>
__attribute__((target("avx2"))) void extractChannelRowsAvx2(SxPicBuf& out, unsigned int outChannel,
                                                            const SxPicBuf& in, unsigned int k)
{
    extractChannelRows<TOut, TIn>(out, outChannel, in, k);
}

template <class TOut, class TIn>
__attribute__((target("arch=x86-64-v4"))) void extractChannelRowsAvx512(SxPicBuf& out, unsigned int outChannel,
                                                                        const SxPicBuf& in, unsigned int k)
{
    extractChannelRows<TOut, TIn>(out, outChannel, in, k);
}

} // namespace

template <class TOut, class TIn>
bool rgbnir_extractChannel_T(SxPicBuf& out, unsigned int outChannel, const SxPicBuf& in, unsigned int k)
{
    if (!isSampleOf<TIn>(in.dataType) || !isSampleOf<TOut>(out.dataType))
        return false;
    if (in.channels != 1 || outChannel >= out.channels || in.width != out.width || in.height != out.height)
        return false;
    if (in.width == 0 || in.height == 0)
        return true;
    if (!rowsFit(in) || !rowsFit(out))
        return false;
    if (sizeof(TIn) > 1 && pixelkit::cpuHas(pixelkit::CpuFeature::Avx512Bw))
        extractChannelRowsAvx512<TOut, TIn>(out, outChannel, in, k);
    else if (pixelkit::cpuHas(pixelkit::CpuFeature::Avx2))
        extractChannelRowsAvx2<TOut, TIn>(out, outChannel, in, k);
    else
        extractChannelRows<TOut, TIn>(out, outChannel, in, k);
    return true;
}

namespace {

template <class TIn, int L = kLanes, bool Wide = false>
RGBNIR_INLINE void demosaicRgbRows(SxPicBuf& out, const SxPicBuf& in, const unsigned k[3])
{
    using Acc = AccOf<TIn>;
    const qint64 w = in.width, h = in.height;
    const unsigned shift = shiftFor<TIn>(in, out);
    const quint64 outPitch = out.effectiveLinePitch();
    const unsigned ck[3] = {cellColumn(k[0]), cellColumn(k[1]), cellColumn(k[2])};
    // Otherwise every output line of a frame far larger than the caches would
    // first be read in just to be overwritten.
    const bool stream = w * h * 4 >= kStreamBytes && alignedFor(out, 16);

    CxRowReader<TIn> rows(in);
    // Per output row only two kinds of vertical sums occur: the doubled row
    // itself and the pair around it; each component takes one of them.
    std::vector<Acc> onBuffer(static_cast<size_t>(w) + 2), offBuffer(static_cast<size_t>(w) + 2);
    Acc* onSums = onBuffer.data() + 1;
    Acc* offSums = offBuffer.data() + 1;

    for (qint64 y = 0; y < h; ++y) {
        prefetchRow(in, y + 2, quint64(w) * sizeof(TIn));
        const unsigned parity = unsigned(y & 1);
        bool needOn = false, needOff = false;
        for (int c = 0; c < 3; ++c)
            (cellRow(k[c]) == parity ? needOn : needOff) = true;
        if (needOn) {
            const TIn* mid = rows.row(y, 1);
            verticalSums<TIn, Acc>(onSums, nullptr, mid, nullptr, true, w);
        }
        if (needOff) {
            const TIn* up = rows.row(mirrored(y - 1, h), 0);
            const TIn* dn = rows.row(mirrored(y + 1, h), 2);
            verticalSums<TIn, Acc>(offSums, up, nullptr, dn, false, w);
        }
        bool fromOn[3];
        for (int c = 0; c < 3; ++c)
            fromOn[c] = cellRow(k[c]) == parity;
        packBgraRow<Acc, L, Wide>(out.data + quint64(y) * outPitch, onSums, offSums, fromOn, ck, w, shift, stream);
    }
#ifdef __SSE2__
    if (stream)
        _mm_sfence();
#endif
}

// The row loops work on 16 lanes of the accumulator type at once: 256 bits
// for 8-bit input, 512 for 16-bit. Built for the baseline vector unit only,
// the wide lanes are split into SSE halves and the 16-bit path runs several
// times slower per sample than the 8-bit one, so both get builds for the
// wider units, picked at run time.
template <class TIn>
__attribute__((target("avx2"))) void demosaicRgbRowsAvx2(SxPicBuf& out, const SxPicBuf& in, const unsigned k[3])
{
    demosaicRgbRows<TIn, kLanes, true>(out, in, k);
}

// 512-bit lanes: 32 sums of 8-bit samples, 16 of wider ones.
template <class TIn>
__attribute__((target("arch=x86-64-v4"))) void demosaicRgbRowsAvx512(SxPicBuf& out, const SxPicBuf& in,
                                                                     const unsigned k[3])
{
    demosaicRgbRows<TIn, sizeof(TIn) == 1 ? 32 : 16, true>(out, in, k);
}

#if defined(__x86_64__)
#define RGBNIR_VBMI __attribute__((target("avx512f,avx512bw,avx512vbmi")))

// floor((a + b) / 2) per lane: the rounding-up average less the bit it added.
template <class T>
RGBNIR_VBMI RGBNIR_INLINE __m512i halfSumOf(__m512i a, __m512i b, __m512i one)
{
    const __m512i odd = _mm512_ternarylogic_epi32(a, b, one, 0x28);
    if constexpr (sizeof(T) == 1)
        return _mm512_sub_epi8(_mm512_avg_epu8(a, b), odd);
    else
        return _mm512_sub_epi16(_mm512_avg_epu16(a, b), odd);
}

// One BGRA pixel with the neighbours taken through the mirror, for pictures
// narrower than a step.
template <class T>
RGBNIR_INLINE void bgraPixel(uchar* o, const T* up, const T* mid, const T* dn, const bool fromOn[3],
                             const unsigned ck[3], qint64 x, qint64 w, unsigned shift)
{
    for (int c = 0; c < 3; ++c) {
        const auto sum = [&](qint64 i) {
            i = mirrored(i, w);
            return fromOn[c] ? 2u * mid[i] : unsigned(up[i]) + dn[i];
        };
        const unsigned v = (unsigned(x & 1) == ck[c] ? sum(x) >> 1 : (sum(x - 1) + sum(x + 1)) >> 2) >> shift;
        o[4 * x + c] = uchar(v < 255 ? v : 255);
    }
    o[4 * x + 3] = 255;
}

// Bits of a row, one per pixel, from pixel -64 on, so that pixel -1 has a
// place: 1 where the pair sum across the pixel is even, 0 where halving it
// dropped a bit. Bits rather than lanes, because loading and storing them
// costs the row loops more than all the arithmetic they spare.
inline size_t evenWords(qint64 w) { return size_t(w + 64) / 64 + 2; }

// The 64 bits of pixels pos to pos + 63 (pos >= -64).
RGBNIR_INLINE quint64 evenBitsAt(const quint64* even, qint64 pos)
{
    const quint64 o = quint64(pos + 64), sh = o % 64;
    const quint64 lo = even[o / 64] >> sh;
    return sh ? lo | even[o / 64 + 1] << (64 - sh) : lo;
}

inline void setEvenBit(quint64* even, qint64 pos, bool on)
{
    const quint64 o = quint64(pos + 64), bit = quint64(1) << (o % 64);
    even[o / 64] = on ? even[o / 64] | bit : even[o / 64] & ~bit;
}

// A row's interpolation across it, floor((up + dn) / 2), into across[0, w),
// and its even bits; both with their mirror partners at -1 and w. The
// diagonal interpolation of a pixel is then one average of the two across
// values beside it, less the bit that both halvings together would have
// carried. Requires w >= 64.
template <class T>
RGBNIR_VBMI void fillAcross(const T* up, const T* dn, T* across, quint64* even, qint64 w)
{
    constexpr qint64 n = 64 / sizeof(T);  // lanes per register; 64 pixels take sizeof(T) registers
    const __m512i one = sizeof(T) == 1 ? _mm512_set1_epi8(1) : _mm512_set1_epi16(1);
    // The last step may overlap the one before; its bits go in from the
    // first pixel it adds.
    for (qint64 i = 0; i < w; i += 64) {
        const qint64 x = i + 64 <= w ? i : w - 64;
        quint64 bits = 0;
        for (qint64 r = 0; r < qint64(sizeof(T)); ++r) {
            const __m512i a = _mm512_loadu_si512(up + x + n * r), b = _mm512_loadu_si512(dn + x + n * r);
            _mm512_storeu_si512(across + x + n * r, halfSumOf<T>(a, b, one));
            const __m512i odd = _mm512_xor_si512(a, b);
            if constexpr (sizeof(T) == 1)
                bits = _mm512_testn_epi8_mask(odd, one);
            else
                bits |= quint64(_mm512_testn_epi16_mask(odd, one)) << (n * r);
        }
        even[i / 64 + 1] = bits >> (i - x);
    }
    across[-1] = across[mirrored(-1, w)];
    across[w] = across[mirrored(w, w)];
    setEvenBit(even, -1, evenBitsAt(even, mirrored(-1, w)) & 1);
    setEvenBit(even, w, evenBitsAt(even, mirrored(w, w)) & 1);
}

// floor((2 a + pa + 2 b + pb) / 4) for the halves a, b of two pair sums and
// their dropped bits pa, pb (keep: 1 unless both dropped one): the
// rounding-up average of a and b, less its added bit where kept.
template <class T>
RGBNIR_VBMI RGBNIR_INLINE __m512i diagonalOf(__m512i a, __m512i b, quint64 keep)
{
    if constexpr (sizeof(T) == 1) {
        const __m512i added = _mm512_ternarylogic_epi32(a, b, _mm512_set1_epi8(1), 0x28);  // (a ^ b) & 1
        const __m512i up = _mm512_avg_epu8(a, b);
        return _mm512_mask_sub_epi8(up, __mmask64(keep), up, added);
    } else {
        const __m512i added = _mm512_ternarylogic_epi32(a, b, _mm512_set1_epi16(1), 0x28);
        const __m512i up = _mm512_avg_epu16(a, b);
        return _mm512_mask_sub_epi16(up, __mmask32(keep), up, added);
    }
}

// Permutes that take the lanes beside those of a register out of it and its
// neighbour: left(prev, cur) = p[-1 .. n - 2], right(cur, next) = p[1 .. n].
struct SxBeside
{
    __m512i left, right;
};

template <class T>
RGBNIR_VBMI inline SxBeside besidePermutes()
{
    constexpr unsigned n = 64 / sizeof(T);
    alignas(64) T left[n], right[n];
    for (unsigned l = 0; l < n; ++l) {
        left[l] = T(l == 0 ? n - 1 : n + l - 1);
        right[l] = T(l + 1);
    }
    return {_mm512_load_si512(left), _mm512_load_si512(right)};
}

template <class T>
RGBNIR_VBMI RGBNIR_INLINE __m512i permuteLanes(__m512i a, __m512i idx, __m512i b)
{
    if constexpr (sizeof(T) == 1)
        return _mm512_permutex2var_epi8(a, idx, b);
    else
        return _mm512_permutex2var_epi16(a, idx, b);
}

// The 64 pixels of a row from p on (sizeof(T) registers) and the lanes
// beside them. With beside, whole registers either side are read and the
// neighbours permuted out of them: a load one sample off straddles two
// cache lines, which costs more than the permute. Otherwise the
// neighbours are loaded, so p[-1] and p[64] are all that is read beyond.
template <class T>
RGBNIR_VBMI RGBNIR_INLINE void rowLanes(const T* p, const SxBeside* beside, __m512i c[], __m512i l[], __m512i r[])
{
    constexpr int n = 64 / int(sizeof(T)), regs = int(sizeof(T));
    for (int i = 0; i < regs; ++i)
        c[i] = _mm512_loadu_si512(p + n * i);
    if (beside) {
        const __m512i prev = _mm512_loadu_si512(p - n), next = _mm512_loadu_si512(p + 64);
        for (int i = 0; i < regs; ++i) {
            l[i] = permuteLanes<T>(i ? c[i - 1] : prev, beside->left, c[i]);
            r[i] = permuteLanes<T>(c[i], beside->right, i + 1 < regs ? c[i + 1] : next);
        }
        return;
    }
    for (int i = 0; i < regs; ++i) {
        l[i] = _mm512_loadu_si512(p + n * i - 1);
        r[i] = _mm512_loadu_si512(p + n * i + 1);
    }
}

// The four values a colour picks from, as bytes of 64 pixels from x on: its
// own sample on its row, the interpolation along its row, the one across
// it, and the diagonal one. mid is read from xm on (a copy of the row's
// ends may stand in for it), across and even from x on.
struct SxCandidates
{
    __m512i own, along, across, diagonal;
};

template <class T>
RGBNIR_VBMI RGBNIR_INLINE SxCandidates candidatesOf(const T* mid, qint64 xm, const T* across, const quint64* even,
                                                    qint64 x, __m128i shift, const SxBeside* beside)
{
    constexpr int n = 64 / int(sizeof(T)), regs = int(sizeof(T));
    const __m512i one = sizeof(T) == 1 ? _mm512_set1_epi8(1) : _mm512_set1_epi16(1);
    __m512i own[regs], left[regs], right[regs], straight[regs], aLeft[regs], aRight[regs];
    rowLanes<T>(mid + xm, beside, own, left, right);
    rowLanes<T>(across + x, beside, straight, aLeft, aRight);
    __m512i v[regs][4];
    for (int i = 0; i < regs; ++i) {
        const quint64 keep = evenBitsAt(even, x - 1 + n * i) | evenBitsAt(even, x + 1 + n * i);
        v[i][0] = own[i];
        v[i][1] = halfSumOf<T>(left[i], right[i], one);
        v[i][2] = straight[i];
        v[i][3] = diagonalOf<T>(aLeft[i], aRight[i], keep);
    }
    if constexpr (sizeof(T) == 1) {
        return {v[0][0], v[0][1], v[0][2], v[0][3]};
    } else {
        // Exact in 16 bits, then shifted and packed to bytes with signed
        // saturation, which only unshifted samples could turn negative. Lane j
        // holds the pixels from 8 j on, then those from 32 + 8 j on.
        const __m512i top = _mm512_set1_epi16(255);
        const bool unshifted = unsigned(_mm_cvtsi128_si32(shift)) == 0;
        __m512i packed[4];
        for (int j = 0; j < 4; ++j) {
            __m512i h[2];
            for (int i = 0; i < 2; ++i) {
                h[i] = _mm512_srl_epi16(v[i][j], shift);
                if (unshifted)
                    h[i] = _mm512_min_epu16(h[i], top);
            }
            packed[j] = _mm512_packus_epi16(h[0], h[1]);
        }
        return {packed[0], packed[1], packed[2], packed[3]};
    }
}

// pick[p] takes the interpolated value of a pixel (first operand), or its
// own (second operand) where the column's parity from the step's start is p,
// and puts the pixels in the order that unpacking turns into pixel order.
struct SxWeave
{
    __m512i pick[2];
};

// Writes the 64 pixels from x on as B, G, R, alpha.
RGBNIR_VBMI RGBNIR_INLINE void weaveBgra(uchar* o, const SxCandidates& v, const bool fromOn[3],
                                         const unsigned ck[3], const SxWeave& weave, qint64 x, bool streamed)
{
    const __m512i opaque = _mm512_set1_epi8(char(0xFF));
    __m512i bgr[3];
    for (int c = 0; c < 3; ++c) {
        const __m512i pick = weave.pick[(ck[c] ^ unsigned(x)) & 1];
        bgr[c] = fromOn[c] ? _mm512_permutex2var_epi8(v.along, pick, v.own)
                           : _mm512_permutex2var_epi8(v.diagonal, pick, v.across);
    }
    const __m512i bgLo = _mm512_unpacklo_epi8(bgr[0], bgr[1]), bgHi = _mm512_unpackhi_epi8(bgr[0], bgr[1]);
    const __m512i raLo = _mm512_unpacklo_epi8(bgr[2], opaque), raHi = _mm512_unpackhi_epi8(bgr[2], opaque);
    const __m512i px[4] = {_mm512_unpacklo_epi16(bgLo, raLo), _mm512_unpackhi_epi16(bgLo, raLo),
                           _mm512_unpacklo_epi16(bgHi, raHi), _mm512_unpackhi_epi16(bgHi, raHi)};
    uchar* at = o + 4 * x;
    for (int i = 0; i < 4; ++i) {
        if (streamed)
            _mm512_stream_si512(reinterpret_cast<__m512i*>(at + 64 * i), px[i]);
        else
            _mm512_storeu_si512(at + 64 * i, px[i]);
    }
}

// The colour output straight from the input rows, 64 pixels a step: the
// halves and quarters are exact in the sample width itself, so no row of
// wider sums is built. Only the halves across each row are kept for the row
// (with their dropped bits), since each diagonal quarter averages two of
// them: computing every quarter from its four samples had taken a fifth of
// the run time on 8- and 16-bit frames. Byte permutes weave the result into
// BGRA.
template <class T>
RGBNIR_VBMI void demosaicRgbRowsVbmi(SxPicBuf& out, const SxPicBuf& in, const unsigned k[3])
{
    const qint64 w = in.width, h = in.height;
    const quint64 inPitch = in.effectiveLinePitch(), outPitch = out.effectiveLinePitch();
    const unsigned ck[3] = {cellColumn(k[0]), cellColumn(k[1]), cellColumn(k[2])};
    const unsigned shift = shiftFor<T>(in, out);
    const __m128i shiftCount = _mm_cvtsi32_si128(int(shift));
    // This path outruns the caches' write-back already from outputs a few
    // times the size of the second-level cache on.
    const bool stream = w * h * 4 >= kStreamBytes / 4;
    // Unpacking interleaves within 128-bit lanes only: dword q of lane j
    // takes the four pixels from 16 q + 4 j on, so that register q of the
    // result holds the pixels from 16 q on. Packed 16-bit candidates hold
    // their pixels in the order of packing.
    const auto lane = [](unsigned pixel) {
        return sizeof(T) == 1 ? pixel : 16 * (pixel % 32 / 8) + 8 * (pixel / 32) + pixel % 8;
    };
    SxWeave weave;
    for (unsigned p = 0; p < 2; ++p) {
        alignas(64) uchar pick[64];
        for (unsigned i = 0; i < 64; ++i) {
            const unsigned dword = i / 4, pixel = 4 * ((dword % 4) * 4 + dword / 4) + i % 4;
            pick[i] = uchar(lane(pixel) + ((pixel & 1) == p ? 64 : 0));
        }
        weave.pick[p] = _mm512_load_si512(pick);
    }

    // Rows too narrow for steps read in place, or not aligned for their
    // samples, are copied once each with their mirror partners on either
    // side. No row ends in scalar pixels: those would write single bytes
    // into lines the streamed steps bypass the caches for, and wait for
    // memory on every row.
    std::vector<T> padded[3];
    qint64 held[3] = {-1, -1, -1};
    const auto rowAt = [&](qint64 r) -> const T* {
        const int slot = int(r % 3);
        T* p = padded[slot].data();
        if (held[slot] != r) {
            const uchar* src = in.data + quint64(r) * inPitch;
            std::memcpy(p + 1, src, size_t(w) * sizeof(T));
            std::memcpy(p, src + sizeof(T) * quint64(mirrored(-1, w)), sizeof(T));
            std::memcpy(p + w + 1, src + sizeof(T) * quint64(mirrored(w, w)), sizeof(T));
            held[slot] = r;
        }
        return p + 1;
    };
    // Wide rows aligned for their samples are read in place but for a step
    // at either end, which reads the row's mirror partner from a copy.
    const bool direct = w >= 130 && alignedFor(in, sizeof(T));
    T head[66], tail[66];
    if (!direct)
        for (auto& p : padded)
            p.resize(size_t(w) + 2);
    const SxBeside beside = besidePermutes<T>();
    // Kept from frame to frame, so that a live chain allocates nothing per
    // frame; what an earlier, wider picture left beyond this one's row is
    // never read.
    static thread_local std::vector<T> acrossBuffer;
    static thread_local std::vector<quint64> even;
    if (w >= 64) {
        acrossBuffer.resize(std::max(acrossBuffer.size(), size_t(w) + 2));
        even.resize(std::max(even.size(), evenWords(w)));
    }
    T* const across = acrossBuffer.empty() ? nullptr : acrossBuffer.data() + 1;
    quint64* const evenBits = even.data();

    for (qint64 y = 0; y < h; ++y) {
        uchar* o = out.data + quint64(y) * outPitch;
        const unsigned parity = unsigned(y & 1);
        bool fromOn[3];
        for (int c = 0; c < 3; ++c)
            fromOn[c] = cellRow(k[c]) == parity;
        const bool streamed = stream && quintptr(o) % 64 == 0;
        // Rows read in place ask for row y + 3 a step at a time, beside the
        // step's output: spread over the row and three rows ahead, its lines
        // are in when the across pass of row y + 2 reads them. A burst for
        // the whole row two rows ahead left 16-bit frames waiting on memory
        // (17 % slower).
        const uchar* ahead = direct && y + 3 < h ? in.data + quint64(y + 3) * inPitch : nullptr;
        const auto askAhead = [&](qint64 x) {
            if (ahead)
                for (qint64 line = 0; line < qint64(sizeof(T)); ++line)
                    __builtin_prefetch(ahead + x * qint64(sizeof(T)) + 64 * line);
        };
        if (!direct)
            prefetchRow(in, y + 2, quint64(w) * sizeof(T));
        if (direct) {
            const T* up = reinterpret_cast<const T*>(in.data + quint64(mirrored(y - 1, h)) * inPitch);
            const T* mid = reinterpret_cast<const T*>(in.data + quint64(y) * inPitch);
            const T* dn = reinterpret_cast<const T*>(in.data + quint64(mirrored(y + 1, h)) * inPitch);
            fillAcross(up, dn, across, evenBits, w);
            head[0] = mid[mirrored(-1, w)];
            std::memcpy(head + 1, mid, 65 * sizeof(T));
            std::memcpy(tail, mid + w - 65, 65 * sizeof(T));
            tail[65] = mid[mirrored(w, w)];
            weaveBgra(o, candidatesOf<T>(head + 1, 0, across, evenBits, 0, shiftCount, nullptr), fromOn, ck, weave,
                      0, streamed);
            askAhead(0);
            qint64 x = 64;
            for (; x + 65 <= w; x += 64) {
                askAhead(x);
                // Whole registers beside the step's are inside the row.
                const SxBeside* inside = x + 64 + 64 / qint64(sizeof(T)) <= w ? &beside : nullptr;
                weaveBgra(o, candidatesOf<T>(mid, x, across, evenBits, x, shiftCount, inside), fromOn, ck, weave,
                          x, streamed);
            }
            if (x < w)
                weaveBgra(o, candidatesOf<T>(tail + 1, 0, across, evenBits, w - 64, shiftCount, nullptr), fromOn, ck,
                          weave, w - 64, false);
            continue;
        }
        const T* up = rowAt(mirrored(y - 1, h));
        const T* mid = rowAt(y);
        const T* dn = rowAt(mirrored(y + 1, h));
        if (w < 64) {
            for (qint64 x = 0; x < w; ++x)
                bgraPixel(o, up, mid, dn, fromOn, ck, x, w, shift);
            continue;
        }
        fillAcross(up, dn, across, evenBits, w);
        // The last step may overlap the one before (it writes the same values).
        qint64 x = 0;
        for (; x + 64 <= w; x += 64)
            weaveBgra(o, candidatesOf<T>(mid, x, across, evenBits, x, shiftCount, nullptr), fromOn, ck, weave, x,
                      streamed);
        if (x < w)
            weaveBgra(o, candidatesOf<T>(mid, w - 64, across, evenBits, w - 64, shiftCount, nullptr), fromOn, ck,
                      weave, w - 64, false);
    }
    if (stream)
        _mm_sfence();
}
#endif

template <class TIn>
void demosaicRgbRowsBest(SxPicBuf& out, const SxPicBuf& in, const unsigned k[3])
{
#if defined(__x86_64__)
    // 8-bit samples are shifted only for nonsense bit counts, which the
    // byte lanes leave to the general path.
    if constexpr (sizeof(TIn) <= 2) {
        if ((sizeof(TIn) == 2 || shiftFor<TIn>(in, out) == 0) && pixelkit::cpuHas(pixelkit::CpuFeature::Avx512Vbmi)) {
            demosaicRgbRowsVbmi<TIn>(out, in, k);
            return;
        }
    }
#endif
    if (pixelkit::cpuHas(pixelkit::CpuFeature::Avx512Bw))
        demosaicRgbRowsAvx512<TIn>(out, in, k);
    else if (pixelkit::cpuHas(pixelkit::CpuFeature::Avx2))
        demosaicRgbRowsAvx2<TIn>(out, in, k);
    else
        demosaicRgbRows<TIn>(out, in, k);
}

} // namespace

template <class TIn>
bool rgbnir_demosaicRgb_T(SxPicBuf& out, const SxPicBuf& in, unsigned int kB, unsigned int kG,
                          unsigned int kR)
{
    if (!isSampleOf<TIn>(in.dataType) || out.dataType != IDT_UINT8)
        return false;
    if (in.channels != 1 || out.channels != 4 || in.width != out.width || in.height != out.height)
        return false;
    if (in.width == 0 || in.height == 0)
        return true;
    if (!rowsFit(in) || !rowsFit(out))
        return false;
    const unsigned k[3] = {kB, kG, kR};
    demosaicRgbRowsBest<TIn>(out, in, k);
    return true;
}

template bool rgbnir_extractChannel_T<uchar, uchar>(SxPicBuf&, unsigned int, const SxPicBuf&, unsigned int);
template bool rgbnir_extractChannel_T<ushort, ushort>(SxPicBuf&, unsigned int, const SxPicBuf&, unsigned int);
template bool rgbnir_extractChannel_T<uint, uint>(SxPicBuf&, unsigned int, const SxPicBuf&, unsigned int);
template bool rgbnir_extractChannel_T<uchar, ushort>(SxPicBuf&, unsigned int, const SxPicBuf&, unsigned int);
template bool rgbnir_extractChannel_T<uchar, uint>(SxPicBuf&, unsigned int, const SxPicBuf&, unsigned int);
template bool rgbnir_demosaicRgb_T<uchar>(SxPicBuf&, const SxPicBuf&, unsigned int, unsigned int, unsigned int);
template bool rgbnir_demosaicRgb_T<ushort>(SxPicBuf&, const SxPicBuf&, unsigned int, unsigned int, unsigned int);
template bool rgbnir_demosaicRgb_T<uint>(SxPicBuf&, const SxPicBuf&, unsigned int, unsigned int, unsigned int);

CxRgbNirDemosaicCnbl::CxRgbNirDemosaicCnbl()
    : CxImageProvider(ExChainableFlags(FlagProducesPictures | FlagProcessor))
{
}

CxRgbNirDemosaicCnbl::~CxRgbNirDemosaicCnbl() = default;

QString CxRgbNirDemosaicCnbl::title() const
{
    return tr("RGB-NIR Demosaic");
}

CxChainable* CxRgbNirDemosaicCnbl::clone()
{
    auto* copy = new CxRgbNirDemosaicCnbl;
    copy->m_channel = m_channel;
    return copy;
}

QWidget* CxRgbNirDemosaicCnbl::configurationWidget()
{
    return new CxRgbNirDemosaicWidget(this);
}

void CxRgbNirDemosaicCnbl::simpleStateConfigButtons(QList<CxSimpleStateConfigButton>& buttons,
                                                    bool& hasButtons)
{
    // Channel symbols, not words: the labels are not translated.
    buttons.append(CxSimpleStateConfigButton(QStringLiteral("RGB"), RGB, true, m_channel == RGB));
    buttons.append(CxSimpleStateConfigButton(QStringLiteral("NIR"), NIR, true, m_channel == NIR));
    hasButtons = true;
}

void CxRgbNirDemosaicCnbl::simpleStateConfigButtonPressed(int id)
{
    setChannel(id == NIR ? NIR : RGB, true);
}

bool CxRgbNirDemosaicCnbl::saveSettings(QDomDocument& doc, QDomElement& element) const
{
    const bool result = CxChainable::saveSettings(doc, element);
    element.setAttribute(kChannelAttribute, int(m_channel));
    return result;
}

bool CxRgbNirDemosaicCnbl::loadSettings(const QDomElement& element)
{
    const bool result = CxChainable::loadSettings(element);
    // Unlike most nodes, a missing channel fails the load.
    if (!element.hasAttribute(kChannelAttribute))
        return false;
    m_channel = nodekit::attribute(element, kChannelAttribute, m_channel);
    return result;
}

QString CxRgbNirDemosaicCnbl::help(QString& anchor)
{
    Q_UNUSED(anchor);
    return tr("Extracts RGB or NIR part of captured RGB-NIR image.<br>RGB debayering without taking NIR "
              "pixels into account, NIR channel interpolated to match input image dimensions.");
}

void CxRgbNirDemosaicCnbl::setChannel(ExChannel channel, bool restart)
{
    nodekit::setWithRestart(this, restart, [this, channel] { m_channel = channel; });
}

int CxRgbNirDemosaicCnbl::pixelIndexInMosaic(const CxImageMetadata* meta, const QString& name)
{
    if (!meta)
        return -1;
    CxHsiCameraParams::CxFilterZone zone;
    if (!nodekit::firstFilterZone(meta->hsiCameraParams(), zone))
        return -1;
    for (int i = 0; i < zone.bands.size(); ++i)
        if (zone.bands.at(i).name() == name)
            return i;
    return -1;
}

bool CxRgbNirDemosaicCnbl::queryOutputImageInfo(const SxPicBufInfo& in, SxPicBufInfo& out,
                                                const CxImageMetadata* inMeta, CxImageMetadata* outMeta)
{
    return nodekit::guarded(this, "queryOutputImageInfo", [&] {
        nodekit::passFormat(in, out, inMeta, outMeta);
        if (in.channels != 1 || in.colorFilterArray == CFA_NONE || in.storageFormat == DSF_NOT_RAW)
            return true;

        if (m_channel != NIR) {
            out.channels = 4;
            out.bitsPerSample = 8;
            out.dataType = IDT_UINT8;
            out.storageFormat = DSF_PACKED;
            out.isColor = true;
            const quint64 pitch = quint64(in.width) * 4;
            // A row too long for the field is left to the allocator, which refuses it.
            out.linePitch = pitch <= std::numeric_limits<quint32>::max() ? quint32(pitch) : 0;
        }
        out.colorFilterArray = CFA_NONE;
        if (outMeta) {
            outMeta->setColorFilterArray(CFA_NONE);
            outMeta->setHsiCameraParams(CxHsiCameraParams());
        }
        return true;
    });
}

IxChainData* CxRgbNirDemosaicCnbl::processData(IxChainData* data)
{
    const auto admit = [](const nodekit::Frame& f) {
        const bool mosaic = f.in.channels == 1 && f.in.colorFilterArray != CFA_NONE
            && f.in.storageFormat != DSF_NOT_RAW;
        return mosaic ? nodekit::Go : nodekit::PassOn;
    };
    return nodekit::processFrame(this, data, kFrame, admit, [this](nodekit::Frame& f) {
        const SxPicBuf& in = f.in;
        unsigned kNir = kFixedNir, kB = kFixedB, kR = kFixedR, kG = kFixedG;
        if (f.meta && f.meta->hsiCameraParams().isRgbNirCamera()) {
            kR = unsigned(pixelIndexInMosaic(f.meta, QStringLiteral("R")));
            kG = unsigned(pixelIndexInMosaic(f.meta, QStringLiteral("G")));
            kB = unsigned(pixelIndexInMosaic(f.meta, QStringLiteral("B")));
            kNir = unsigned(pixelIndexInMosaic(f.meta, QStringLiteral("NIR")));
        }

        using Samples = pixelkit::Only<quint8, quint16, quint32>;
        const bool done = pixelkit::withSampleTypeIn<Samples>(in.dataType, [&](auto tag) {
            using T = typename decltype(tag)::type;
            return m_channel != NIR ? rgbnir_demosaicRgb_T<T>(f.out, in, kB, kG, kR)
                                    : rgbnir_extractChannel_T<T, T>(f.out, 0, in, kNir);
        });
        if (!done) {
            // A pool picture still holds an earlier frame: never pass that on
            // as this frame's result.
            CxPicBufAPI::FillChannelsValue(f.out, 0);
            if (m_channel != NIR)
                CxPicBufAPI::FillChannelWithValue(f.out, 3, 255);
        }
        return nodekit::Go;
    });
}
