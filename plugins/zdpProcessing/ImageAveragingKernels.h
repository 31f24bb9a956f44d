#pragma once
// Per-pixel kernels of the Image Averaging node: standard deviation from a
// sum and a sum of squares, subtraction of the last average with a level
// offset, the min-touches count and line averaging.
//
// All kernels walk rows through each picture's own line pitch and touch only
// the samples of a row, never the padding after it. They run on the calling
// thread: the node works on the chain's thread and leaves the other cores to
// the rest of the chain.
#include "NodeKit.h"

#include <CxHistoData.h>
#include <SxPicBuf.h>

#include <KitCpu.h>
#include <KitDispatch.h>
#include <KitPicture.h>

#include <algorithm>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#include <cmath>
#include <cstring>
#include <limits>
#include <type_traits>
#include <vector>

// The hot row loops are built with QLAR_VECTOR_CLONES: the double conversions
// of the deviation only become vector instructions with 64-bit integer
// conversions (AVX-512).

namespace avgk {

using pixelkit::hasMarkedAlpha;

// The same restricted to 8- and 16-bit samples, the layouts that the host's
// histogram measures as three colour records.
inline bool hasMarkedAlpha8or16(const SxPicBufInfo& f)
{
    return hasMarkedAlpha(f) && (f.bytesPerSample() == 1 || f.bytesPerSample() == 2)
           && f.dataType != IDT_UNKNOWN;
}

// Truncates toward zero and keeps the low 64 bits of the integer, so that a
// narrower store keeps the low bits of the true value; NaN gives 0.
inline quint64 truncatedLowBits(double r)
{
    if (std::fabs(r) < 0x1p63)
        return quint64(qint64(r));
    if (std::isnan(r) || std::isinf(r))
        return 0;
    double m = std::fmod(r, 0x1p64);  // already an integer at this size
    if (m >= 0x1p63)
        m -= 0x1p64;
    else if (m < -0x1p63)
        m += 0x1p64;
    return quint64(qint64(m));
}

// ------------------------------------------------------ standard deviation

// One sample of the integer path, exactly: truncating mean, variance in the
// unsigned width of the sum of squares (wrapping like it), square root times
// the scale, low bits of the truncated result.
template <class Q, class O>
inline O stDevSampleInt(quint32 s, Q q, quint32 n, double scale)
{
    const Q mean = Q(s / n);
    const Q var = Q(Q(q - Q(mean * mean) * Q(n)) / Q(n - 1));
    return O(truncatedLowBits(std::sqrt(double(var)) * scale));
}

template <class O>
inline O stDevSampleFloat(float s, float q, float n, float n1, float scale)
{
    const float mean = s / n;
    const float sd = std::sqrt((q - mean * mean * n) / n1) * scale;
    if constexpr (std::is_floating_point_v<O>)
        return O(sd);
    else
        return O(truncatedLowBits(double(sd)));
}

// Comparisons that may see NaN keep the loop below scalar while the compiler
// must preserve floating-point exception flags; nothing here reads them.
#pragma GCC push_options
#pragma GCC optimize("no-trapping-math")

// Integer path of a row in double arithmetic, which vectorises where 64-bit
// integer division does not. While the sum of squares stays below 2^48 and no
// accumulator wrapped (then the mean square times n is at most the sum of
// squares), every value is an integer held exactly, and for such integers
// a < 2^48, b >= 1 the quotient (a + 0.5) / b lies at least 0.5 / b from the
// next integer, farther than the two roundings of a multiply by the
// reciprocal can move it: its floor is the integer quotient. Returns false
// when some sample left that range; the caller then redoes the row exactly.
// Every test is a bitwise and, so the loop has no branch and vectorises.
template <class Q, class O>
QLAR_VECTOR_CLONES bool stDevRowFast_T(O* __restrict out, const quint32* __restrict sum,
                                      const Q* __restrict sq, size_t n, quint32 frames, double scale)
{
    const double dn = frames;
    const double inv = 1.0 / dn, inv1 = 1.0 / double(frames - 1);
    unsigned bad = 0;
    for (size_t i = 0; i < n; ++i) {
        const double q = double(sq[i]);
        const double mean = std::floor((double(sum[i]) + 0.5) * inv);
        const double d = q - mean * mean * dn;
        const double r = std::sqrt(std::floor((d + 0.5) * inv1)) * scale;
        const bool ok = (q < 0x1p48) & (d >= 0.0) & (r > -0x1p31) & (r < 0x1p31);
        bad |= unsigned(!ok);
        out[i] = O(qint32(ok ? r : 0.0));
    }
    return bad == 0;
}

#pragma GCC pop_options

template <class Q, class O>
void stDevRowExact_T(O* out, const quint32* sum, const Q* sq, size_t n, quint32 frames, double scale)
{
    for (size_t i = 0; i < n; ++i)
        out[i] = stDevSampleInt<Q, O>(sum[i], sq[i], frames, scale);
}

template <class Q, class O>
void stDevInt_T(const SxPicBuf& sum, const SxPicBuf& sq, quint32 frames, SxPicBuf& out, int scale)
{
    const size_t n = size_t(out.width) * out.channels;
    for (quint32 y = 0; y < out.height; ++y) {
        O* o = out.row<O>(y);
        const quint32* s = sum.row<quint32>(y);
        const Q* q = sq.row<Q>(y);
        if (!stDevRowFast_T<Q, O>(o, s, q, n, frames, double(scale)))
            stDevRowExact_T<Q, O>(o, s, q, n, frames, double(scale));
    }
}

template <class O>
QLAR_VECTOR_CLONES void stDevRowFloat_T(O* __restrict out, const float* __restrict sum,
                                       const float* __restrict sq, size_t n, float frames, float scale)
{
    const float n1 = frames - 1.f;
    for (size_t i = 0; i < n; ++i)
        out[i] = stDevSampleFloat<O>(sum[i], sq[i], frames, n1, scale);
}

template <class O>
void stDevFloat_T(const SxPicBuf& sum, const SxPicBuf& sq, int frames, SxPicBuf& out, int scale)
{
    const size_t n = size_t(out.width) * out.channels;
    for (quint32 y = 0; y < out.height; ++y)
        stDevRowFloat_T<O>(out.row<O>(y), sum.row<float>(y), sq.row<float>(y), n, float(frames),
                           float(scale));
}

} // namespace avgk

// Standard deviation of interleaved RGBA output from three- or four-channel
// sums (S the sum sample, Q the sum of squares, O the output sample). The
// alpha of the output is not written. False when n < 2.
template <class S, class Q, class O>
bool pic_stDev_rgba_T(const SxPicBuf& sum, const SxPicBuf& sumSq, int n, SxPicBuf& out, int scale)
{
    if (n < 2)
        return false;
    const quint32 frames = quint32(n);
    const double k = scale;
    const quint32 step = sum.channels;
    if (step != 3 && step != 4)
        return true;
    for (quint32 y = 0; y < sum.height; ++y) {
        const S* s = sum.row<S>(y);
        const Q* q = sumSq.row<Q>(y);
        O* o = out.row<O>(y);
        for (quint32 x = 0; x < sum.width; ++x, s += step, q += step, o += 4) {
            o[0] = avgk::stDevSampleInt<Q, O>(s[0], q[0], frames, k);
            o[1] = avgk::stDevSampleInt<Q, O>(s[1], q[1], frames, k);
            o[2] = avgk::stDevSampleInt<Q, O>(s[2], q[2], frames, k);
        }
    }
    return true;
}

// The node's standard deviation: out (the input's format) from the sum and
// sum-of-squares pictures of n frames, times scale. False, out unwritten, for
// n < 2, a size or channel mismatch, or a type combination without a kernel
// (signed integer sums among them).
bool StDevFromSums(const SxPicBuf& sum, const SxPicBuf& sumSq, int n, SxPicBuf& out, int scale);

// ------------------------------------------------------------ accumulation

namespace avgk {

using pixelkit::saturatingAdd;

template <class F, class Q>
QLAR_VECTOR_CLONES void addSumAndSquaresRow_T(quint32* __restrict sum, Q* __restrict sq,
                                             const F* __restrict f, size_t n)
{
    for (size_t i = 0; i < n; ++i) {
        const quint32 v = f[i];
        sum[i] = saturatingAdd<quint32>(sum[i], v);
        sq[i] = saturatingAdd<Q>(sq[i], Q(v * v));
    }
}

} // namespace avgk

// Sum and sum of squares of an unsigned 8- or 16-bit frame in one pass, with
// the same saturating results as the host's Add and AddSquares: reading the
// frame once saves a third of the traffic of two passes. False, nothing
// written, for any other layout; the caller then uses the host's operations.
bool AddSumAndSquares(SxPicBuf& sum, SxPicBuf& sumSq, const SxPicBuf& frame);

// ------------------------------------------------------------ subtraction

namespace avgk {

// Histogram record of each stored channel: colour pictures hold their
// records red first while blue is stored first. -1 for a channel the
// subtraction leaves alone (alpha). Empty when the histogram lacks a record.
inline std::vector<int> levelRecords(const SxPicBufInfo& f, const CxHistoData& h)
{
    std::vector<int> rec(f.channels, -1);
    const bool colour = f.channels == 3 || hasMarkedAlpha8or16(f);
    for (quint32 c = 0; c < f.channels; ++c)
        rec[c] = colour ? (c < 3 ? int(2 - c) : -1) : int(c);
    for (int r : rec)
        if (r >= h.channels())
            return {};
    return rec;
}

inline bool sameShape(const SxPicBufInfo& a, const SxPicBufInfo& b)
{
    return a.width == b.width && a.height == b.height && a.channels == b.channels
           && a.dataType == b.dataType;
}

template <class T, class A>
QLAR_VECTOR_CLONES void subtractMonoRow_T(T* __restrict out, const T* __restrict avg, size_t n, A off,
                                         A top)
{
    for (size_t i = 0; i < n; ++i) {
        const A v = A(out[i]) - A(avg[i]) + off;
        out[i] = T(v < 0 ? A(0) : v > top ? top : v);
    }
}

} // namespace avgk

// out := clamp(out - lastAverage + offset, 0, full scale) per sample, in
// arithmetic A, with the offset trunc(level + 0.5) of the channel's histogram
// record. Signed samples are clamped like unsigned ones and the result stored
// as it comes (a value above the signed range turns negative). False for a
// picture shape mismatch or missing histogram records.
template <class T, class A>
bool SubtractWithOffset_T(const SxPicBuf& lastAverage, SxPicBuf& out, const CxHistoData& histo)
{
    if (!avgk::sameShape(lastAverage, out) || !lastAverage.data || !out.data)
        return false;
    const std::vector<int> rec = avgk::levelRecords(out, histo);
    if (rec.empty())
        return false;
    const A top = A(nodekit::fullScale(out));
    std::vector<A> off(out.channels, A(0));
    for (quint32 c = 0; c < out.channels; ++c)
        if (rec[c] >= 0)
            off[c] = A(std::trunc(histo.level(rec[c]) + 0.5));
    const quint32 ch = out.channels;
    for (quint32 y = 0; y < out.height; ++y) {
        T* o = out.row<T>(y);
        const T* a = lastAverage.row<T>(y);
        if (ch == 1) {
            avgk::subtractMonoRow_T<T, A>(o, a, out.width, off[0], top);
            continue;
        }
        for (quint32 x = 0; x < out.width; ++x, o += ch, a += ch)
            for (quint32 c = 0; c < ch; ++c)
                if (rec[c] >= 0) {
                    const A v = A(o[c]) - A(a[c]) + off[c];
                    o[c] = T(v < 0 ? A(0) : v > top ? top : v);
                }
    }
    return true;
}

// Float form: out := out - lastAverage + (level + 0.5), unrounded and
// unclamped, so the result may be negative.
template <class T, class A>
bool SubtractWithOffset_negative_T(const SxPicBuf& lastAverage, SxPicBuf& out, const CxHistoData& histo)
{
    static_assert(std::is_floating_point_v<T> && std::is_floating_point_v<A>);
    if (!avgk::sameShape(lastAverage, out) || !lastAverage.data || !out.data)
        return false;
    const std::vector<int> rec = avgk::levelRecords(out, histo);
    if (rec.empty())
        return false;
    const quint32 ch = out.channels;
    std::vector<A> off(ch, A(0));
    for (quint32 c = 0; c < ch; ++c)
        if (rec[c] >= 0)
            off[c] = A(histo.level(rec[c]) + 0.5);
    for (quint32 y = 0; y < out.height; ++y) {
        T* o = out.row<T>(y);
        const T* a = lastAverage.row<T>(y);
        for (quint32 x = 0; x < out.width; ++x, o += ch, a += ch)
            for (quint32 c = 0; c < ch; ++c)
                if (rec[c] >= 0)
                    o[c] = T(A(o[c]) - A(a[c]) + off[c]);
    }
    return true;
}

// A flat picture at the histogram's levels: every sample trunc(level + 0.5)
// of its channel's record, the alpha of a colour picture full scale. False
// when records are missing.
template <class T>
bool SetAsSubtractingGreyImage_T(SxPicBuf& out, const CxHistoData& histo)
{
    if (!out.data)
        return false;
    const std::vector<int> rec = avgk::levelRecords(out, histo);
    if (rec.empty())
        return false;
    const quint32 ch = out.channels;
    std::vector<T> pattern(ch);
    for (quint32 c = 0; c < ch; ++c) {
        if (rec[c] < 0)
            pattern[c] = T(nodekit::fullScale(out));
        else if constexpr (std::is_floating_point_v<T>)
            pattern[c] = T(std::trunc(histo.level(rec[c]) + 0.5));
        else
            pattern[c] = T(qint64(std::trunc(histo.level(rec[c]) + 0.5)));
    }
    if (out.height == 0 || out.width == 0)
        return true;
    T* first = out.row<T>(0);
    for (quint32 x = 0; x < out.width; ++x)
        std::memcpy(first + size_t(x) * ch, pattern.data(), ch * sizeof(T));
    const size_t rowBytes = size_t(out.width) * ch * sizeof(T);
    for (quint32 y = 1; y < out.height; ++y)
        std::memcpy(out.rowPtr(y), first, rowBytes);
    return true;
}

// Dispatch on the output's sample type (the integer types and float); false
// for any other type or a failing kernel. Float results get their range
// measured again.
bool SubtractWithOffset(const SxPicBuf& lastAverage, SxPicBuf& out, const CxHistoData& histo);
bool SetAsSubtractingGreyImage(SxPicBuf& out, const CxHistoData& histo);

// ------------------------------------------------------------ min touches

namespace avgk {

// f < min: min := f, count := 1; f == min: count + 1 (wrapping); NaN never
// matches either test.
template <class C, class T>
QLAR_VECTOR_CLONES void minTouchesRow_T(T* __restrict min, C* __restrict count, const T* __restrict f,
                                       size_t n)
{
    for (size_t i = 0; i < n; ++i) {
        const T v = f[i], m = min[i];
        const bool lower = v < m;
        count[i] = lower ? C(1) : C(count[i] + C(v == m));
        min[i] = lower ? v : m;
    }
}

template <class C, class T>
void minTouchesRgbaRow_T(T* __restrict min, C* __restrict count, const T* __restrict f, size_t pixels)
{
    for (size_t x = 0; x < pixels; ++x)
        for (size_t c = 0; c < 3; ++c) {
            const size_t i = 4 * x + c;
            const T v = f[i], m = min[i];
            const bool lower = v < m;
            count[i] = lower ? C(1) : C(count[i] + C(v == m));
            min[i] = lower ? v : m;
        }
}

} // namespace avgk

template <class C, class T>
void MinTouches_T(SxPicBuf& min, SxPicBuf& touches, const SxPicBuf& frame, bool rgba)
{
    const size_t perRow = rgba ? frame.width : size_t(frame.width) * frame.channels;
    for (quint32 y = 0; y < frame.height; ++y) {
        if (rgba)
            avgk::minTouchesRgbaRow_T<C, T>(min.row<T>(y), touches.row<C>(y), frame.row<T>(y), perRow);
        else
            avgk::minTouchesRow_T<C, T>(min.row<T>(y), touches.row<C>(y), frame.row<T>(y), perRow);
    }
}

// Updates the running minimum and its touch count with one frame. True also
// for a frame without rows; false for an unsupported type combination or
// pictures whose shapes do not match the frame's.
bool MinTouches(SxPicBuf& min, SxPicBuf& touches, const SxPicBuf& frame);

// ---------------------------------------------------------- line averaging

namespace avgk {

// Means round by adding half the count first; the float kernels keep that
// bias so that every type gives the same profile.
template <class T, class A>
inline T roundedMean(A sum, quint64 n)
{
    return T((sum + A(n >> 1)) / A(n));
}

template <class T, class A>
QLAR_VECTOR_CLONES A sumRow_T(const T* __restrict row, size_t n)
{
    A s = A(0);
    for (size_t i = 0; i < n; ++i)
        s += A(row[i]);
    return s;
}

template <class T, class A>
QLAR_VECTOR_CLONES void addRow_T(A* __restrict acc, const T* __restrict row, size_t n)
{
    for (size_t i = 0; i < n; ++i)
        acc[i] += A(row[i]);
}

// Four rows per pass over the accumulators, which then stay in registers for
// three of the four additions.
template <class T, class A>
QLAR_VECTOR_CLONES void addFourRows_T(A* __restrict acc, const T* __restrict r0, const T* __restrict r1,
                                     const T* __restrict r2, const T* __restrict r3, size_t n)
{
    for (size_t i = 0; i < n; ++i)
        acc[i] += (A(r0[i]) + A(r1[i])) + (A(r2[i]) + A(r3[i]));
}

// The same row written into every row of a picture: streaming stores skip
// reading each destination line into the cache before overwriting it whole.
inline void writeRow(uchar* dst, const void* src, size_t bytes)
{
#if defined(__SSE2__)
    const auto* from = static_cast<const uchar*>(src);
    const size_t head = std::min(bytes, size_t((16 - (quintptr(dst) & 15)) & 15));
    std::memcpy(dst, from, head);
    size_t i = head;
    for (; i + 16 <= bytes; i += 16)
        _mm_stream_si128(reinterpret_cast<__m128i*>(dst + i),
                         _mm_loadu_si128(reinterpret_cast<const __m128i*>(from + i)));
    std::memcpy(dst + i, from + i, bytes - i);
#else
    std::memcpy(dst, src, bytes);
#endif
}

inline void finishWrites()
{
#if defined(__SSE2__)
    _mm_sfence();
#endif
}

template <class T, class A>
QLAR_VECTOR_CLONES void meanRow_T(T* __restrict mean, const A* __restrict acc, size_t n, quint64 count)
{
    const A half = A(count >> 1), d = A(count);
    for (size_t i = 0; i < n; ++i)
        mean[i] = T((acc[i] + half) / d);
}

} // namespace avgk

// Every row replaced by its mean, each channel apart (alpha of an 8- or
// 16-bit colour picture kept).
template <class T, class A>
void LineAverageRows_T(SxPicBuf& pic)
{
    if (!pic.data || pic.height == 0)
        return;
    const quint32 ch = pic.channels;
    const quint64 n = pic.width ? pic.width : 1;
    const quint32 averaged = avgk::hasMarkedAlpha8or16(pic) ? 3 : ch;
    std::vector<A> sums(averaged);
    std::vector<T> means(averaged);
    for (quint32 y = 0; y < pic.height; ++y) {
        T* row = pic.row<T>(y);
        if (ch == 1) {
            const T m = avgk::roundedMean<T, A>(avgk::sumRow_T<T, A>(row, pic.width), n);
            std::fill(row, row + pic.width, m);
            continue;
        }
        std::fill(sums.begin(), sums.end(), A(0));
        for (quint32 x = 0; x < pic.width; ++x)
            for (quint32 c = 0; c < averaged; ++c)
                sums[c] += A(row[size_t(x) * ch + c]);
        for (quint32 c = 0; c < averaged; ++c)
            means[c] = avgk::roundedMean<T, A>(sums[c], n);
        for (quint32 x = 0; x < pic.width; ++x)
            for (quint32 c = 0; c < averaged; ++c)
                row[size_t(x) * ch + c] = means[c];
    }
}

// Every column replaced by its mean: one pass sums the rows into a row of
// accumulators, one pass writes the means into every row.
template <class T, class A>
void LineAverageColumns_T(SxPicBuf& pic)
{
    if (!pic.data || pic.height == 0 || pic.width == 0 || pic.channels == 0)
        return;
    const size_t n = size_t(pic.width) * pic.channels;
    // Kept per thread and reused, so that a running chain does not allocate
    // a row of accumulators for every frame.
    thread_local std::vector<A> acc;
    thread_local std::vector<T> mean;
    acc.assign(n, A(0));
    mean.resize(n);
    quint32 y = 0;
    for (; y + 4 <= pic.height; y += 4)
        avgk::addFourRows_T<T, A>(acc.data(), pic.row<T>(y), pic.row<T>(y + 1), pic.row<T>(y + 2),
                                  pic.row<T>(y + 3), n);
    for (; y < pic.height; ++y)
        avgk::addRow_T<T, A>(acc.data(), pic.row<T>(y), n);
    avgk::meanRow_T<T, A>(mean.data(), acc.data(), n, pic.height);
    for (quint32 y = 0; y < pic.height; ++y)
        avgk::writeRow(pic.rowPtr(y), mean.data(), n * sizeof(T));
    avgk::finishWrites();
}

// mode 0 none, 1 rows, 2 columns. 1 when done or nothing asked for (mode 0 or
// an unknown value), 0 for a sample type without kernels (picture unchanged).
int LineAveraging(SxPicBuf& pic, int mode);
