#include "CxPicBufMeas.h"
#include "CxImageData.h"
#include "CxImageMetadata.h"

#include <KitDispatch.h>
#include <KitRows.h>

#include <QtCore/QRect>

#include <algorithm>
#include <array>
#include <cmath>
#include <climits>
#include <cstring>
#include <limits>
#include <type_traits>
#include <vector>

namespace {

using Flags = QFlags<CxHistoData::ExHistoDataFlag>;

// Which record each sample goes to.
struct SxLayout
{
    int records = 0;
    int channels = 1;                // samples per pixel
    std::vector<int> recOfSample;    // per stored sample, -1 = not measured
    bool perCell = false;            // one-channel mosaic split by cells
    std::vector<int> cellOfCol;      // perCell: pattern column, -1 outside the zone (index x - roi.left)
    std::vector<int> cellOfRow;      // perCell: pattern row * pattern width, -1 outside (index y - roi.top)
};

struct SxJob
{
    const uchar* data = nullptr;
    qint64 pitch = 0;
    QRect roi;
    const SxLayout* layout = nullptr;
    qint64 samples = 0;              // samples in the ROI (all stored channels)

    template <class T> const T* row(int y) const
    {
        return reinterpret_cast<const T*>(data + qint64(y) * pitch) + qint64(roi.left()) * layout->channels;
    }
};

// Calls fn(rec, sample) for every measured sample of row y.
template <class T, class Fn>
inline void forEachSample(const SxJob& job, int y, Fn&& fn)
{
    const SxLayout& L = *job.layout;
    const T* row = job.row<T>(y);
    const int w = job.roi.width();
    if (L.perCell) {
        const int rb = L.cellOfRow[size_t(y - job.roi.top())];
        if (rb < 0)
            return;
        const int* col = L.cellOfCol.data();
        for (int x = 0; x < w; ++x)
            if (col[x] >= 0)
                fn(rb + col[x], row[x]);
    } else if (L.channels == 1) {
        for (int x = 0; x < w; ++x)
            fn(0, row[x]);
    } else {
        const int ch = L.channels;
        const int* rec = L.recOfSample.data();
        for (int x = 0; x < w; ++x)
            for (int s = 0; s < ch; ++s)
                if (rec[s] >= 0)
                    fn(rec[s], row[qint64(x) * ch + s]);
    }
}

// The rectangle's rows on the kit's row scheduler, each thread counting into
// tallies of its own: start(slot) before a thread's first row, row(slot, y)
// for each row. Answers which slots started, for the merge that follows on
// the calling thread.
template <class T, class StartFn, class RowFn>
std::array<bool, pixelkit::MaxSlots> passRows(const SxJob& job, StartFn&& start, RowFn&& row)
{
    std::array<bool, pixelkit::MaxSlots> started{};
    const int y0 = job.roi.top();
    const int rows = job.roi.height();
    if (rows <= 0)
        return started;
    const quint64 bytesPerRow = quint64(job.samples) * sizeof(T) / quint64(rows);
    pixelkit::forEachRowPiece(rows, bytesPerRow, [&](int first, int last, int slot) {
        if (!started[size_t(slot)]) {
            started[size_t(slot)] = true;
            start(slot);
        }
        for (int y = first; y < last; ++y)
            row(slot, y0 + y);
    });
    return started;
}

// Per-thread tables of one pass, kept on the calling thread from frame to
// frame so that a live stream does not allocate them anew each time.
template <class C>
C* slotTables(size_t tabSize)
{
    static thread_local std::vector<C> mem;
    const size_t want = tabSize * size_t(pixelkit::threadSlots());
    if (mem.size() < want)
        mem.resize(want);
    return mem.data();
}

// Per-thread accumulators of count records each, with a cache line between
// threads so that they never write to the same one.
template <class A>
class PerSlot
{
public:
    explicit PerSlot(size_t count)
        : m_stride(count + (64 + sizeof(A) - 1) / sizeof(A)), m_mem(m_stride * size_t(pixelkit::threadSlots()))
    {
    }
    A* operator[](size_t slot) { return m_mem.data() + slot * m_stride; }

private:
    size_t m_stride;
    std::vector<A> m_mem;
};

// ---------------------------------------------------------------------------
// 8- and 16-bit samples: every possible value gets its own counter, so the
// statistics come out exact and the bins are folded from the full table.

template <class T> struct SxSmallKey
{
    using U = std::make_unsigned_t<T>;
    static constexpr size_t K = size_t(1) << (8 * sizeof(T));
    // Signed values are offset so that key order is value order.
    static constexpr U flip = std::is_signed_v<T> ? U(U(1) << (8 * sizeof(T) - 1)) : U(0);
    static inline size_t key(T v) { return size_t(U(v) ^ flip); }
    static inline qint64 value(size_t k) { return std::is_signed_v<T> ? qint64(k) - qint64(flip) : qint64(k); }
};

template <class T>
std::vector<quint64>& sharedFullTable()
{
    static thread_local std::vector<quint64> t;
    return t;
}

template <class T, class C>
void countSmall_T(const SxJob& job, std::vector<quint64>& full)
{
    using Key = SxSmallKey<T>;
    constexpr size_t K = Key::K;
    const SxLayout& L = *job.layout;
    // Mono 8-bit: four interleaved tables so that runs of equal samples do
    // not serialise on one counter.
    const bool quad = sizeof(T) == 1 && !L.perCell && L.channels == 1;
    const size_t tabSize = quad ? 4 * K : size_t(L.records) * K;

    C* const tables = slotTables<C>(tabSize);
    const auto started = passRows<T>(
        job, [&](int slot) { std::fill_n(tables + size_t(slot) * tabSize, tabSize, C(0)); },
        [&](int slot, int y) {
            C* tab = tables + size_t(slot) * tabSize;
            if (quad) {
                const T* row = job.row<T>(y);
                const int w = job.roi.width();
                int x = 0;
                // Eight samples per load: the counter stores cannot alias a
                // register, so the loads are not repeated after each store.
                for (; x + 8 <= w; x += 8) {
                    quint64 v;
                    std::memcpy(&v, row + x, 8);
                    ++tab[Key::key(T(v))];
                    ++tab[K + Key::key(T(v >> 8))];
                    ++tab[2 * K + Key::key(T(v >> 16))];
                    ++tab[3 * K + Key::key(T(v >> 24))];
                    ++tab[Key::key(T(v >> 32))];
                    ++tab[K + Key::key(T(v >> 40))];
                    ++tab[2 * K + Key::key(T(v >> 48))];
                    ++tab[3 * K + Key::key(T(v >> 56))];
                }
                for (; x < w; ++x)
                    ++tab[Key::key(row[x])];
            } else {
                forEachSample<T>(job, y, [=](int rec, T v) { ++tab[size_t(rec) * K + Key::key(v)]; });
            }
        });
    for (size_t slot = 0; slot < started.size(); ++slot) {
        if (!started[slot])
            continue;
        const C* tab = tables + slot * tabSize;
        if (quad) {
            for (size_t k = 0; k < K; ++k)
                full[k] += quint64(tab[k]) + tab[K + k] + tab[2 * K + k] + tab[3 * K + k];
        } else {
            for (size_t i = 0; i < tabSize; ++i)
                full[i] += tab[i];
        }
    }
}

template <class T>
void measureSmall_T(CxHistoData& histo, const SxJob& job, Flags flags, int bins, int shift)
{
    using Key = SxSmallKey<T>;
    constexpr size_t K = Key::K;
    const int R = job.layout->records;
    std::vector<quint64>& full = sharedFullTable<T>();
    full.assign(size_t(R) * K, 0);
    // A thread's counters stay 32-bit unless one record could pass 2^32.
    if (job.samples < qint64(std::numeric_limits<quint32>::max()))
        countSmall_T<T, quint32>(job, full);
    else
        countSmall_T<T, quint64>(job, full);

    histo.reset(R, (flags & CxHistoData::HDF_Bins) ? bins : 0, shift, flags);
    for (int r = 0; r < R; ++r) {
        const quint64* t = full.data() + size_t(r) * K;
        quint64 n = 0;
        __int128 sum = 0;
        size_t first = K, last = 0;
        for (size_t k = 0; k < K; ++k) {
            if (!t[k])
                continue;
            n += t[k];
            sum += __int128(t[k]) * Key::value(k);
            if (first == K)
                first = k;
            last = k;
        }
        double* st = histo.statisticsForWrite(r);
        st[CxHistoData::StatCount] = double(n);
        if (n) {
            const long double mean = (long double)sum / (long double)n;
            if (flags & CxHistoData::HDF_MinMax) {
                st[CxHistoData::StatMin] = double(Key::value(first));
                st[CxHistoData::StatMax] = double(Key::value(last));
            }
            if (flags & CxHistoData::HDF_Mean)
                st[CxHistoData::StatMean] = double(mean);
            if (flags & CxHistoData::HDF_StdDev) {
                long double ss = 0;
                for (size_t k = first; k <= last; ++k)
                    if (t[k]) {
                        const long double d = (long double)Key::value(k) - mean;
                        ss += d * d * (long double)t[k];
                    }
                st[CxHistoData::StatStdDev] = double(std::sqrt(ss / (long double)n));
            }
        }
        if (quint64* b = histo.binsForWrite(r)) {
            for (size_t k = first; n && k <= last; ++k) {
                if (!t[k])
                    continue;
                const qint64 v = Key::value(k);
                const qint64 bin = v < 0 ? 0 : std::min<qint64>(v >> shift, bins - 1);
                b[bin] += t[k];
            }
        }
    }
}

// ---------------------------------------------------------------------------
// 32-bit integers: binned with a shift, statistics accumulated per sample.

struct SxIntAcc
{
    quint64 n = 0;
    qint64 min = std::numeric_limits<qint64>::max();
    qint64 max = std::numeric_limits<qint64>::min();
    __int128 sum = 0;
    unsigned __int128 sumSq = 0;

    void merge(const SxIntAcc& o)
    {
        n += o.n;
        min = std::min(min, o.min);
        max = std::max(max, o.max);
        sum += o.sum;
        sumSq += o.sumSq;
    }
};

template <class T>
void measureWide_T(CxHistoData& histo, const SxJob& job, Flags flags, int bins, int shift)
{
    const int R = job.layout->records;
    const bool wantBins = flags & CxHistoData::HDF_Bins;
    histo.reset(R, wantBins ? bins : 0, shift, flags);
    std::vector<SxIntAcc> acc(static_cast<size_t>(R));
    const size_t tabSize = wantBins ? size_t(R) * size_t(bins) : 0;
    quint64* const tables = slotTables<quint64>(tabSize);
    PerSlot<SxIntAcc> mine{size_t(R)};
    const auto started = passRows<T>(
        job, [&](int slot) { std::fill_n(tables + size_t(slot) * tabSize, tabSize, 0); },
        [&](int slot, int y) {
            quint64* tab = tabSize ? tables + size_t(slot) * tabSize : nullptr;
            SxIntAcc* own = mine[size_t(slot)];
            forEachSample<T>(job, y, [&](int rec, T v) {
                SxIntAcc& a = own[rec];
                const qint64 s = qint64(v);
                ++a.n;
                a.min = std::min(a.min, s);
                a.max = std::max(a.max, s);
                a.sum += s;
                a.sumSq += (unsigned __int128)(__int128(s) * s);
                if (tab) {
                    const qint64 b = s < 0 ? 0 : std::min<qint64>(s >> shift, bins - 1);
                    ++tab[size_t(rec) * size_t(bins) + size_t(b)];
                }
            });
        });
    for (size_t slot = 0; slot < started.size(); ++slot) {
        if (!started[slot])
            continue;
        for (int r = 0; r < R; ++r)
            acc[size_t(r)].merge(mine[slot][r]);
        const quint64* tab = tables + slot * tabSize;
        for (int r = 0; tabSize && r < R; ++r) {
            quint64* b = histo.binsForWrite(r);
            for (int i = 0; i < bins; ++i)
                b[i] += tab[size_t(r) * size_t(bins) + size_t(i)];
        }
    }

    for (int r = 0; r < R; ++r) {
        const SxIntAcc& a = acc[size_t(r)];
        double* st = histo.statisticsForWrite(r);
        st[CxHistoData::StatCount] = double(a.n);
        if (!a.n)
            continue;
        const long double mean = (long double)a.sum / (long double)a.n;
        if (flags & CxHistoData::HDF_MinMax) {
            st[CxHistoData::StatMin] = double(a.min);
            st[CxHistoData::StatMax] = double(a.max);
        }
        if (flags & CxHistoData::HDF_Mean)
            st[CxHistoData::StatMean] = double(mean);
        if (flags & CxHistoData::HDF_StdDev) {
            const long double var = (long double)a.sumSq / (long double)a.n - mean * mean;
            st[CxHistoData::StatStdDev] = double(std::sqrt(std::max<long double>(var, 0)));
        }
    }
}

// ---------------------------------------------------------------------------
// Float: a first pass for range and mean, a second for bins and deviation.

struct SxFloatAcc
{
    quint64 n = 0;
    double min = std::numeric_limits<double>::infinity();
    double max = -std::numeric_limits<double>::infinity();
    double sum = 0;
    double ss = 0;
};

void measureFloat(CxHistoData& histo, const SxJob& job, Flags flags)
{
    const int R = job.layout->records;
    const bool wantBins = flags & CxHistoData::HDF_Bins;
    constexpr int B = CxHistoData::FloatBinCount;
    histo.reset(R, wantBins ? B : 0, 0, flags);
    std::vector<SxFloatAcc> acc(static_cast<size_t>(R));
    PerSlot<SxFloatAcc> mine{size_t(R)};
    const auto counted = passRows<float>(
        job, [](int) {},
        [&](int slot, int y) {
            SxFloatAcc* own = mine[size_t(slot)];
            forEachSample<float>(job, y, [&](int rec, float v) {
                if (!std::isfinite(v))
                    return;
                SxFloatAcc& a = own[rec];
                ++a.n;
                a.min = std::min(a.min, double(v));
                a.max = std::max(a.max, double(v));
                a.sum += v;
            });
        });
    for (size_t slot = 0; slot < counted.size(); ++slot) {
        for (int r = 0; counted[slot] && r < R; ++r) {
            SxFloatAcc& a = acc[size_t(r)];
            const SxFloatAcc& m = mine[slot][r];
            a.n += m.n;
            a.min = std::min(a.min, m.min);
            a.max = std::max(a.max, m.max);
            a.sum += m.sum;
        }
    }

    double low = std::numeric_limits<double>::infinity(), high = -low;
    std::vector<double> mean(static_cast<size_t>(R), 0.0);
    for (int r = 0; r < R; ++r) {
        const SxFloatAcc& a = acc[size_t(r)];
        if (a.n) {
            low = std::min(low, a.min);
            high = std::max(high, a.max);
            mean[size_t(r)] = a.sum / double(a.n);
        }
    }
    if (!(low <= high))
        low = high = 0.0;
    const double width = (high - low) / B;
    const double inv = width > 0 ? 1.0 / width : 0.0;
    histo.setFloatScale(low, width);

    if (wantBins || (flags & CxHistoData::HDF_StdDev)) {
        const size_t tabSize = wantBins ? size_t(R) * B : 0;
        quint64* const tables = slotTables<quint64>(tabSize);
        PerSlot<double> ss{size_t(R)};
        const auto started = passRows<float>(
            job, [&](int slot) { std::fill_n(tables + size_t(slot) * tabSize, tabSize, 0); },
            [&](int slot, int y) {
                quint64* tab = tabSize ? tables + size_t(slot) * tabSize : nullptr;
                double* own = ss[size_t(slot)];
                forEachSample<float>(job, y, [&](int rec, float v) {
                    if (!std::isfinite(v))
                        return;
                    const double d = double(v) - mean[size_t(rec)];
                    own[rec] += d * d;
                    if (tab) {
                        const int b = std::min(int((double(v) - low) * inv), B - 1);
                        ++tab[size_t(rec) * B + size_t(std::max(b, 0))];
                    }
                });
            });
        for (size_t slot = 0; slot < started.size(); ++slot) {
            if (!started[slot])
                continue;
            for (int r = 0; r < R; ++r)
                acc[size_t(r)].ss += ss[slot][r];
            const quint64* tab = tables + slot * tabSize;
            for (int r = 0; tabSize && r < R; ++r) {
                quint64* b = histo.binsForWrite(r);
                for (int i = 0; i < B; ++i)
                    b[i] += tab[size_t(r) * B + size_t(i)];
            }
        }
    }

    for (int r = 0; r < R; ++r) {
        const SxFloatAcc& a = acc[size_t(r)];
        double* st = histo.statisticsForWrite(r);
        st[CxHistoData::StatCount] = double(a.n);
        if (!a.n)
            continue;
        if (flags & CxHistoData::HDF_MinMax) {
            st[CxHistoData::StatMin] = a.min;
            st[CxHistoData::StatMax] = a.max;
        }
        if (flags & CxHistoData::HDF_Mean)
            st[CxHistoData::StatMean] = mean[size_t(r)];
        if (flags & CxHistoData::HDF_StdDev)
            st[CxHistoData::StatStdDev] = std::sqrt(a.ss / double(a.n));
    }
}

// ---------------------------------------------------------------------------

bool isColourLayout(const SxPicBufInfo& f)
{
    if (f.channels == 3)
        return true;
    return f.channels == 4 && f.storageFormat == DSF_PACKED && f.isColor && f.bytesPerSample() <= 2;
}

// Cell split of a one-channel raw mosaic; false when the picture is not one
// (or its description is unusable), in which case it is measured whole.
bool cellLayout(const SxPicBuf& pic, const CxImageMetadata* meta, QRect& roi, SxLayout& L)
{
    if (pic.channels != 1 || pic.colorFilterArray == CFA_NONE || pic.storageFormat == DSF_NOT_RAW)
        return false;
    int pw = 2, ph = 2, cw = 1, chh = 1;
    QRect zone(0, 0, int(pic.width), int(pic.height));
    if (pic.colorFilterArray == CFA_HSI_MOSAIC) {
        if (!meta || !meta->hsiCameraParams().isValid())
            return false;
        const CxHsiCameraParams::CxFilterZone& z = *meta->hsiCameraParams().filterZone(0);
        pw = z.patternWidth;
        ph = z.patternHeight;
        cw = z.cellWidth;
        chh = z.cellHeight;
        zone = z.sensorRect(int(pic.width), int(pic.height));
    } else if (!isTwoByTwoMosaic(pic.colorFilterArray)) {
        return false;
    }
    L.perCell = true;
    L.records = pw * ph;
    L.cellOfCol.assign(size_t(roi.width()), -1);
    L.cellOfRow.assign(size_t(roi.height()), -1);
    for (int i = 0; i < roi.width(); ++i) {
        const int x = roi.left() + i;
        if (x >= zone.left() && x <= zone.right())
            L.cellOfCol[size_t(i)] = ((x - zone.left()) / cw) % pw;
    }
    for (int i = 0; i < roi.height(); ++i) {
        const int y = roi.top() + i;
        if (y >= zone.top() && y <= zone.bottom())
            L.cellOfRow[size_t(i)] = (((y - zone.top()) / chh) % ph) * pw;
    }
    return true;
}

} // namespace

bool CxPicBufMeas::measureHistogram(CxHistoData& histo, const CxImageData* image, const QRect& rect,
                                    QFlags<CxHistoData::ExHistoDataFlag> flags)
{
    if (!image || !image->picBuf()) {
        histo.clear();
        return false;
    }
    return measureHistogram(histo, *image->picBuf(), rect, flags, image->metadata());
}

bool CxPicBufMeas::measureHistogram(CxHistoData& histo, const SxPicBuf& pic, const QRect& rect,
                                    QFlags<CxHistoData::ExHistoDataFlag> flags, const CxImageMetadata* metadata)
{
    histo.clear();
    if (!pic.data || !pic.isValidFormat())
        return false;
    const ExImageDataType t = pic.dataType;
    const bool supported = (t >= IDT_INT8 && t <= IDT_UINT32) || t == IDT_FLOAT;
    if (!supported)
        return false;
    const unsigned bps = pic.bytesPerSample();
    const quint64 pitch = pic.effectiveLinePitch();
    if (pitch % bps != 0 || quintptr(pic.data) % bps != 0)
        return false;
    if (pitch > quint64(std::numeric_limits<qint64>::max() / std::max<quint32>(pic.height, 1)))
        return false;

    const QRect whole(0, 0, int(std::min<quint32>(pic.width, INT_MAX)), int(std::min<quint32>(pic.height, INT_MAX)));
    QRect roi = whole;
    if (rect.isValid()) {
        roi = rect.intersected(whole);
        if (roi.isEmpty())
            return false;
    }

    SxLayout L;
    L.channels = int(pic.channels);
    if (!((flags & CxHistoData::HDF_PerMosaicCell) && cellLayout(pic, metadata, roi, L))) {
        L.perCell = false;
        if (isColourLayout(pic)) {
            L.records = 3;
            L.recOfSample = {2, 1, 0};
            L.recOfSample.resize(size_t(L.channels), -1);
        } else {
            L.records = L.channels;
            L.recOfSample.resize(size_t(L.channels));
            for (int s = 0; s < L.channels; ++s)
                L.recOfSample[size_t(s)] = s;
        }
    }

    SxJob job;
    job.data = pic.data;
    job.pitch = qint64(pitch);
    job.roi = roi;
    job.layout = &L;
    job.samples = qint64(roi.width()) * roi.height() * L.channels;

    int bits = int(pic.bitsPerSample);
    const int typeBits = int(bps) * 8;
    if (bits <= 0 || bits > typeBits)
        bits = typeBits;
    const int bins = 1 << std::min(bits, 16);
    const int shift = std::max(0, bits - 16);

    using Types = pixelkit::Only<qint8, quint8, qint16, quint16, qint32, quint32, float>;
    return pixelkit::withSampleTypeIn<Types>(t, [&](auto tag) {
        using T = typename decltype(tag)::type;
        if constexpr (std::is_floating_point_v<T>)
            measureFloat(histo, job, flags);
        else if constexpr (sizeof(T) <= 2)
            measureSmall_T<T>(histo, job, flags, bins, shift);
        else
            measureWide_T<T>(histo, job, flags, bins, shift);
        return true;
    });
}
