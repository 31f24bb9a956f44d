#pragma once
// Typed pixel kernels behind the picture operations of CxPicBufAPI.
//
// Each operation is one `..._T` template over its sample types; the public
// function picks the instantiation with one dispatch per frame (the pixel
// kit's withSampleType / withSampleBytes) and runs it row by row. Row
// kernels take restrict pointers and loop over contiguous samples so the
// auto-vectoriser handles them; nothing inside a row dispatches per pixel.
// Not part of the installed interface.

#include "SxPicBuf.h"

#include <KitCpu.h>
#include <KitDispatch.h>
#include <KitMosaic.h>
#include <KitPicture.h>
#include <KitRows.h>

#include <cmath>
#include <cstddef>
#include <cstring>
#include <limits>
#include <type_traits>

namespace picbuf {

using pixelkit::forEachRow;
using pixelkit::hasMarkedAlpha;
using pixelkit::isUsable;
using pixelkit::sameGeometry;
using pixelkit::saturatingAdd;
using pixelkit::withSampleBytes;
using pixelkit::withSampleType;
using pixelkit::withSampleTypes;

// ---------------------------------------------------------------- arithmetic

template <class T>
constexpr bool isFloat = std::is_floating_point_v<T>;

// Accumulator A may take samples of type F when it holds every value of F:
// unsigned sums take unsigned samples no wider than themselves, signed sums
// take signed samples no wider and unsigned ones strictly narrower, float
// sums take any integer and floats no wider.
template <class A, class F>
constexpr bool canAdd()
{
    if constexpr (isFloat<A>)
        return !isFloat<F> || sizeof(F) <= sizeof(A);
    else if constexpr (isFloat<F>)
        return false;
    else if constexpr (std::is_unsigned_v<A>)
        return std::is_unsigned_v<F> && sizeof(F) <= sizeof(A);
    else
        return std::is_signed_v<F> ? sizeof(F) <= sizeof(A) : sizeof(F) < sizeof(A);
}

// Sums of squares are unsigned or float; an unsigned sum must hold one square.
template <class A, class F>
constexpr bool canAddSquares()
{
    if constexpr (isFloat<A>)
        return !isFloat<F> || sizeof(F) <= sizeof(A);
    else if constexpr (isFloat<F> || std::is_signed_v<A>)
        return false;
    else
        return 2 * sizeof(F) <= sizeof(A);
}

// The square is formed in the narrowest type that holds it (32 bits for 8-
// and 16-bit samples), which keeps the multiply in vector lanes.
template <class A, class F>
inline A squareOf(F f)
{
    if constexpr (isFloat<A>) {
        return A(f) * A(f);
    } else {
        using P0 = std::conditional_t<(sizeof(F) <= 2), quint32, A>;
        using P = std::conditional_t<std::is_signed_v<F>, std::make_signed_t<P0>, P0>;
        return A(P(f) * P(f));
    }
}

struct AddOp
{
    template <class A, class F>
    static A apply(A a, F f) { return saturatingAdd<A>(a, A(f)); }
};

struct AddSquareOp
{
    template <class A, class F>
    static A apply(A a, F f)
    {
        // A float sum takes the exact square through double, so the result is
        // the same whether or not the compiler fuses the multiply-add.
        if constexpr (std::is_same_v<A, float>)
            return float(double(a) + double(f) * double(f));
        else
            return saturatingAdd<A>(a, squareOf<A>(f));
    }
};

// A NaN sample never replaces a number already held (and the comparison
// compiles to a single min/max instruction).
struct MinOp
{
    template <class A, class F>
    static A apply(A a, F f) { return f < a ? A(f) : a; }
};

struct MaxOp
{
    template <class A, class F>
    static A apply(A a, F f) { return f > a ? A(f) : a; }
};

template <class Op, class A, class F>
QLAR_VECTOR_CLONES void accumulateRow_T(A* __restrict acc, const F* __restrict frame, size_t n)
{
    for (size_t i = 0; i < n; ++i)
        acc[i] = Op::apply(acc[i], frame[i]);
}

// Three-channel sums of marked RGBA frames: alpha is skipped.
template <class Op, class A, class F>
QLAR_VECTOR_CLONES void accumulateRgbOfRgbaRow_T(A* __restrict acc, const F* __restrict frame, size_t pixels)
{
    for (size_t x = 0; x < pixels; ++x) {
        acc[3 * x + 0] = Op::apply(acc[3 * x + 0], frame[4 * x + 0]);
        acc[3 * x + 1] = Op::apply(acc[3 * x + 1], frame[4 * x + 1]);
        acc[3 * x + 2] = Op::apply(acc[3 * x + 2], frame[4 * x + 2]);
    }
}

template <class Op, class A, class F>
void accumulate_T(SxPicBuf& acc, const SxPicBuf& frame, bool rgbOfRgba)
{
    const size_t pixels = acc.width;
    const size_t samples = pixels * acc.channels;
    const quint64 rowBytes = samples * sizeof(A) * 2 + quint64(pixels) * frame.channels * sizeof(F);
    forEachRow(acc.height, rowBytes, [&](quint32 y) {
        if (rgbOfRgba)
            accumulateRgbOfRgbaRow_T<Op>(acc.row<A>(y), frame.row<F>(y), pixels);
        else
            accumulateRow_T<Op>(acc.row<A>(y), frame.row<F>(y), samples);
    });
}

// ------------------------------------------------------------------ division

// Rounded quotients of 32-bit magnitudes by an invariant divisor, with no
// divide instruction: the floor comes from a multiply by a magic number
// (Granlund & Montgomery, exact for every x and 1 <= d < 2^32), the
// remainder then says whether to round up.
struct SxDivMagic
{
    quint32 d = 1, m = 1, roundUpFrom = 1;
    int s1 = 0, s2 = 0;

    explicit SxDivMagic(quint32 divisor)
        : d(divisor), roundUpFrom(divisor - divisor / 2)
    {
        const int l = divisor > 1 ? 32 - __builtin_clz(divisor - 1) : 0;  // ceil(log2 d)
        m = quint32(((((quint64(1) << l) - divisor) << 32) / divisor) + 1);
        s1 = l ? 1 : 0;
        s2 = l ? l - 1 : 0;
    }
    // Half away from zero for a magnitude, i.e. half up.
    quint32 roundedQuotient(quint32 x) const
    {
        const quint32 t = quint32((quint64(x) * m) >> 32);
        const quint32 q = (t + ((x - t) >> s1)) >> s2;
        const quint32 r = x - q * d;
        return q + (r >= roundUpFrom ? 1u : 0u);
    }
};

template <class T>
constexpr bool isNarrowInt = std::is_integral_v<T> && sizeof(T) <= 4;

template <class O>
constexpr bool isDivisionOutput = !(std::is_integral_v<O> && sizeof(O) == 8);

// Integer sums of up to 32 bits into integer samples. The quotient of the
// magnitude is held below the limit of the sum's sign, then the sign is put
// back with 32-bit lane operations only.
template <class S, class O>
struct SxIntDivider_T
{
    SxDivMagic magic;
    quint32 posLimit = quint32(std::numeric_limits<O>::max());
    quint32 negLimit = std::is_signed_v<O> ? quint32(-qint64(std::numeric_limits<O>::min())) : 0u;

    explicit SxIntDivider_T(int divisor) : magic(quint32(divisor)) {}
    O operator()(S s) const
    {
        if constexpr (std::is_unsigned_v<S>) {
            const quint32 q = magic.roundedQuotient(quint32(s));
            return O(q < posLimit ? q : posLimit);
        } else {
            const qint32 v = s;
            const quint32 sign = quint32(v >> 31);
            const quint32 q = magic.roundedQuotient((quint32(v) ^ sign) - sign);
            const quint32 limit = sign ? negLimit : posLimit;
            return O(qint32(((q < limit ? q : limit) ^ sign) - sign));
        }
    }
};

// Float sums, and any sum into float samples: the quotient through double,
// where every integer of up to 32 bits and the divisor are exact. For integer
// outputs it is rounded half away from zero, held in range, NaN giving 0.
template <class S, class O>
struct SxFloatDivider_T
{
    double d;
    explicit SxFloatDivider_T(int divisor) : d(divisor) {}
    O operator()(S s) const
    {
        double q = double(s) / d;
        if constexpr (isFloat<O>) {
            return O(q);
        } else {
            q += std::copysign(0.5, q);
            q = q == q ? q : 0.0;
            constexpr double lo = double(std::numeric_limits<O>::min());
            constexpr double hi = double(std::numeric_limits<O>::max());
            q = q > lo ? q : lo;
            q = q < hi ? q : hi;
            return O(q);
        }
    }
};

// 64-bit integer sums: exact integer division, then held in range.
template <class S, class O>
struct SxWideDivider_T
{
    qint64 d;
    explicit SxWideDivider_T(int divisor) : d(divisor) {}
    O operator()(S s) const
    {
        if constexpr (std::is_unsigned_v<S>) {
            const quint64 ud = quint64(d);
            const quint64 r = s % ud;
            const quint64 q = s / ud + (r >= ud - r ? 1 : 0);
            return q > quint64(std::numeric_limits<O>::max()) ? std::numeric_limits<O>::max() : O(q);
        } else {
            const qint64 r = s % d;
            qint64 q = s / d;
            if (r >= 0 ? r >= d - r : -r >= d + r)
                q += s < 0 ? -1 : 1;
            if (q > qint64(std::numeric_limits<O>::max()))
                return std::numeric_limits<O>::max();
            if (q < qint64(std::numeric_limits<O>::min()))
                return std::numeric_limits<O>::min();
            return O(q);
        }
    }
};

template <class S, class O>
using Divider_T = std::conditional_t<isFloat<S> || isFloat<O>, SxFloatDivider_T<S, O>,
                                     std::conditional_t<isNarrowInt<S>, SxIntDivider_T<S, O>, SxWideDivider_T<S, O>>>;

template <class S, class O, class Div>
QLAR_VECTOR_CLONES void divideRow_T(O* __restrict out, const S* __restrict sum, size_t n, const Div& div)
{
    for (size_t i = 0; i < n; ++i)
        out[i] = div(sum[i]);
}

template <class S, class O, class Div>
QLAR_VECTOR_CLONES void divideRgbIntoRgbaRow_T(O* __restrict out, const S* __restrict sum, size_t pixels,
                                               const Div& div, O alpha)
{
    for (size_t x = 0; x < pixels; ++x) {
        out[4 * x + 0] = div(sum[3 * x + 0]);
        out[4 * x + 1] = div(sum[3 * x + 1]);
        out[4 * x + 2] = div(sum[3 * x + 2]);
        out[4 * x + 3] = alpha;
    }
}

template <class S, class O, class Div>
QLAR_VECTOR_CLONES void divideRgbaIntoRgbRow_T(O* __restrict out, const S* __restrict sum, size_t pixels,
                                               const Div& div)
{
    for (size_t x = 0; x < pixels; ++x) {
        out[3 * x + 0] = div(sum[4 * x + 0]);
        out[3 * x + 1] = div(sum[4 * x + 1]);
        out[3 * x + 2] = div(sum[4 * x + 2]);
    }
}

// Opaque alpha of a picture: its full scale, within the type; 1 for floats.
template <class O>
O opaqueAlpha(const SxPicBufInfo& f)
{
    if constexpr (isFloat<O>) {
        return O(1);
    } else {
        const quint64 typeMax = quint64(std::numeric_limits<O>::max());
        const quint64 bits = f.bitsPerSample ? f.bitsPerSample : sizeof(O) * 8;
        const quint64 scale = bits >= 64 ? typeMax : (quint64(1) << bits) - 1;
        return O(scale < typeMax ? scale : typeMax);
    }
}

enum class ExAlpha { Same, Added, Dropped };

// Division by 1 of integers: only the hold inside out's range is left, as
// SxIntDivider_T would hold them (a series' first frame becomes its sum so).
template <class S, class O>
struct SxHoldInRange_T
{
    O operator()(S s) const
    {
        constexpr qint64 lo = qint64(std::numeric_limits<O>::min()), hi = qint64(std::numeric_limits<O>::max());
        const qint64 v = qint64(s);
        return O(v < lo ? lo : v > hi ? hi : v);
    }
};

template <class S, class O, class Div>
void divideRows_T(const SxPicBuf& sum, SxPicBuf& out, ExAlpha alphaRule, const Div& div)
{
    const size_t pixels = out.width;
    const quint64 rowBytes = quint64(pixels) * (sum.channels * sizeof(S) + out.channels * sizeof(O));
    const O alpha = opaqueAlpha<O>(out);
    forEachRow(out.height, rowBytes, [&](quint32 y) {
        if (alphaRule == ExAlpha::Added)
            divideRgbIntoRgbaRow_T<S, O>(out.row<O>(y), sum.row<S>(y), pixels, div, alpha);
        else if (alphaRule == ExAlpha::Dropped)
            divideRgbaIntoRgbRow_T<S, O>(out.row<O>(y), sum.row<S>(y), pixels, div);
        else
            divideRow_T<S, O>(out.row<O>(y), sum.row<S>(y), pixels * out.channels, div);
    });
}

template <class S, class O>
void divideByValue_T(const SxPicBuf& sum, int divisor, SxPicBuf& out, ExAlpha alphaRule)
{
    if constexpr (isNarrowInt<S> && std::is_integral_v<O> && !isFloat<O>) {
        if (divisor == 1) {
            divideRows_T<S, O>(sum, out, alphaRule, SxHoldInRange_T<S, O>());
            return;
        }
    }
    divideRows_T<S, O>(sum, out, alphaRule, Divider_T<S, O>(divisor));
}

// ----------------------------------------------------------- channel moves

template <class T, unsigned C>
QLAR_VECTOR_CLONES void extractRow_T(T* __restrict out, const T* __restrict in, size_t pixels, unsigned channel)
{
    for (size_t x = 0; x < pixels; ++x)
        out[x] = in[x * C + channel];
}

template <class T>
void extractRowAnyCount_T(T* __restrict out, const T* __restrict in, size_t pixels, unsigned channels,
                          unsigned channel)
{
    for (size_t x = 0; x < pixels; ++x)
        out[x] = in[x * channels + channel];
}

template <class T>
void extractChannel_T(const SxPicBuf& in, SxPicBuf& out, unsigned channel)
{
    const size_t pixels = in.width;
    const unsigned channels = in.channels;
    const quint64 rowBytes = quint64(pixels) * (channels + 1) * sizeof(T);
    auto run = [&](auto rowKernel) {
        forEachRow(in.height, rowBytes, [&](quint32 y) { rowKernel(out.row<T>(y), in.row<T>(y)); });
    };
    switch (channels) {
    case 1:
        run([&](T* o, const T* i) { std::memcpy(o, i, pixels * sizeof(T)); });
        break;
    case 2:
        run([&](T* o, const T* i) { extractRow_T<T, 2>(o, i, pixels, channel); });
        break;
    case 3:
        run([&](T* o, const T* i) { extractRow_T<T, 3>(o, i, pixels, channel); });
        break;
    case 4:
        run([&](T* o, const T* i) { extractRow_T<T, 4>(o, i, pixels, channel); });
        break;
    default:
        run([&](T* o, const T* i) { extractRowAnyCount_T<T>(o, i, pixels, channels, channel); });
        break;
    }
}

// One cell of a 2x2 mosaic (column cx, row cy) as a half-size picture: every
// other sample of every other row.
template <class T>
void extractMosaicCell_T(const SxPicBuf& in, SxPicBuf& out, unsigned cx, unsigned cy)
{
    const pixelkit::MosaicPlane cell{cx, cy, 2, 2, 1, 1};
    const qint64 pixels = out.width;
    forEachRow(out.height, quint64(pixels) * 5 * sizeof(T), [&](quint32 y) {
        pixelkit::gatherPlaneRow<sizeof(T)>(pixelkit::rowsOf(in), cell, pixels, y, out.rowPtr(y));
    });
}

// A value held inside T's range (a float takes it as it is).
template <class T>
T sampleFromValue(quint64 v)
{
    if constexpr (isFloat<T>)
        return T(v);
    else
        return v > quint64(std::numeric_limits<T>::max()) ? std::numeric_limits<T>::max() : T(v);
}

template <class T>
void fillSamples_T(SxPicBuf& pic, T value)
{
    const size_t samples = size_t(pic.width) * pic.channels;
    forEachRow(pic.height, samples * sizeof(T), [&](quint32 y) {
        T* __restrict p = pic.row<T>(y);
        for (size_t i = 0; i < samples; ++i)
            p[i] = value;
    });
}

template <class T>
void fillChannel_T(SxPicBuf& pic, unsigned channel, T value)
{
    const size_t pixels = pic.width;
    const unsigned channels = pic.channels;
    forEachRow(pic.height, pixels * channels * sizeof(T), [&](quint32 y) {
        T* __restrict p = pic.row<T>(y) + channel;
        for (size_t x = 0; x < pixels; ++x)
            p[x * channels] = value;
    });
}

// ----------------------------------------------------------------- min, max

// Smallest and largest of n samples, folded into mn and mx. NaN never
// compares, so it is skipped on its own; with finiteOnly the infinities are
// skipped too. Sixteen independent lanes let the loop vectorise without
// reassociating anything.
template <class T>
void minMaxRow_T(const T* __restrict p, size_t n, bool finiteOnly, T& mn, T& mx)
{
    constexpr int Lanes = 16;
    T lo[Lanes], hi[Lanes];
    for (int j = 0; j < Lanes; ++j) {
        lo[j] = mn;
        hi[j] = mx;
    }
    const T limit = finiteOnly ? std::numeric_limits<T>::max() : std::numeric_limits<T>::infinity();
    size_t i = 0;
    for (; i + Lanes <= n; i += Lanes) {
        for (int j = 0; j < Lanes; ++j) {
            const T v = p[i + j];
            const bool counts = std::fabs(v) <= limit;
            lo[j] = counts && v < lo[j] ? v : lo[j];
            hi[j] = counts && v > hi[j] ? v : hi[j];
        }
    }
    for (; i < n; ++i) {
        const T v = p[i];
        if (std::fabs(v) <= limit) {
            lo[0] = v < lo[0] ? v : lo[0];
            hi[0] = v > hi[0] ? v : hi[0];
        }
    }
    for (int j = 0; j < Lanes; ++j) {
        mn = lo[j] < mn ? lo[j] : mn;
        mx = hi[j] > mx ? hi[j] : mx;
    }
}

template <class T>
bool floatMinMax_T(const SxPicBuf& pic, bool finiteOnly, float& outMin, float& outMax)
{
    const size_t n = size_t(pic.width) * pic.channels;
    constexpr T none = std::numeric_limits<T>::infinity();
    struct { T mn, mx; } range{none, -none};
    pixelkit::forEachRowFolding(
        pic.height, n * sizeof(T), range,
        [&](auto& r, quint32 y) { minMaxRow_T<T>(pic.row<T>(y), n, finiteOnly, r.mn, r.mx); },
        [](auto& all, const auto& r) {
            all.mn = r.mn < all.mn ? r.mn : all.mn;
            all.mx = r.mx > all.mx ? r.mx : all.mx;
        });
    if (!(range.mn <= range.mx))
        return false;  // no sample that counts
    outMin = float(range.mn);
    outMax = float(range.mx);
    return true;
}

// ------------------------------------------------------------ display RGB

// Sample to 8-bit display level. Integers drop their significant bits beyond
// eight (negative values are black); floats map the picture's recorded
// range [floatMin, floatMax] onto 0..255, or 0..1 when none is recorded.
template <class T>
struct LevelMap_T
{
    unsigned shift = 0;
    double offset = 0.0;
    double scale = 255.0;

    explicit LevelMap_T(const SxPicBuf& in)
    {
        if constexpr (isFloat<T>) {
            if (std::isfinite(in.floatMin) && std::isfinite(in.floatMax) && in.floatMax > in.floatMin) {
                offset = in.floatMin;
                scale = 255.0 / (double(in.floatMax) - double(in.floatMin));
            }
        } else {
            const unsigned typeBits = sizeof(T) * 8;
            const unsigned bits = in.bitsPerSample && in.bitsPerSample < typeBits ? in.bitsPerSample : typeBits;
            shift = bits > 8 ? bits - 8 : 0;
        }
    }

    quint8 operator()(T v) const
    {
        if constexpr (isFloat<T>) {
            double l = (double(v) - offset) * scale + 0.5;
            l = l == l ? l : 0.0;
            l = l > 0.0 ? l : 0.0;
            return quint8(l < 255.0 ? l : 255.0);
        } else {
            if constexpr (std::is_signed_v<T>) {
                if (v <= 0)
                    return 0;
            }
            const quint64 l = quint64(v) >> shift;
            return quint8(l < 255 ? l : 255);
        }
    }
};

enum ExRgbSource { RgbFromGrey, RgbFromColour, RgbFromMosaic };

// Colour of each cell of a 2x2 mosaic: 0 red, 1 green, 2 blue.
struct SxMosaicCells
{
    int colour[2][2];
};

// Output is B, G, R, A in memory (QImage::Format_ARGB32 on little-endian).
template <class T>
void convertToRgb_T(const SxPicBuf& in, SxPicBuf& out, ExRgbSource source, const SxMosaicCells& cells)
{
    const LevelMap_T<T> level(in);
    const size_t w = in.width;
    const quint32 h = in.height;
    const unsigned channels = in.channels;
    forEachRow(h, quint64(w) * (channels * sizeof(T) + 4), [&](quint32 y) {
        quint8* __restrict o = out.rowPtr(y);
        const T* __restrict i = in.row<T>(y);
        switch (source) {
        case RgbFromGrey:
            for (size_t x = 0; x < w; ++x) {
                const quint8 l = level(i[x * channels]);
                o[4 * x + 0] = l;
                o[4 * x + 1] = l;
                o[4 * x + 2] = l;
                o[4 * x + 3] = 255;
            }
            break;
        case RgbFromColour:
            // Colour pictures are blue first already: the order carries over.
            for (size_t x = 0; x < w; ++x) {
                o[4 * x + 0] = level(i[x * channels + 0]);
                o[4 * x + 1] = level(i[x * channels + 1]);
                o[4 * x + 2] = level(i[x * channels + 2]);
                o[4 * x + 3] = 255;
            }
            break;
        case RgbFromMosaic: {
            // Bilinear: a pixel keeps its own colour and takes each missing one
            // as the mean of that colour's samples among its 3x3 neighbours
            // (those inside the picture).
            const quint32 y0 = y ? y - 1 : 0;
            const quint32 y1 = y + 1 < h ? y + 1 : y;
            for (size_t x = 0; x < w; ++x) {
                const size_t x0 = x ? x - 1 : 0;
                const size_t x1 = x + 1 < w ? x + 1 : x;
                const int own = cells.colour[y & 1][x & 1];
                unsigned sum[3] = {0, 0, 0};
                unsigned count[3] = {0, 0, 0};
                for (quint32 yy = y0; yy <= y1; ++yy) {
                    const T* r = in.row<T>(yy);
                    for (size_t xx = x0; xx <= x1; ++xx) {
                        const int c = cells.colour[yy & 1][xx & 1];
                        if (c == own && (yy != y || xx != x))
                            continue;
                        sum[c] += level(r[xx]);
                        ++count[c];
                    }
                }
                for (int c = 0; c < 3; ++c)
                    o[4 * x + 2 - c] = count[c] ? quint8((sum[c] + count[c] / 2) / count[c]) : 0;
                o[4 * x + 3] = 255;
            }
            break;
        }
        }
    });
}

} // namespace picbuf
