// Transforms on FFTW single precision: CxFFT::Alloc1D/Calc1D/Free1D and
// Alloc2D/Calc2D/Free2D. The conventions are in CxFFT.h.
//
// Why the 2D transform is built from 1D plans rather than one 2D plan:
// - The outputs are two separate float pictures. FFTW's vector kernels work
//   on interleaved complex arrays only, so a plan that writes split arrays
//   runs at scalar speed; writing interleaved and splitting afterwards costs a
//   full extra pass over the spectrum.
// - Transforming the columns first leaves a half spectrum of h/2+1 rows whose
//   row transforms yield complete output rows: each goes straight into its
//   centred place, and its conjugate mirror into the mirrored row, in the same
//   pass and in row order. Centring is thus only a matter of where rows and
//   columns are written; no sample is modulated.
// - Measuring short 1D plans takes a fraction of a second where a whole 2D
//   plan of camera size takes seconds.
// The column pass reads the source in strips of ColumnBlock samples, which is
// where the sample type is converted; it prefetches rows ahead because the
// strips are a full line pitch apart. Both passes write with streaming stores:
// nothing they write is read back soon, and skipping the read for ownership of
// every written line saves about a fifth of the run time. The exception is a
// half spectrum small enough to stay in the last-level cache until the row
// pass reads it. The half spectrum asks for huge pages, since the column pass
// touches a new page on every row.
#include "CxFFT.h"
#include "CxAtomicFile.h"

#include <KitCpu.h>
#include <KitDispatch.h>
#include <KitPicture.h>
#include <KitRows.h>

#include <fftw3.h>
#include <sys/mman.h>
#if defined(__SSE2__)
#include <immintrin.h>
#endif

#include <QtCore/QByteArray>
#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QLockFile>
#include <QtCore/QStandardPaths>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <new>
#include <type_traits>

namespace {

constexpr quint32 Magic1D = 0x31544646u;
constexpr quint32 Magic2D = 0x32544646u;
constexpr double PlanTimeLimitSeconds = 0.5;
// Columns transformed together: their strip of one row is a cache line of
// 32-bit samples, and a block's scratch stays well inside a core's L2.
constexpr int ColumnBlock = 16;
constexpr int PrefetchRows = 32;
// Keeps plan sizes and strides inside FFTW's int arithmetic.
constexpr quint32 MaxSide = 1u << 26;
constexpr size_t CacheLine = 64;
constexpr size_t HugePage = size_t(2) << 20;
// Up to this size the half spectrum is stored through the cache, which keeps
// much of it there for the row pass; larger ones would only push other data
// out, and are streamed past it.
constexpr size_t CachedSpectrumBytes = size_t(16) << 20;

size_t roundUp(size_t v, size_t a) { return (v + a - 1) / a * a; }

// Work buffers: cache-line aligned (FFTW's vector kernels need 16 or 32
// bytes), large ones on huge-page boundaries. Freed with std::free.
void* allocWork(size_t bytes)
{
    if (bytes >= 2 * HugePage) {
        void* p = std::aligned_alloc(HugePage, roundUp(bytes, HugePage));
#if defined(MADV_HUGEPAGE)
        if (p)
            madvise(p, roundUp(bytes, HugePage), MADV_HUGEPAGE);
#endif
        return p;
    }
    return std::aligned_alloc(CacheLine, roundUp(std::max<size_t>(bytes, 1), CacheLine));
}

void fence()
{
#if defined(__SSE2__)
    _mm_sfence();  // streaming stores are weakly ordered
#endif
}

// ---------------------------------------------------------------- planning

std::mutex& plannerMutex()
{
    static std::mutex m;
    return m;
}

// Guarded by plannerMutex: the wisdom file's text as this process last read
// or wrote it.
QByteArray g_wisdomSeen;

void appendChar(char c, void* data) { static_cast<QByteArray*>(data)->append(c); }

QByteArray readWisdomFile(const QString& path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

// Holds the planner for a group of plans. Measured plans differ from run to
// run, and so do their last bits of rounding; a spectrum recorded by one
// process must come out the same when another process on this machine
// replays it. So the whole group (read the machine's wisdom, plan, write the
// wisdom back) runs under a lock on the wisdom file: a size that any process
// has measured before is planned from its wisdom, never measured again.
// A lock that cannot be had within LockWaitMs (a planner that hangs) only
// costs that sharing; the plans are made all the same.
class PlannerSession
{
public:
    static constexpr int LockWaitMs = 10000;

    PlannerSession() : m_lock(plannerMutex()), m_path(CxFFT::wisdomFilePath())
    {
        if (!m_path.isEmpty() && QDir().mkpath(QFileInfo(m_path).absolutePath())) {
            m_fileLock.reset(new QLockFile(m_path + QStringLiteral(".lock")));
            if (!m_fileLock->tryLock(LockWaitMs))
                m_fileLock.reset();
        }
        // Wisdom carries a signature of the planner's solvers, and the
        // threads' solvers join them at fftwf_init_threads(): wisdom written
        // after it is refused as a whole before it. So the threads are
        // registered before any import, in every process alike.
        // The planner's thread count is process-wide, and anything else in the
        // process may have raised it: plans run inside the kit's row pieces
        // must stay single-threaded, or every piece would wake FFTW's workers
        // onto cores the other pieces already use.
        if (fftwf_init_threads()) {
            m_threads = fftwf_planner_nthreads();
            fftwf_plan_with_nthreads(1);
        }
        adoptFile();
        fftwf_set_timelimit(PlanTimeLimitSeconds);
    }
    ~PlannerSession()
    {
        if (m_threads > 0)
            fftwf_plan_with_nthreads(m_threads);
        fftwf_set_timelimit(FFTW_NO_TIMELIMIT);
        if (m_planned)
            saveWisdom();
    }
    PlannerSession(const PlannerSession&) = delete;
    PlannerSession& operator=(const PlannerSession&) = delete;

    template <class Make>
    fftwf_plan plan(Make make)
    {
        fftwf_plan p = make(unsigned(FFTW_MEASURE));
        m_planned = m_planned || p;
        return p;
    }

private:
    // Importing replaces this process's entries for the same sizes, which is
    // what makes the next plan of a size agree with the file.
    void adoptFile()
    {
        if (m_path.isEmpty())
            return;
        const QByteArray text = readWisdomFile(m_path);
        if (!text.isEmpty() && text != g_wisdomSeen && fftwf_import_wisdom_from_string(text.constData()))
            g_wisdomSeen = text;
    }

    void saveWisdom()
    {
        if (m_path.isEmpty())
            return;
        // Unlocked, another process may have written since we read.
        if (!m_fileLock)
            adoptFile();
        QByteArray text;
        fftwf_export_wisdom(appendChar, &text);
        if (text.isEmpty() || text == g_wisdomSeen)
            return;
        if (CxAtomicFile::write(m_path, text, nullptr))
            g_wisdomSeen = text;
    }

    std::lock_guard<std::mutex> m_lock;
    const QString m_path;
    std::unique_ptr<QLockFile> m_fileLock;  // released after the wisdom is written
    bool m_planned = false;
    int m_threads = 0;  // the planner's thread count before the session
};

void destroyPlans(std::initializer_list<fftwf_plan> plans)
{
    std::lock_guard<std::mutex> lock(plannerMutex());
    for (fftwf_plan p : plans)
        if (p)
            fftwf_destroy_plan(p);
}

// ---------------------------------------------------------------- handles

struct Plan1D
{
    quint32 magic = Magic1D;
    int n = 0;
    float* in = nullptr;            // h2
    fftwf_complex* half = nullptr;  // h3: n/2 + 1 bins
    fftwf_plan plan = nullptr;
};

struct Plan2D
{
    quint32 magic = Magic2D;
    int w = 0;
    int h = 0;
    int halfRows = 0;       // h/2 + 1
    int block = 0;          // columns per block of the column pass
    int threads = 1;
    bool cachedSpectrum = false;  // small enough to wait in the cache for the row pass
    size_t rowStride = 0;   // complex values from one half-spectrum row to the next
    size_t slotBytes = 0;   // scratch per thread
    size_t colOutOffset = 0;
    size_t rowOutOffset = 0;
    fftwf_complex* spectrum = nullptr;  // h2: halfRows x rowStride
    uchar* scratch = nullptr;           // h3: threads x slotBytes
    fftwf_plan columns = nullptr;       // real to complex, length h, `block` columns
    fftwf_plan rows = nullptr;          // complex, length w, one row

    float* colIn(int t) const { return reinterpret_cast<float*>(scratch + size_t(t) * slotBytes); }
    fftwf_complex* colOut(int t) const
    {
        return reinterpret_cast<fftwf_complex*>(scratch + size_t(t) * slotBytes + colOutOffset);
    }
    fftwf_complex* rowOut(int t) const
    {
        return reinterpret_cast<fftwf_complex*>(scratch + size_t(t) * slotBytes + rowOutOffset);
    }
};

// Handles of either kind end here; h1 is recognised by its tag, so a mix-up
// of Free1D and Free2D still releases everything.
void release(void* h1, void* h2, void* h3)
{
    if (h1) {
        const quint32 magic = *static_cast<const quint32*>(h1);
        if (magic == Magic1D) {
            auto* c = static_cast<Plan1D*>(h1);
            destroyPlans({ c->plan });
            c->magic = 0;
            delete c;
        } else if (magic == Magic2D) {
            auto* c = static_cast<Plan2D*>(h1);
            destroyPlans({ c->columns, c->rows });
            c->magic = 0;
            delete c;
        }
    }
    std::free(h2);
    std::free(h3);
}

// ---------------------------------------------------------------- kernels

// The n/2 + 1 bins of a real signal's transform into a centred full spectrum.
void placeHalfSpectrum(const fftwf_complex* half, int n, float* re, float* im)
{
    const int c = n / 2;
    for (int k = 0; k <= n / 2; ++k) {
        const int i = k + c < n ? k + c : k + c - n;
        re[i] = half[k][0];
        im[i] = half[k][1];
    }
    for (int k = 1; k <= n / 2; ++k) {
        if (2 * k == n)
            continue;
        re[c - k] = half[k][0];
        im[c - k] = -half[k][1];
    }
}

// re[i], im[i] = src[i] for i in [0, n), or conj(src[-i]) when Mirrored.
template <bool Mirrored>
void putBins(const fftwf_complex* src, float* re, float* im, int n)
{
    const float sign = Mirrored ? -1.f : 1.f;
    int i = 0;
#if defined(__SSE2__)
    if (((quintptr(re) ^ quintptr(im)) & 15) == 0) {
        for (; i < n && (quintptr(re + i) & 15); ++i) {
            re[i] = src[Mirrored ? -i : i][0];
            im[i] = sign * src[Mirrored ? -i : i][1];
        }
        for (; i + 4 <= n; i += 4) {
            __m128 r, m;
            if (Mirrored) {
                const float* p = src[-i - 3];
                const __m128 a = _mm_loadu_ps(p), b = _mm_loadu_ps(p + 4);
                r = _mm_shuffle_ps(b, a, _MM_SHUFFLE(0, 2, 0, 2));
                m = _mm_xor_ps(_mm_set1_ps(-0.f), _mm_shuffle_ps(b, a, _MM_SHUFFLE(1, 3, 1, 3)));
            } else {
                const float* p = src[i];
                const __m128 a = _mm_loadu_ps(p), b = _mm_loadu_ps(p + 4);
                r = _mm_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0));
                m = _mm_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1));
            }
            _mm_stream_ps(re + i, r);
            _mm_stream_ps(im + i, m);
        }
    }
#endif
    for (; i < n; ++i) {
        re[i] = src[Mirrored ? -i : i][0];
        im[i] = sign * src[Mirrored ? -i : i][1];
    }
}

// Bins 0..w-1 of one frequency row into its centred output row.
void placeRow(const fftwf_complex* t, int w, float* re, float* im)
{
    const int c = w / 2;
    putBins<false>(t, re + c, im + c, w - c);
    putBins<false>(t + (w - c), re, im, c);
}

// The same row as the conjugate mirror about the centre: out[x] = conj(t[(c - x) mod w]).
void placeMirrorRow(const fftwf_complex* t, int w, float* re, float* im)
{
    const int c = w / 2;
    putBins<true>(t + c, re, im, c + 1);
    putBins<true>(t + (w - 1), re + c + 1, im + c + 1, w - c - 1);
}

// Column k of the block (halfRows bins each, one column after the other)
// into element k of every half-spectrum row.
template <bool Stream>
void storeColumns(const fftwf_complex* block, int halfRows, int count, fftwf_complex* dst, size_t rowStride)
{
    for (int y = 0; y < halfRows; ++y) {
        fftwf_complex* d = dst + size_t(y) * rowStride;
        int k = 0;
#if defined(__SSE2__)
        if ((quintptr(d) & 15) == 0) {
            for (; k + 2 <= count; k += 2) {
                __m128 v = _mm_loadl_pi(_mm_setzero_ps(), reinterpret_cast<const __m64*>(block[size_t(k) * halfRows + y]));
                v = _mm_loadh_pi(v, reinterpret_cast<const __m64*>(block[size_t(k + 1) * halfRows + y]));
                if (Stream)
                    _mm_stream_ps(d[k], v);
                else
                    _mm_store_ps(d[k], v);
            }
        }
#endif
        for (; k < count; ++k) {
            d[k][0] = block[size_t(k) * halfRows + y][0];
            d[k][1] = block[size_t(k) * halfRows + y][1];
        }
    }
}

// Zeroes elements 0..count-1 of every half-spectrum row.
void storeZeroColumns(int halfRows, int count, fftwf_complex* dst, size_t rowStride)
{
    for (int y = 0; y < halfRows; ++y)
        std::memset(dst + size_t(y) * rowStride, 0, sizeof(fftwf_complex) * size_t(count));
}

// Columns k0..k0+count-1 of every row, as floats, one column after the other.
// Answers whether any of them is non-zero: the cut-outs of FFT 2D leave most
// of a picture zero, and a zero strip needs no transform.
template <class T>
bool gatherColumns_T(const uchar* data, quint64 pitch, int k0, int count, int h, float* out)
{
    using Bits = std::conditional_t<sizeof(T) == 1, quint8, std::conditional_t<sizeof(T) == 2, quint16, quint32>>;
    const uchar* base = data + quint64(k0) * sizeof(T);
    const size_t stripBytes = size_t(count) * sizeof(T);
    Bits any = 0;
    for (int y = 0; y < h; ++y) {
        const uchar* row = base + quint64(y) * pitch;
        if (y + PrefetchRows < h) {
            const uchar* ahead = row + quint64(PrefetchRows) * pitch;
            __builtin_prefetch(ahead);
            __builtin_prefetch(ahead + stripBytes - 1);
        }
        const T* s = reinterpret_cast<const T*>(row);
        for (int k = 0; k < count; ++k) {
            Bits b;
            std::memcpy(&b, s + k, sizeof(b));
            any |= b;
            out[size_t(k) * size_t(h) + size_t(y)] = float(s[k]);
        }
    }
    return any != 0;
}

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#define QLAR_FFT_AVX2 1

// The column pass's moves between rows and columns, transposed in registers:
// the scalar loops spend most of their time on one load or store per value.

__attribute__((target("avx2"))) inline void transpose8x8(__m256 r[8])
{
    const __m256 t0 = _mm256_unpacklo_ps(r[0], r[1]), t1 = _mm256_unpackhi_ps(r[0], r[1]);
    const __m256 t2 = _mm256_unpacklo_ps(r[2], r[3]), t3 = _mm256_unpackhi_ps(r[2], r[3]);
    const __m256 t4 = _mm256_unpacklo_ps(r[4], r[5]), t5 = _mm256_unpackhi_ps(r[4], r[5]);
    const __m256 t6 = _mm256_unpacklo_ps(r[6], r[7]), t7 = _mm256_unpackhi_ps(r[6], r[7]);
    const __m256 s0 = _mm256_shuffle_ps(t0, t2, 0x44), s1 = _mm256_shuffle_ps(t0, t2, 0xEE);
    const __m256 s2 = _mm256_shuffle_ps(t1, t3, 0x44), s3 = _mm256_shuffle_ps(t1, t3, 0xEE);
    const __m256 s4 = _mm256_shuffle_ps(t4, t6, 0x44), s5 = _mm256_shuffle_ps(t4, t6, 0xEE);
    const __m256 s6 = _mm256_shuffle_ps(t5, t7, 0x44), s7 = _mm256_shuffle_ps(t5, t7, 0xEE);
    r[0] = _mm256_permute2f128_ps(s0, s4, 0x20);
    r[1] = _mm256_permute2f128_ps(s1, s5, 0x20);
    r[2] = _mm256_permute2f128_ps(s2, s6, 0x20);
    r[3] = _mm256_permute2f128_ps(s3, s7, 0x20);
    r[4] = _mm256_permute2f128_ps(s0, s4, 0x31);
    r[5] = _mm256_permute2f128_ps(s1, s5, 0x31);
    r[6] = _mm256_permute2f128_ps(s2, s6, 0x31);
    r[7] = _mm256_permute2f128_ps(s3, s7, 0x31);
}

// Eight samples as 32-bit lanes: integers widened (exact, as float() of the
// sample is), floats as their bits.
template <class T>
__attribute__((target("avx2"))) inline __m256i loadLanes(const T* s)
{
    if constexpr (std::is_same_v<T, float>) {
        return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(s));
    } else if constexpr (sizeof(T) == 1) {
        const __m128i v = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(s));
        return std::is_signed_v<T> ? _mm256_cvtepi8_epi32(v) : _mm256_cvtepu8_epi32(v);
    } else {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s));
        return std::is_signed_v<T> ? _mm256_cvtepi16_epi32(v) : _mm256_cvtepu16_epi32(v);
    }
}

// gatherColumns_T of a full block, eight rows at a time.
template <class T>
__attribute__((target("avx2"))) bool gatherBlockAvx2_T(const uchar* data, quint64 pitch, int k0, int h, float* out)
{
    static_assert(ColumnBlock == 16, "two halves of eight columns");
    const uchar* base = data + quint64(k0) * sizeof(T);
    __m256i any = _mm256_setzero_si256();
    int y = 0;
    for (; y + 8 <= h; y += 8) {
        for (int i = 0; i < 8 && y + i + PrefetchRows < h; ++i) {
            const uchar* ahead = base + quint64(y + i + PrefetchRows) * pitch;
            __builtin_prefetch(ahead);
            __builtin_prefetch(ahead + ColumnBlock * sizeof(T) - 1);
        }
        for (int half = 0; half < 2; ++half) {
            __m256 r[8];
            for (int i = 0; i < 8; ++i) {
                const __m256i v = loadLanes(reinterpret_cast<const T*>(base + quint64(y + i) * pitch) + half * 8);
                any = _mm256_or_si256(any, v);
                r[i] = std::is_same_v<T, float> ? _mm256_castsi256_ps(v) : _mm256_cvtepi32_ps(v);
            }
            transpose8x8(r);
            for (int j = 0; j < 8; ++j)
                _mm256_storeu_ps(out + size_t(half * 8 + j) * size_t(h) + size_t(y), r[j]);
        }
    }
    bool nonZero = !_mm256_testz_si256(any, any);
    for (; y < h; ++y) {
        const T* s = reinterpret_cast<const T*>(base + quint64(y) * pitch);
        for (int k = 0; k < ColumnBlock; ++k) {
            nonZero = nonZero || s[k] != T(0) || std::signbit(float(s[k]));  // -0.f counts, as in the lanes
            out[size_t(k) * size_t(h) + size_t(y)] = float(s[k]);
        }
    }
    return nonZero;
}

// storeColumns of a full block, four rows of four bins at a time: a bin is
// moved as one 64-bit lane.
template <bool Stream>
__attribute__((target("avx2"))) void storeBlockAvx2(const fftwf_complex* block, int halfRows, fftwf_complex* dst,
                                                      size_t rowStride)
{
    const double* src = reinterpret_cast<const double*>(block);
    int y = 0;
    for (; y + 4 <= halfRows; y += 4) {
        for (int k = 0; k < ColumnBlock; k += 4) {
            const __m256d a = _mm256_loadu_pd(src + size_t(k) * halfRows + y);
            const __m256d b = _mm256_loadu_pd(src + size_t(k + 1) * halfRows + y);
            const __m256d c = _mm256_loadu_pd(src + size_t(k + 2) * halfRows + y);
            const __m256d d = _mm256_loadu_pd(src + size_t(k + 3) * halfRows + y);
            const __m256d ab0 = _mm256_unpacklo_pd(a, b), ab1 = _mm256_unpackhi_pd(a, b);
            const __m256d cd0 = _mm256_unpacklo_pd(c, d), cd1 = _mm256_unpackhi_pd(c, d);
            const __m256d rows[4] = {_mm256_permute2f128_pd(ab0, cd0, 0x20), _mm256_permute2f128_pd(ab1, cd1, 0x20),
                                     _mm256_permute2f128_pd(ab0, cd0, 0x31), _mm256_permute2f128_pd(ab1, cd1, 0x31)};
            for (int i = 0; i < 4; ++i) {
                double* o = reinterpret_cast<double*>(dst + size_t(y + i) * rowStride + k);
                if (Stream)
                    _mm256_stream_pd(o, rows[i]);
                else
                    _mm256_store_pd(o, rows[i]);
            }
        }
    }
    for (; y < halfRows; ++y)
        for (int k = 0; k < ColumnBlock; ++k) {
            dst[size_t(y) * rowStride + k][0] = block[size_t(k) * halfRows + y][0];
            dst[size_t(y) * rowStride + k][1] = block[size_t(k) * halfRows + y][1];
        }
}
#endif

using GatherFn = bool (*)(const uchar*, quint64, int, int, int, float*);

GatherFn gatherFor(ExImageDataType t)
{
    using Types = pixelkit::Only<qint8, quint8, qint16, quint16, qint32, quint32, float>;
    return pixelkit::withSampleTypeIn<Types>(t, [](auto tag) -> GatherFn {
        return gatherColumns_T<typename decltype(tag)::type>;
    });
}

// The vector gather of a full block, where there is one; null otherwise.
using BlockGatherFn = bool (*)(const uchar*, quint64, int, int, float*);

BlockGatherFn blockGatherFor(ExImageDataType t)
{
#if defined(QLAR_FFT_AVX2)
    if (pixelkit::cpuHas(pixelkit::CpuFeature::Avx2)) {
        using Types = pixelkit::Only<qint8, quint8, qint16, quint16, float>;
        return pixelkit::withSampleTypeIn<Types>(t, [](auto tag) -> BlockGatherFn {
            return gatherBlockAvx2_T<typename decltype(tag)::type>;
        });
    }
#endif
    (void)t;
    return nullptr;
}

// A one-channel picture of w x h whose rows can be read or written as
// samples of sampleBytes each, without leaving its memory.
bool usablePicture(const SxPicBuf& p, int w, int h, unsigned sampleBytes)
{
    if (!p.data || p.channels != 1 || p.width != quint32(w) || p.height != quint32(h))
        return false;
    if (p.bytesPerSample() != sampleBytes)
        return false;
    return pixelkit::rowsFit(p) && pixelkit::samplesAligned(p);
}

} // namespace

// ---------------------------------------------------------------- 1D

bool CxFFT::Alloc1D(int n, void*& h1, void*& h2, void*& h3)
{
    h1 = h2 = h3 = nullptr;
    if (n <= 0)
        return false;
    auto* c = new (std::nothrow) Plan1D;
    if (!c)
        return false;
    c->n = n;
    c->in = static_cast<float*>(allocWork(sizeof(float) * size_t(n)));
    c->half = static_cast<fftwf_complex*>(allocWork(sizeof(fftwf_complex) * (size_t(n) / 2 + 1)));
    if (c->in && c->half) {
        PlannerSession planner;
        c->plan = planner.plan([c](unsigned flags) {
            return fftwf_plan_dft_r2c_1d(c->n, c->in, c->half, flags);
        });
    }
    if (!c->plan) {
        release(c, c->in, c->half);
        return false;
    }
    h1 = c;
    h2 = c->in;
    h3 = c->half;
    return true;
}

bool CxFFT::Calc1D(float* in, float* re, float* im, void* h1, void* h2, void* h3)
{
    auto* c = static_cast<Plan1D*>(h1);
    if (!c || c->magic != Magic1D || h2 != c->in || h3 != c->half)
        return false;
    if (!in || !re || !im || re == im)
        return false;
    std::memcpy(c->in, in, sizeof(float) * size_t(c->n));
    fftwf_execute(c->plan);
    placeHalfSpectrum(c->half, c->n, re, im);
    return true;
}

void CxFFT::Free1D(void* h1, void* h2, void* h3) { release(h1, h2, h3); }

// ---------------------------------------------------------------- 2D

bool CxFFT::Alloc2D(const SxPicBufInfo& info, void*& h1, void*& h2, void*& h3)
{
    h1 = h2 = h3 = nullptr;
    if (info.width == 0 || info.height == 0 || info.width > MaxSide || info.height > MaxSide)
        return false;
    auto* c = new (std::nothrow) Plan2D;
    if (!c)
        return false;
    c->w = int(info.width);
    c->h = int(info.height);
    c->halfRows = c->h / 2 + 1;
    c->block = std::min(ColumnBlock, c->w);
    c->threads = pixelkit::threadSlots();
    // Rows on cache lines: every row shares the alignment the row plan was made with.
    c->rowStride = roundUp(size_t(c->w), CacheLine / sizeof(fftwf_complex));
    c->colOutOffset = roundUp(sizeof(float) * size_t(c->block) * size_t(c->h), CacheLine);
    c->rowOutOffset = c->colOutOffset
        + roundUp(sizeof(fftwf_complex) * size_t(c->block) * size_t(c->halfRows), CacheLine);
    c->slotBytes = c->rowOutOffset + roundUp(sizeof(fftwf_complex) * size_t(c->w), CacheLine);
    const size_t spectrumBytes = sizeof(fftwf_complex) * size_t(c->halfRows) * c->rowStride;
    c->cachedSpectrum = spectrumBytes <= CachedSpectrumBytes;
    c->spectrum = static_cast<fftwf_complex*>(allocWork(spectrumBytes));
    c->scratch = static_cast<uchar*>(allocWork(c->slotBytes * size_t(c->threads)));
    if (c->spectrum && c->scratch) {
        PlannerSession planner;
        c->columns = planner.plan([c](unsigned flags) {
            return fftwf_plan_many_dft_r2c(1, &c->h, c->block, c->colIn(0), nullptr, 1, c->h,
                                           c->colOut(0), nullptr, 1, c->halfRows, flags);
        });
        if (c->columns) {
            c->rows = planner.plan([c](unsigned flags) {
                return fftwf_plan_dft_1d(c->w, c->spectrum, c->rowOut(0), FFTW_FORWARD, flags);
            });
        }
    }
    if (!c->rows) {
        release(c, c->spectrum, c->scratch);
        return false;
    }
    h1 = c;
    h2 = c->spectrum;
    h3 = c->scratch;
    return true;
}

// Spectrum pictures are floats; the FFT 2D node's pool pictures carry the
// 32-bit integer type its output format announces, and hold floats all the same.
static bool holdsFloats(const SxPicBuf& pic)
{
    return pic.dataType == IDT_FLOAT || pic.dataType == IDT_INT32 || pic.dataType == IDT_UINT32;
}

bool CxFFT::Calc2D(const SxPicBuf& in, SxPicBuf& re, SxPicBuf& im, void* h1, void* h2, void* h3)
{
    const auto* c = static_cast<const Plan2D*>(h1);
    if (!c || c->magic != Magic2D || h2 != c->spectrum || h3 != c->scratch)
        return false;
    const GatherFn gather = gatherFor(in.dataType);
    const BlockGatherFn blockGather = blockGatherFor(in.dataType);
    if (!gather || !usablePicture(in, c->w, c->h, in.bytesPerSample()))
        return false;
    if (!holdsFloats(re) || !holdsFloats(im) || !usablePicture(re, c->w, c->h, 4)
        || !usablePicture(im, c->w, c->h, 4) || pixelkit::overlaps(re, im))
        return false;

    const int w = c->w;
    const int h = c->h;
    const int block = c->block;
    const quint64 inPitch = in.effectiveLinePitch();
    const quint64 rePitch = re.effectiveLinePitch();
    const quint64 imPitch = im.effectiveLinePitch();

    // Columns: real to complex, kept as rows 0..h/2 of the half spectrum.
    const int blocks = (w + block - 1) / block;
#if defined(QLAR_FFT_AVX2)
    const bool avx2 = pixelkit::cpuHas(pixelkit::CpuFeature::Avx2);
#endif
    const auto storeBlock = [&](const fftwf_complex* out, int count, fftwf_complex* dst) {
#if defined(QLAR_FFT_AVX2)
        // Rows on 32 bytes, as the wide stores need.
        if (avx2 && count == ColumnBlock && (quintptr(c->spectrum) & 31) == 0) {
            if (c->cachedSpectrum)
                storeBlockAvx2<false>(out, c->halfRows, dst, c->rowStride);
            else
                storeBlockAvx2<true>(out, c->halfRows, dst, c->rowStride);
            return;
        }
#endif
        if (c->cachedSpectrum)
            storeColumns<false>(out, c->halfRows, count, dst, c->rowStride);
        else
            storeColumns<true>(out, c->halfRows, count, dst, c->rowStride);
    };
    const quint64 blockBytes = quint64(block) * h * (in.bytesPerSample() + sizeof(fftwf_complex));
    pixelkit::forEachRowPiece(blocks, blockBytes, [&](int b0, int b1, int t) {
        float* colIn = c->colIn(t);
        fftwf_complex* colOut = c->colOut(t);
        for (int b = b0; b < b1; ++b) {
            const int k0 = b * block;
            const int count = std::min(block, w - k0);
            const bool nonZero = blockGather && count == ColumnBlock ? blockGather(in.data, inPitch, k0, h, colIn)
                                                                     : gather(in.data, inPitch, k0, count, h, colIn);
            if (!nonZero) {
                storeZeroColumns(c->halfRows, count, c->spectrum + k0, c->rowStride);
                continue;
            }
            if (count < block)
                std::memset(colIn + size_t(count) * h, 0, sizeof(float) * size_t(block - count) * h);
            fftwf_execute_dft_r2c(c->columns, colIn, colOut);
            storeBlock(colOut, count, c->spectrum + k0);
        }
        fence();
    });

    // Rows: each frequency row ky gives output row h/2 + ky and, through the
    // symmetry of a real picture's spectrum, its mirror row h/2 - ky.
    const int cy = h / 2;
    const quint64 rowBytes = quint64(w) * (sizeof(fftwf_complex) + 2 * 2 * sizeof(float));
    pixelkit::forEachRowPiece(c->halfRows, rowBytes, [&](int k0, int k1, int t) {
        fftwf_complex* row = c->rowOut(t);
        for (int ky = k0; ky < k1; ++ky) {
            fftwf_execute_dft(c->rows, c->spectrum + size_t(ky) * c->rowStride, row);
            const int y = ky + cy < h ? ky + cy : ky + cy - h;
            placeRow(row, w, reinterpret_cast<float*>(re.data + y * rePitch),
                     reinterpret_cast<float*>(im.data + y * imPitch));
            if (ky > 0 && 2 * ky != h) {
                const int my = cy - ky;
                placeMirrorRow(row, w, reinterpret_cast<float*>(re.data + my * rePitch),
                               reinterpret_cast<float*>(im.data + my * imPitch));
            }
        }
        fence();
    });
    return true;
}

void CxFFT::Free2D(void* h1, void* h2, void* h3) { release(h1, h2, h3); }

QString CxFFT::wisdomFilePath()
{
    const QString cache = QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation);
    return cache.isEmpty() ? QString() : cache + QStringLiteral("/qlar/fftwf-wisdom");
}
